#include "agents_command.h"

#include "account/catalog.h"
#include "command_line.h"
#include "local_command.h"
#include "service_connection.h"
#include "storage/agent_store.h"
#include "support/uuid_text.h"
#include "tools/tool_text.h"

#include <QCommandLineParser>
#include <QJsonArray>
#include <memory>

namespace kestrolan::cli {
namespace {

const QString groupHelp = QStringLiteral(
    "Usage: kestrolan-cli agents SUBCOMMAND\n"
    "\n"
    "Agents are named presets of instructions, model and temperature that a chat can take on;\n"
    "they are stored encrypted on this computer for the signed-in account.\n"
    "\n"
    "Subcommands:\n"
    "  list     List the agents\n"
    "  show     Show one agent\n"
    "  create   Create an agent and print its id\n"
    "  edit     Change an agent\n"
    "  delete   Delete an agent\n"
    "\n"
    "Run \"kestrolan-cli agents SUBCOMMAND --help\" for its options.");

const QString listHelp = QStringLiteral(
    "Usage: kestrolan-cli agents list [--json]\n"
    "\n"
    "Lists the agents, one line each: id, name and model.\n"
    "\n"
    "Options:\n"
    "  --json       print one line of JSON: an array of {id, name, instructions, model,\n"
    "               temperature, createdAt}\n"
    "  -h, --help   show this help");

const QString showHelp = QStringLiteral("Usage: kestrolan-cli agents show ID [--json]\n"
                                        "\n"
                                        "Shows the agent's name, model, temperature and "
                                        "instructions.\n"
                                        "\n"
                                        "Options:\n"
                                        "  --json       print the agent as one line of JSON\n"
                                        "  -h, --help   show this help");

const QString createHelp = QStringLiteral(
    "Usage: kestrolan-cli agents create --name NAME --model ID [--instructions TEXT]\n"
    "                                   [--temperature T]\n"
    "\n"
    "Creates an agent and prints its id. The model must be available in the service's catalog\n"
    "(see \"kestrolan-cli models\"); the temperature is a number from 0 to 2, and without one\n"
    "the model's default applies.\n"
    "\n"
    "Options:\n"
    "  --name NAME           the agent's name, 1 to 200 characters\n"
    "  --model ID            the model the agent chats with\n"
    "  --instructions TEXT   what the agent tells the model, at most 32 KiB\n"
    "  --temperature T       from 0 to 2\n"
    "  -h, --help            show this help");

const QString editHelp = QStringLiteral(
    "Usage: kestrolan-cli agents edit ID [--name NAME] [--model ID] [--instructions TEXT]\n"
    "                                 [--temperature T]\n"
    "\n"
    "Changes what is given and keeps the rest. An empty --temperature \"\" goes back to the\n"
    "model's default. The agent's model must be available in the catalog.\n"
    "\n"
    "Options:\n"
    "  --name NAME           the new name\n"
    "  --model ID            the new model\n"
    "  --instructions TEXT   the new instructions\n"
    "  --temperature T       the new temperature, from 0 to 2\n"
    "  -h, --help            show this help");

const QString deleteHelp = QStringLiteral("Usage: kestrolan-cli agents delete ID\n"
                                          "\n"
                                          "Deletes the agent.\n"
                                          "\n"
                                          "Options:\n"
                                          "  -h, --help   show this help");

QString command(const QString& subcommand) {
    return u"agents " + subcommand;
}

QString oneLine(const QString& text) {
    QString line = ToolText::escaped(text);
    line.replace(u'\n', u' ').replace(u'\t', u' ');
    return line;
}

QString notFound(const QUuid& id) {
    return u"No agent has the id " + uuidText(id) + u'.';
}

std::optional<QUuid> agentID(const Console& console, const QString& subcommand,
                             const QString& text) {
    return LocalCommand::idArgument(console, command(subcommand), text,
                                    QStringLiteral("an agent id"));
}

const Agent* find(const QList<Agent>& agents, const QUuid& id) {
    const auto found = std::find_if(agents.begin(), agents.end(),
                                    [&](const Agent& agent) { return agent.id == id; });
    return found == agents.end() ? nullptr : &*found;
}

QCoro::Task<std::unique_ptr<AgentStore>> openAgents(ServiceConnection* connection) {
    auto store = std::make_unique<AgentStore>(co_await LocalCommand::openStorage(connection));
    co_return store;
}

QString modelLine(const Agent& agent) {
    const auto temperature = agent.temperatureValue();
    return oneLine(agent.model) + (temperature ? u", temperature " + *temperature
                                               : QStringLiteral(", default temperature"));
}

QString showText(const Agent& agent) {
    QStringList lines;
    lines << u"Agent: " + oneLine(agent.name) << u"Id: " + uuidText(agent.id)
          << u"Model: " + modelLine(agent)
          << u"Created: " +
                 agent.createdAt.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm"));
    if (agent.instructions.trimmed().isEmpty())
        lines << QStringLiteral("Instructions: none");
    else
        lines << QStringLiteral("Instructions:") << ToolText::escaped(agent.instructions);
    return lines.join(u'\n');
}

// The options create and edit share.
struct AgentOptions {
    QCommandLineOption name{QStringLiteral("name"), QStringLiteral("The name."),
                            QStringLiteral("NAME")};
    QCommandLineOption model{QStringLiteral("model"), QStringLiteral("The model."),
                             QStringLiteral("ID")};
    QCommandLineOption instructions{QStringLiteral("instructions"),
                                    QStringLiteral("The instructions."), QStringLiteral("TEXT")};
    QCommandLineOption temperature{QStringLiteral("temperature"),
                                   QStringLiteral("The temperature."), QStringLiteral("T")};

    void addTo(QCommandLineParser& parser) const {
        parser.addOptions({name, model, instructions, temperature});
    }

    // `agent` with what the command line gives.
    void apply(const QCommandLineParser& parser, Agent& agent) const {
        if (parser.isSet(name))
            agent.name = parser.value(name);
        if (parser.isSet(model))
            agent.model = parser.value(model);
        if (parser.isSet(instructions))
            agent.instructions = parser.value(instructions);
        if (parser.isSet(temperature))
            agent.temperature = parser.value(temperature);
    }

    bool anySet(const QCommandLineParser& parser) const {
        return parser.isSet(name) || parser.isSet(model) || parser.isSet(instructions) ||
               parser.isSet(temperature);
    }
};

} // namespace

QString AgentsCommand::name() const {
    return QStringLiteral("agents");
}

QString AgentsCommand::summary() const {
    return QStringLiteral("Keep agents: named instructions, model and temperature");
}

QCoro::Task<int> AgentsCommand::run(QStringList arguments) {
    return runSubcommand(
        std::move(arguments), groupHelp,
        {{QLatin1StringView("list"), [this](QStringList rest) { return list(std::move(rest)); }},
         {QLatin1StringView("show"), [this](QStringList rest) { return show(std::move(rest)); }},
         {QLatin1StringView("create"),
          [this](QStringList rest) { return create(std::move(rest)); }},
         {QLatin1StringView("edit"), [this](QStringList rest) { return edit(std::move(rest)); }},
         {QLatin1StringView("delete"),
          [this](QStringList rest) { return remove(std::move(rest)); }}});
}

QCoro::Task<int> AgentsCommand::list(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption jsonOption(QStringLiteral("json"), QStringLiteral("Print JSON."));
    parser.addOption(jsonOption);
    const auto parsed = LocalCommand::parse(console(), parser, command(QStringLiteral("list")),
                                            listHelp, arguments, 0);
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;

    QList<Agent> agents;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const auto store = co_await openAgents(connection.get());
        agents = co_await store->list();
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    if (parser.isSet(jsonOption)) {
        QJsonArray array;
        for (const auto& agent : agents)
            array.append(agent.toJson());
        console().out(compactJson(array));
    } else if (agents.isEmpty()) {
        console().out(QStringLiteral("No agents."));
    } else {
        QStringList lines;
        for (const auto& agent : agents)
            lines << uuidText(agent.id) + u"  " + oneLine(agent.name) + u"  (" + modelLine(agent) +
                         u')';
        console().out(lines.join(u'\n'));
    }
    co_return exitSuccess;
}

QCoro::Task<int> AgentsCommand::show(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption jsonOption(QStringLiteral("json"), QStringLiteral("Print JSON."));
    parser.addOption(jsonOption);
    const auto parsed =
        LocalCommand::parse(console(), parser, command(QStringLiteral("show")), showHelp, arguments,
                            1, QStringLiteral("the id of one agent"));
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const auto id =
        agentID(console(), QStringLiteral("show"), std::get<QStringList>(parsed).first());
    if (!id)
        co_return exitUsage;

    std::optional<Agent> agent;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const auto store = co_await openAgents(connection.get());
        const QList<Agent> agents = co_await store->list();
        if (const Agent* found = find(agents, *id))
            agent = *found;
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    if (!agent) {
        console().err(notFound(*id));
        co_return exitFailure;
    }
    console().out(parser.isSet(jsonOption) ? compactJson(agent->toJson()) : showText(*agent));
    co_return exitSuccess;
}

QCoro::Task<int> AgentsCommand::create(QStringList arguments) {
    QCommandLineParser parser;
    const AgentOptions options;
    options.addTo(parser);
    const auto parsed = LocalCommand::parse(console(), parser, command(QStringLiteral("create")),
                                            createHelp, arguments, 0);
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    if (!parser.isSet(options.name) || !parser.isSet(options.model)) {
        console().err(QStringLiteral("kestrolan-cli agents create: give --name and --model\nRun "
                                     "\"kestrolan-cli agents create --help\" for usage."));
        co_return exitUsage;
    }
    Agent draft;
    options.apply(parser, draft);

    Agent created;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const Catalog catalog = co_await connection->client().catalog();
        const auto store = co_await openAgents(connection.get());
        created = co_await store->create(draft, catalog.models);
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    console().out(uuidText(created.id));
    co_return exitSuccess;
}

QCoro::Task<int> AgentsCommand::edit(QStringList arguments) {
    QCommandLineParser parser;
    const AgentOptions options;
    options.addTo(parser);
    const auto parsed =
        LocalCommand::parse(console(), parser, command(QStringLiteral("edit")), editHelp, arguments,
                            1, QStringLiteral("the id of one agent"));
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const auto id =
        agentID(console(), QStringLiteral("edit"), std::get<QStringList>(parsed).first());
    if (!id)
        co_return exitUsage;
    if (!options.anySet(parser)) {
        console().err(QStringLiteral(
            "kestrolan-cli agents edit: give --name, --model, --instructions or --temperature\n"
            "Run \"kestrolan-cli agents edit --help\" for usage."));
        co_return exitUsage;
    }

    std::optional<Agent> updated;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const Catalog catalog = co_await connection->client().catalog();
        const auto store = co_await openAgents(connection.get());
        const QList<Agent> agents = co_await store->list();
        if (const Agent* found = find(agents, *id)) {
            Agent edited = *found;
            options.apply(parser, edited);
            updated = co_await store->update(edited, catalog.models);
        }
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    if (!updated) {
        console().err(notFound(*id));
        co_return exitFailure;
    }
    console().out(u"Updated agent " + uuidText(*id) + u'.');
    co_return exitSuccess;
}

QCoro::Task<int> AgentsCommand::remove(QStringList arguments) {
    QCommandLineParser parser;
    const auto parsed =
        LocalCommand::parse(console(), parser, command(QStringLiteral("delete")), deleteHelp,
                            arguments, 1, QStringLiteral("the id of one agent"));
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const auto id =
        agentID(console(), QStringLiteral("delete"), std::get<QStringList>(parsed).first());
    if (!id)
        co_return exitUsage;

    bool removed = false;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const auto store = co_await openAgents(connection.get());
        removed = co_await store->remove(*id);
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    if (!removed) {
        console().err(notFound(*id));
        co_return exitFailure;
    }
    console().out(u"Deleted agent " + uuidText(*id) + u'.');
    co_return exitSuccess;
}

} // namespace kestrolan::cli

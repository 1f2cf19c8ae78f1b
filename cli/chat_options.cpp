#include "chat_options.h"

#include "command.h"
#include "tools/tool_executor.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>

namespace kestrolan::cli {

QString ChatOptions::help() {
    return QStringLiteral(
        "Usage: kestrolan-cli chat [OPTIONS] [MESSAGE]\n"
        "\n"
        "Sends MESSAGE and prints the reply as it streams. Without MESSAGE, standard input is\n"
        "the message; on a terminal an interactive chat starts instead (type /help there).\n"
        "The reply text goes to standard output; the tool timeline, the lines under each reply,\n"
        "the charges and notes go to standard error. Ctrl-C stops the reply (exit status 130).\n"
        "\n"
        "Options:\n"
        "  -m, --model ID            the model (default: the selected one; remembered)\n"
        "  --compare ID              also ask this model, in a reply column of its own\n"
        "                            (at most twice)\n"
        "  --access MODE             local tools: off (default), ask, read-only or full\n"
        "  --workspace DIR           the folder local tools work in (default: the current one)\n"
        "  --accept-tool-billing     accept that tools make separately billed requests\n"
        "                            (needed for every --access but off)\n"
        "  --confirm-full-access     accept the risk of unconfined commands (needed for full)\n"
        "  --web-search              offer the billed web search tool\n"
        "  --web-fetch               offer the web page fetch tool\n"
        "  -a, --attach FILE         attach a text file (repeatable)\n"
        "  --system TEXT             system instructions\n"
        "  --max-tokens N            the reply's output allowance\n"
        "  --temperature T           the sampling temperature\n"
        "  --continue ID             continue the saved chat ID\n"
        "  --project ID              send the local project's instructions and files\n"
        "  --agent ID                answer as the local agent (its model unless -m is given)\n"
        "  --save                    save the chat to your account after the turn\n"
        "  --json                    one JSON event per line on standard output; approvals\n"
        "                            are answered on standard input with lines such as\n"
        "                            {\"approval\":\"ID\",\"allow\":true}\n"
        "  -h, --help                show this help\n"
        "\n"
        "On a terminal each approval is asked with \"Allow once? [y/N]\"; without a terminal or\n"
        "--json every approval is denied at once.\n"
        "\n"
        "Exit status: 0 success, 1 the turn or the save failed, 2 bad usage, 4 not signed in,\n"
        "130 stopped.");
}

std::optional<LocalAccessMode> ChatOptions::accessFromName(const QString& name) {
    if (name == u"off")
        return LocalAccessMode::off;
    if (name == u"ask")
        return LocalAccessMode::askEveryTime;
    if (name == u"read-only")
        return LocalAccessMode::readOnlyWorkspace;
    if (name == u"full")
        return LocalAccessMode::fullAccess;
    return std::nullopt;
}

std::variant<ChatOptions, int> ChatOptions::parse(const Console& console,
                                                  const QStringList& arguments) {
    const auto usageError = [&](const QString& message) {
        console.err(u"kestrolan-cli chat: " + message +
                    u"\nRun \"kestrolan-cli chat --help\" for usage.");
        return int(exitUsage);
    };
    QCommandLineParser parser;
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Show this help."));
    const QCommandLineOption model({QStringLiteral("m"), QStringLiteral("model")},
                                   QStringLiteral("Model."), QStringLiteral("ID"));
    const QCommandLineOption compare(QStringLiteral("compare"), QStringLiteral("Compare."),
                                     QStringLiteral("ID"));
    const QCommandLineOption access(QStringLiteral("access"), QStringLiteral("Access."),
                                    QStringLiteral("MODE"));
    const QCommandLineOption workspace(QStringLiteral("workspace"), QStringLiteral("Folder."),
                                       QStringLiteral("DIR"));
    const QCommandLineOption acceptBilling(QStringLiteral("accept-tool-billing"),
                                           QStringLiteral("Accept tool billing."));
    const QCommandLineOption confirmFull(QStringLiteral("confirm-full-access"),
                                         QStringLiteral("Confirm full access."));
    const QCommandLineOption webSearch(QStringLiteral("web-search"), QStringLiteral("Search."));
    const QCommandLineOption webFetch(QStringLiteral("web-fetch"), QStringLiteral("Fetch."));
    const QCommandLineOption attach({QStringLiteral("a"), QStringLiteral("attach")},
                                    QStringLiteral("Attach."), QStringLiteral("FILE"));
    const QCommandLineOption system(QStringLiteral("system"), QStringLiteral("System."),
                                    QStringLiteral("TEXT"));
    const QCommandLineOption maxTokens(QStringLiteral("max-tokens"), QStringLiteral("Tokens."),
                                       QStringLiteral("N"));
    const QCommandLineOption temperature(QStringLiteral("temperature"),
                                         QStringLiteral("Temperature."), QStringLiteral("T"));
    const QCommandLineOption continueChat(QStringLiteral("continue"), QStringLiteral("Continue."),
                                          QStringLiteral("ID"));
    const QCommandLineOption project(QStringLiteral("project"), QStringLiteral("Project."),
                                     QStringLiteral("ID"));
    const QCommandLineOption agent(QStringLiteral("agent"), QStringLiteral("Agent."),
                                   QStringLiteral("ID"));
    const QCommandLineOption save(QStringLiteral("save"), QStringLiteral("Save."));
    const QCommandLineOption json(QStringLiteral("json"), QStringLiteral("JSON."));
    parser.addOptions({help, model, compare, access, workspace, acceptBilling, confirmFull,
                       webSearch, webFetch, attach, system, maxTokens, temperature, continueChat,
                       project, agent, save, json});
    if (!parser.parse(QStringList{QStringLiteral("kestrolan-cli")} + arguments))
        return usageError(parser.errorText());
    if (parser.isSet(help)) {
        console.out(ChatOptions::help());
        return int(exitSuccess);
    }

    ChatOptions options;
    const QStringList positional = parser.positionalArguments();
    if (positional.size() > 1)
        return usageError(u"unexpected argument \"" + positional.at(1) + u"\" (quote the message)");
    if (!positional.isEmpty()) {
        if (positional.first().trimmed().isEmpty())
            return usageError(QStringLiteral("the message is empty"));
        options.message = positional.first();
    }
    if (parser.isSet(model))
        options.model = parser.value(model);
    options.compare = parser.values(compare);
    if (options.compare.size() > maxCompared)
        return usageError(QStringLiteral("--compare can be given at most twice"));

    if (parser.isSet(access)) {
        const auto mode = accessFromName(parser.value(access));
        if (!mode)
            return usageError(QStringLiteral("--access takes off, ask, read-only or full"));
        options.access = *mode;
    }
    options.acceptToolBilling = parser.isSet(acceptBilling);
    options.confirmFullAccess = parser.isSet(confirmFull);
    if (options.access != LocalAccessMode::off && !options.acceptToolBilling)
        return usageError(u"--access " + parser.value(access) +
                          u" needs --accept-tool-billing, which accepts this: " +
                          ToolExecutor::billingDisclosure());
    if (options.access == LocalAccessMode::fullAccess && !options.confirmFullAccess)
        return usageError(u"--access full needs --confirm-full-access, which accepts this: " +
                          ToolExecutor::fullAccessDisclosure());
    if (parser.isSet(workspace) && options.access == LocalAccessMode::off)
        return usageError(QStringLiteral("--workspace needs --access"));
    options.workspace =
        QDir(parser.isSet(workspace) ? parser.value(workspace) : QDir::currentPath())
            .absolutePath();
    if (options.access != LocalAccessMode::off && !QFileInfo(options.workspace).isDir())
        return usageError(u"the workspace \"" + options.workspace + u"\" is not a folder");

    options.webSearch = parser.isSet(webSearch);
    options.webFetch = parser.isSet(webFetch);
    for (const QString& file : parser.values(attach))
        options.attachments.append(QFileInfo(file).absoluteFilePath());
    if (parser.isSet(system))
        options.system = parser.value(system);
    if (parser.isSet(maxTokens))
        options.maxTokens = parser.value(maxTokens);
    if (parser.isSet(temperature))
        options.temperature = parser.value(temperature);
    if (parser.isSet(continueChat)) {
        const QUuid id = QUuid::fromString(parser.value(continueChat));
        if (id.isNull())
            return usageError(u"--continue takes a chat id, not \"" + parser.value(continueChat) +
                              u'"');
        options.continueID = id;
    }
    for (const auto& [option, target] :
         {std::pair{&project, &options.projectID}, std::pair{&agent, &options.agentID}}) {
        if (!parser.isSet(*option))
            continue;
        const QUuid id = QUuid::fromString(parser.value(*option));
        if (id.isNull())
            return usageError(u"--" + option->names().constFirst() + u" takes an id, not \"" +
                              parser.value(*option) + u'"');
        *target = id;
    }
    options.save = parser.isSet(save);
    options.json = parser.isSet(json);
    return options;
}

} // namespace kestrolan::cli

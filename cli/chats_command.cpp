#include "chats_command.h"

#include "command_line.h"
#include "conversation/saved_chat_summary.h"
#include "conversation/saved_conversation.h"
#include "service_connection.h"
#include "support/uuid_text.h"
#include "tools/tool_operation.h"
#include "tools/tool_text.h"

#include <QCommandLineParser>
#include <QDateTime>
#include <QJsonArray>
#include <QTimeZone>
#include <algorithm>

namespace kestrolan::cli {
namespace {

// Outside the coroutine that uses it: lambdas in coroutine frames trip GCC 12 and clang-tidy.
void sortNewestFirst(QList<SavedChatSummary>& summaries) {
    std::stable_sort(summaries.begin(), summaries.end(),
                     [](const auto& a, const auto& b) { return a.updatedAt > b.updatedAt; });
}

const QString groupHelp =
    QStringLiteral("Usage: kestrolan-cli chats SUBCOMMAND\n"
                   "\n"
                   "Subcommands:\n"
                   "  list     List the chats saved on your account, newest first\n"
                   "  show     Print one saved chat\n"
                   "  delete   Delete one saved chat\n"
                   "\n"
                   "Run \"kestrolan-cli chats SUBCOMMAND --help\" for its options.");

const QString listHelp = QStringLiteral(
    "Usage: kestrolan-cli chats list [--json]\n"
    "\n"
    "Lists the saved chats under \"Today\", \"Yesterday\", \"Previous 7 days\" and \"Older\"\n"
    "(by the local time zone), newest first, one line each: id, last update, title.\n"
    "\n"
    "Options:\n"
    "  --json       print one line of JSON instead: an array of {id, title, updated_at, group}\n"
    "  -h, --help   show this help");

const QString showHelp = QStringLiteral(
    "Usage: kestrolan-cli chats show ID [--json]\n"
    "\n"
    "Prints the chat as text: each user message, then each reply with its model and the\n"
    "lines under it (charges and warnings).\n"
    "\n"
    "Options:\n"
    "  --json       print the saved document as one line of JSON instead\n"
    "  -h, --help   show this help");

const QString deleteHelp = QStringLiteral("Usage: kestrolan-cli chats delete ID\n"
                                          "\n"
                                          "Deletes the saved chat from your account.\n"
                                          "\n"
                                          "Options:\n"
                                          "  -h, --help   show this help");

// Text from the service reaches a terminal: no escape sequences, no controls.
QString shown(const QString& text) {
    return ToolText::escaped(text);
}

// One line of a listing: line breaks and tabs become spaces.
QString oneLine(const QString& text) {
    QString line = shown(text);
    line.replace(u'\n', u' ').replace(u'\t', u' ');
    return line;
}

QString localTime(const QDateTime& instant) {
    return instant.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm"));
}

QStringList transcript(const SavedConversation& conversation) {
    QStringList lines;
    lines << u"Title: " + (conversation.title && !conversation.title->isEmpty()
                               ? oneLine(*conversation.title)
                               : QStringLiteral("Untitled"));
    for (const auto& turn : conversation.turns) {
        lines << QString() << QStringLiteral("You:") << shown(turn.user);
        if (turn.attachments) {
            for (const auto& attachment : *turn.attachments)
                lines << u"[Attached: " + oneLine(attachment.name) + u']';
        }
        for (const auto& reply : turn.replies) {
            lines << QString() << oneLine(reply.model) + u':';
            if (reply.exchanges) {
                for (const auto& message : *reply.exchanges) {
                    if (!message.toolCalls)
                        continue;
                    for (const auto& call : *message.toolCalls) {
                        // Loaded chats are validated, so every call decodes.
                        const ToolOperation operation(call);
                        lines << u"[Tool: " + operation.name() + u' ' +
                                     oneLine(operation.target()) + u']';
                    }
                }
            }
            if (!reply.text.isEmpty())
                lines << shown(reply.text);
            if (reply.state == SavedConversation::Reply::State::stopped)
                lines << QStringLiteral("Response stopped.");
            if (reply.error)
                lines << u"Error: " + oneLine(reply.error->message);
            for (const auto& meta : reply.meta)
                lines << (meta.error ? u"  Warning: " : u"  ") + oneLine(meta.text);
        }
    }
    return lines;
}

} // namespace

QString ChatsCommand::name() const {
    return QStringLiteral("chats");
}

QString ChatsCommand::summary() const {
    return QStringLiteral("List, show and delete the chats saved on your account");
}

QCoro::Task<int> ChatsCommand::run(QStringList arguments) {
    return runSubcommand(
        std::move(arguments), groupHelp,
        {{QLatin1StringView("list"), [this](QStringList rest) { return list(std::move(rest)); }},
         {QLatin1StringView("show"), [this](QStringList rest) { return show(std::move(rest)); }},
         {QLatin1StringView("delete"),
          [this](QStringList rest) { return remove(std::move(rest)); }}});
}

std::variant<ChatsCommand::Parsed, int> ChatsCommand::parse(const QString& subcommand,
                                                            const QString& help,
                                                            const QStringList& arguments,
                                                            bool takesID, bool allowsJson) const {
    const QString command = u"chats " + subcommand;
    const auto usageError = [&](const QString& message) {
        console().err(u"kestrolan-cli " + command + u": " + message + u"\nRun \"kestrolan-cli " +
                      command + u" --help\" for usage.");
        return int(exitUsage);
    };
    QCommandLineParser parser;
    const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")},
                                        QStringLiteral("Show this help."));
    const QCommandLineOption jsonOption(QStringLiteral("json"), QStringLiteral("Print JSON."));
    parser.addOption(helpOption);
    if (allowsJson)
        parser.addOption(jsonOption);
    if (!parser.parse(QStringList{QStringLiteral("kestrolan-cli")} + arguments))
        return usageError(parser.errorText());
    if (parser.isSet(helpOption)) {
        console().out(help);
        return int(exitSuccess);
    }
    Parsed parsed;
    parsed.json = allowsJson && parser.isSet(jsonOption);
    const QStringList positional = parser.positionalArguments();
    if (!takesID) {
        if (!positional.isEmpty())
            return usageError(u"unexpected argument \"" + positional.first() + u'"');
        return parsed;
    }
    if (positional.size() != 1)
        return usageError(QStringLiteral("give the id of one chat"));
    parsed.id = uuidFromText(positional.first());
    if (!parsed.id)
        return usageError(u"\"" + positional.first() + u"\" is not a chat id");
    return parsed;
}

QCoro::Task<int> ChatsCommand::list(QStringList arguments) {
    const auto parsed = parse(QStringLiteral("list"), listHelp, arguments, false, true);
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const bool json = std::get<Parsed>(parsed).json;

    QList<SavedChatSummary> summaries;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        summaries = co_await connection->client().chats();
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }

    sortNewestFirst(summaries);
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QTimeZone zone = QTimeZone::systemTimeZone();

    if (json) {
        QJsonArray array;
        for (const auto& summary : summaries) {
            auto object = summary.toJson();
            object.insert(QStringLiteral("group"),
                          SavedChatSummary::heading(summary.group(now, zone)));
            array.append(object);
        }
        console().out(compactJson(array));
        co_return exitSuccess;
    }
    if (summaries.isEmpty()) {
        console().out(QStringLiteral("No saved chats."));
        co_return exitSuccess;
    }
    // Newest first overall, so the groups come out in heading order too.
    QStringList lines;
    std::optional<SavedChatSummary::Group> current;
    for (const auto& summary : summaries) {
        const auto group = summary.group(now, zone);
        if (group != current) {
            if (current)
                lines << QString();
            lines << SavedChatSummary::heading(group);
            current = group;
        }
        const QString title = summary.title.isEmpty() ? QStringLiteral("Untitled") : summary.title;
        lines << u"  " + uuidText(summary.id) + u"  " + localTime(summary.updatedAt) + u"  " +
                     oneLine(title);
    }
    console().out(lines.join(u'\n'));
    co_return exitSuccess;
}

QCoro::Task<int> ChatsCommand::show(QStringList arguments) {
    const auto parsed = parse(QStringLiteral("show"), showHelp, arguments, true, true);
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const auto [json, id] = std::get<Parsed>(parsed);

    std::optional<SavedConversation> conversation;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        conversation = co_await connection->client().chat(*id);
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    if (json) {
        console().out(compactJson(conversation->toJson()));
    } else {
        console().out(transcript(*conversation).join(u'\n'));
    }
    co_return exitSuccess;
}

QCoro::Task<int> ChatsCommand::remove(QStringList arguments) {
    const auto parsed = parse(QStringLiteral("delete"), deleteHelp, arguments, true, false);
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const QUuid id = *std::get<Parsed>(parsed).id;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        co_await connection->client().deleteChat(id);
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    console().out(u"Deleted chat " + uuidText(id) + u'.');
    co_return exitSuccess;
}

} // namespace kestrolan::cli

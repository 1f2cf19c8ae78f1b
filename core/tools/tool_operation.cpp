#include "tools/tool_operation.h"

#include "support/json_text.h"
#include "tools/argument_decoding_error.h"
#include "tools/harness_error.h"
#include "tools/tool_definition.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <cmath>

namespace kestrolan {

namespace {

[[noreturn]] void refuse() {
    throw HarnessError(HarnessError::Kind::invalidArguments);
}

qsizetype utf8Size(const QString& text) {
    return text.toUtf8().size();
}

bool hasNul(const QString& text) {
    return text.contains(QChar(u'\0'));
}

// The raw argument object: every key present (null values included), then each known key
// decoded with its own type. A value of the wrong JSON type fails the whole decode.
struct Arguments {
    QSet<QString> keys;
    std::optional<QString> path;
    std::optional<qint64> offset;
    std::optional<qint64> limit;
    std::optional<QString> query;
    std::optional<QString> url;
    std::optional<QString> expectedHash;
    std::optional<QString> content;
    std::optional<bool> create;
    std::optional<QString> command;
    std::optional<QString> cwd;

    static Arguments decode(const QByteArray& data) {
        QJsonParseError error;
        const auto document = QJsonDocument::fromJson(data, &error);
        if (error.error != QJsonParseError::NoError || !document.isObject())
            throw ArgumentDecodingError();
        const auto object = document.object();

        Arguments arguments;
        for (auto it = object.begin(); it != object.end(); ++it)
            arguments.keys.insert(it.key());
        arguments.path = string(object, u"path");
        arguments.offset = integer(object, u"offset");
        arguments.limit = integer(object, u"limit");
        arguments.query = string(object, u"query");
        arguments.url = string(object, u"url");
        arguments.expectedHash = string(object, u"expected_hash");
        arguments.content = string(object, u"content");
        arguments.create = boolean(object, u"create");
        arguments.command = string(object, u"command");
        arguments.cwd = string(object, u"cwd");
        return arguments;
    }

private:
    static std::optional<QJsonValue> present(const QJsonObject& object, QStringView key) {
        const auto value = object.value(key);
        if (value.isUndefined() || value.isNull())
            return std::nullopt;
        return value;
    }

    static std::optional<QString> string(const QJsonObject& object, QStringView key) {
        const auto value = present(object, key);
        if (!value)
            return std::nullopt;
        if (!value->isString())
            throw ArgumentDecodingError();
        return value->toString();
    }

    static std::optional<qint64> integer(const QJsonObject& object, QStringView key) {
        const auto value = present(object, key);
        if (!value)
            return std::nullopt;
        // Any integral number a 64-bit integer holds; 1.0 is an integer, 1.5 is not.
        const double number = value->toDouble();
        if (!value->isDouble() || !std::isfinite(number) || std::trunc(number) != number ||
            number < -9223372036854775808.0 || number >= 9223372036854775808.0)
            throw ArgumentDecodingError();
        return static_cast<qint64>(number);
    }

    static std::optional<bool> boolean(const QJsonObject& object, QStringView key) {
        const auto value = present(object, key);
        if (!value)
            return std::nullopt;
        if (!value->isBool())
            throw ArgumentDecodingError();
        return value->toBool();
    }
};

ToolOperation::Payload decode(const ToolCall& call) {
    if (call.type != u"function")
        refuse();
    const auto idBytes = utf8Size(call.id);
    if (idBytes == 0 || idBytes > ToolOperation::maxCallIDBytes)
        refuse();
    const QByteArray data = call.function.arguments.toUtf8();
    if (data.size() > ToolOperation::maxArgumentBytes)
        refuse();

    const auto arguments = Arguments::decode(data);

    // The paging bounds hold for every tool, before its name is looked at.
    const qint64 offset = arguments.offset.value_or(0);
    const qint64 limit = arguments.limit.value_or(ToolOperation::defaultLimit);
    if (offset < 0 || offset > ToolOperation::maxOffset || limit < 1 ||
        limit > ToolOperation::maxLimit)
        refuse();

    const auto definition = ToolDefinition::named(call.function.name);
    if (!definition)
        refuse();
    const auto& parameters = definition->function.parameters;
    for (const auto& key : arguments.keys) {
        if (!parameters.properties.contains(key))
            refuse();
    }
    for (const auto& key : parameters.required) {
        if (!arguments.keys.contains(key))
            refuse();
    }

    const auto& name = call.function.name;
    if (name == u"web_search") {
        const auto& query = arguments.query;
        if (!query || query->trimmed().isEmpty() ||
            utf8Size(*query) > ToolOperation::maxWebTextBytes || hasNul(*query))
            refuse();
        return ToolOperation::WebSearch{*query};
    }
    if (name == u"web_fetch") {
        const auto& url = arguments.url;
        if (!url || url->isEmpty() || utf8Size(*url) > ToolOperation::maxWebTextBytes ||
            hasNul(*url))
            refuse();
        return ToolOperation::WebFetch{*url};
    }
    if (name == u"read_file") {
        if (!arguments.path || arguments.path->isEmpty())
            refuse();
        return ToolOperation::ReadFile{*arguments.path, offset, limit};
    }
    if (name == u"list_directory") {
        if (!arguments.path || limit > ToolOperation::maxListingLimit)
            refuse();
        return ToolOperation::ListDirectory{*arguments.path, offset, limit};
    }
    if (name == u"search") {
        const auto& query = arguments.query;
        if (!arguments.path || !query || query->isEmpty() ||
            utf8Size(*query) > ToolOperation::maxSearchQueryBytes ||
            limit > ToolOperation::maxListingLimit)
            refuse();
        return ToolOperation::Search{*arguments.path, *query, offset, limit};
    }
    if (name == u"edit_file") {
        if (!arguments.path || arguments.path->isEmpty() || !arguments.content ||
            !arguments.create || hasNul(*arguments.content))
            refuse();
        if (*arguments.create) {
            // A new file has nothing to compare against.
            if (arguments.expectedHash)
                refuse();
        } else if (!arguments.expectedHash ||
                   graphemeCount(*arguments.expectedHash) != ToolOperation::hashCharacters) {
            refuse();
        }
        return ToolOperation::EditFile{*arguments.path, arguments.expectedHash, *arguments.content,
                                       *arguments.create};
    }
    if (name == u"run_shell") {
        if (!arguments.command || !arguments.cwd || arguments.command->isEmpty() ||
            hasNul(*arguments.command) || hasNul(*arguments.cwd))
            refuse();
        return ToolOperation::RunShell{*arguments.command, *arguments.cwd};
    }
    refuse();
}

} // namespace

ToolOperation::ToolOperation(Payload payload)
    : m_payload(std::move(payload)) {}

ToolOperation::ToolOperation(const ToolCall& call)
    : m_payload(decode(call)) {}

QString ToolOperation::name() const {
    static const char16_t* const names[] = {u"read_file", u"list_directory", u"search",
                                            u"edit_file", u"run_shell",      u"web_search",
                                            u"web_fetch"};
    static_assert(std::size(names) == std::variant_size_v<Payload>);
    return QString::fromUtf16(names[m_payload.index()]);
}

QString ToolOperation::target() const {
    return std::visit(
        [](const auto& operation) -> QString {
            using T = std::decay_t<decltype(operation)>;
            if constexpr (std::is_same_v<T, RunShell>)
                return operation.cwd;
            else if constexpr (std::is_same_v<T, WebSearch>)
                return operation.query;
            else if constexpr (std::is_same_v<T, WebFetch>)
                return operation.url;
            else
                return operation.path;
        },
        m_payload);
}

bool ToolOperation::isLocalRead() const {
    return std::holds_alternative<ReadFile>(m_payload) ||
           std::holds_alternative<ListDirectory>(m_payload) ||
           std::holds_alternative<Search>(m_payload);
}

bool ToolOperation::isMutation() const {
    return std::holds_alternative<EditFile>(m_payload) ||
           std::holds_alternative<RunShell>(m_payload);
}

bool ToolOperation::isWeb() const {
    return std::holds_alternative<WebSearch>(m_payload) ||
           std::holds_alternative<WebFetch>(m_payload);
}

} // namespace kestrolan

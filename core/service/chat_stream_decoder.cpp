#include "service/chat_stream_decoder.h"

#include "service/client_error.h"
#include "support/json_reader.h"

#include <QJsonDocument>
#include <algorithm>
#include <simdjson.h>
#include <string_view>
#include <vector>

namespace kestrolan {

namespace dom = simdjson::dom;

namespace {

// Absent and JSON null both read as absent; any other type than string is refused.
std::optional<std::string_view> optionalString(dom::element value) {
    if (value.is_null())
        return std::nullopt;
    std::string_view text;
    if (value.get_string().get(text))
        ClientError::refuse();
    return text;
}

// Absent and JSON null both read as absent; anything but an object is refused.
std::optional<dom::object> optionalObject(dom::element value) {
    if (value.is_null())
        return std::nullopt;
    dom::object object;
    if (value.get_object().get(object))
        ClientError::refuse();
    return object;
}

TokenUsage readUsage(dom::object object) {
    static constexpr std::string_view keys[] = {"prompt_tokens", "completion_tokens",
                                                "total_tokens"};
    std::optional<uint64_t> counts[std::size(keys)];
    for (const auto [key, value] : object) {
        const auto* const known = std::find(std::begin(keys), std::end(keys), key);
        if (known == std::end(keys))
            continue;
        uint64_t count = 0;
        if (value.get_uint64().get(count))
            ClientError::refuse();
        counts[known - std::begin(keys)] = count;
    }
    if (!counts[0] || !counts[1] || !counts[2])
        ClientError::refuse();
    return TokenUsage{*counts[0], *counts[1], *counts[2]};
}

QByteArrayView bytes(std::string_view text) {
    return QByteArrayView(text.data(), static_cast<qsizetype>(text.size()));
}

QString utf16(std::string_view text) {
    return QString::fromUtf8(bytes(text));
}

} // namespace

// The parts of one chunk, read before anything is merged or reported so that a malformed
// chunk changes nothing. The views point into the parser's buffers until the next parse.
struct ChatStreamDecoder::Json {
    struct CallDelta {
        qint64 index = 0;
        std::optional<std::string_view> id;
        std::optional<std::string_view> type;
        std::optional<std::string_view> name;
        std::optional<std::string_view> arguments;
    };

    dom::parser parser; // keeps its padded input buffer and tape between chunks
    std::optional<std::string_view> content;
    std::optional<std::string_view> finishReason;
    std::vector<CallDelta> deltas;
    std::optional<TokenUsage> usage;

    void read(const QByteArray& data);
    void readChoice(dom::element value);
    void readDelta(dom::object delta);
    void readCallDelta(dom::element value);
};

void ChatStreamDecoder::Json::read(const QByteArray& data) {
    content.reset();
    finishReason.reset();
    deltas.clear();
    usage.reset();

    dom::element root;
    if (parser.parse(data.constData(), static_cast<size_t>(data.size()), true).get(root))
        ClientError::refuse();
    dom::object chunk;
    if (root.get_object().get(chunk))
        ClientError::refuse();
    for (const auto [key, value] : chunk) {
        if (key == "object") {
            optionalString(value);
        } else if (key == "choices") {
            if (value.is_null())
                continue;
            dom::array choices;
            if (value.get_array().get(choices) || choices.size() > 1)
                ClientError::refuse();
            for (const dom::element choice : choices)
                readChoice(choice);
        } else if (key == "usage") {
            if (const auto object = optionalObject(value))
                usage = readUsage(*object);
        }
    }
}

void ChatStreamDecoder::Json::readChoice(dom::element value) {
    dom::object choice;
    if (value.get_object().get(choice))
        ClientError::refuse();
    for (const auto [key, field] : choice) {
        if (key == "delta") {
            if (const auto delta = optionalObject(field))
                readDelta(*delta);
        } else if (key == "finish_reason") {
            finishReason = optionalString(field);
        }
    }
}

// The delta, its tool calls and their functions are strict: an unknown key, even with a null
// value, is unreadable. The chunk and the choice around them stay open to additions.
void ChatStreamDecoder::Json::readDelta(dom::object delta) {
    for (const auto [key, value] : delta) {
        if (key == "content") {
            content = optionalString(value);
        } else if (key == "role") {
            optionalString(value);
        } else if (key == "tool_calls") {
            if (value.is_null())
                continue;
            dom::array calls;
            if (value.get_array().get(calls))
                ClientError::refuse();
            for (const dom::element call : calls)
                readCallDelta(call);
        } else {
            ClientError::refuse();
        }
    }
}

void ChatStreamDecoder::Json::readCallDelta(dom::element value) {
    dom::object object;
    if (value.get_object().get(object))
        ClientError::refuse();
    CallDelta delta;
    bool hasIndex = false;
    for (const auto [key, field] : object) {
        if (key == "index") {
            int64_t index = 0;
            if (field.get_int64().get(index))
                ClientError::refuse();
            delta.index = index;
            hasIndex = true;
        } else if (key == "id") {
            delta.id = optionalString(field);
        } else if (key == "type") {
            delta.type = optionalString(field);
        } else if (key == "function") {
            const auto function = optionalObject(field);
            if (!function)
                continue;
            for (const auto [functionKey, functionField] : *function) {
                if (functionKey == "name")
                    delta.name = optionalString(functionField);
                else if (functionKey == "arguments")
                    delta.arguments = optionalString(functionField);
                else
                    ClientError::refuse();
            }
        } else {
            ClientError::refuse();
        }
    }
    if (!hasIndex)
        ClientError::refuse();
    deltas.push_back(delta);
}

ChatStreamDecoder::ChatStreamDecoder()
    : m_json(std::make_unique<Json>()) {}

ChatStreamDecoder::~ChatStreamDecoder() = default;
ChatStreamDecoder::ChatStreamDecoder(ChatStreamDecoder&&) noexcept = default;
ChatStreamDecoder& ChatStreamDecoder::operator=(ChatStreamDecoder&&) noexcept = default;

void ChatStreamDecoder::decodeEvent(const SSEEvent& event, SinkThunk sink, void* callable) {
    // The first "[DONE]" ends the reply. Whatever follows, valid or not, is ignored rather than
    // failing a reply already reported done: handing tool calls out again would run them twice.
    if (m_isDone)
        return;
    if (event.data == "[DONE]") {
        decodeDone(sink, callable);
    } else if (event.event == "error") {
        auto error = APIError::fromErrorOrEnvelope(event.data);
        if (!error)
            ClientError::refuse();
        m_streamError = *error;
        throw *error;
    } else if (event.event == "kestrolan.billing") {
        const auto document = QJsonDocument::fromJson(event.data);
        if (!document.isObject())
            ClientError::refuse();
        BillingUsage usage;
        try {
            usage = BillingUsage::fromJson(document.object());
        } catch (const JsonReader::FieldError&) {
            ClientError::refuse();
        }
        sink(callable, ChatStreamEvent::billing(std::move(usage)));
    } else {
        decodeChunk(event.data, sink, callable);
    }
}

void ChatStreamDecoder::decodeDone(SinkThunk sink, void* callable) {
    if (m_calls.empty()) {
        if (m_finishReason == "tool_calls")
            ClientError::refuse();
        m_isDone = true;
        sink(callable, ChatStreamEvent::done());
        return;
    }
    if (m_finishReason != "tool_calls")
        ClientError::refuse(ClientError::Kind::incompleteStream);

    QList<ToolCall> calls;
    calls.reserve(static_cast<qsizetype>(m_calls.size()));
    qint64 expected = 0;
    for (const auto& [index, fragment] : m_calls) {
        if (index != expected++ || fragment.id.isEmpty() || fragment.id.size() > maxIDBytes ||
            !(fragment.type.isEmpty() || fragment.type == "function") || fragment.name.isEmpty())
            ClientError::refuse();
        calls.append(
            ToolCall{QString::fromUtf8(fragment.id),
                     QStringLiteral("function"),
                     {QString::fromUtf8(fragment.name), QString::fromUtf8(fragment.arguments)}});
    }
    m_emittedCalls = true;
    m_isDone = true;
    sink(callable, ChatStreamEvent::toolCalls(std::move(calls)));
    sink(callable, ChatStreamEvent::done());
}

void ChatStreamDecoder::decodeChunk(const QByteArray& data, SinkThunk sink, void* callable) {
    Json& json = *m_json;
    json.read(data);

    for (const auto& delta : json.deltas) {
        // Empty deltas for ever new indexes would otherwise grow memory within the byte limits.
        if (m_calls.size() >= static_cast<size_t>(maxCalls) && !m_calls.contains(delta.index))
            ClientError::refuse(ClientError::Kind::streamTooLarge);
        Fragment& fragment = m_calls[delta.index];
        if (delta.id) {
            fragment.id.append(bytes(*delta.id));
            if (fragment.id.size() > maxIDBytes)
                ClientError::refuse(ClientError::Kind::streamTooLarge);
        }
        if (delta.type)
            fragment.type.append(bytes(*delta.type));
        if (delta.name) {
            fragment.name.append(bytes(*delta.name));
            if (fragment.name.size() > maxNameBytes)
                ClientError::refuse(ClientError::Kind::streamTooLarge);
        }
        if (delta.arguments) {
            fragment.arguments.append(bytes(*delta.arguments));
            m_argumentBytes += static_cast<qsizetype>(delta.arguments->size());
            if (fragment.arguments.size() > maxCallArgumentBytes ||
                m_argumentBytes > maxTotalArgumentBytes)
                ClientError::refuse(ClientError::Kind::streamTooLarge);
        }
    }
    if (json.finishReason)
        m_finishReason = bytes(*json.finishReason).toByteArray();

    if (json.content)
        sink(callable, ChatStreamEvent::text(utf16(*json.content)));
    if (json.finishReason)
        sink(callable, ChatStreamEvent::finish(utf16(*json.finishReason)));
    if (json.usage)
        sink(callable, ChatStreamEvent::usage(*json.usage));
}

void ChatStreamDecoder::finish() const {
    if (m_streamError)
        throw *m_streamError;
    if (!m_isDone || (!m_calls.empty() && !m_emittedCalls))
        throw ClientError(ClientError::Kind::incompleteStream);
}

} // namespace kestrolan

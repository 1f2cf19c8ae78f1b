#include "chat_completion_request.h"

#include "api_exception.h"
#include "request_json.h"

namespace kestrolan::devservice {

namespace {

constexpr qsizetype maximumMessages = 10'000;
constexpr qsizetype maximumTools = 128;

ChatCompletionRequest::ToolCall readToolCall(const RequestJson& json) {
    json.rejectUnknownKeys(
        {QStringLiteral("id"), QStringLiteral("type"), QStringLiteral("function")});
    ChatCompletionRequest::ToolCall call;
    call.id = json.string(QStringLiteral("id"));
    call.type = json.string(QStringLiteral("type"));
    if (call.id.isEmpty())
        json.refuse(QStringLiteral("id"), QStringLiteral("must not be empty."));
    if (call.type != u"function")
        json.refuse(QStringLiteral("type"), QStringLiteral("must be \"function\"."));
    const auto function = json.optionalObject(QStringLiteral("function"));
    if (!function)
        json.refuse(QStringLiteral("function"), QStringLiteral("is required."));
    const RequestJson functionJson(*function, json.field(QStringLiteral("function")));
    functionJson.rejectUnknownKeys({QStringLiteral("name"), QStringLiteral("arguments")});
    call.name = functionJson.string(QStringLiteral("name"));
    call.arguments = functionJson.string(QStringLiteral("arguments"));
    if (call.name.isEmpty())
        functionJson.refuse(QStringLiteral("name"), QStringLiteral("must not be empty."));
    return call;
}

ChatCompletionRequest::Message readMessage(const RequestJson& json) {
    json.rejectUnknownKeys({QStringLiteral("role"), QStringLiteral("content"),
                            QStringLiteral("tool_calls"), QStringLiteral("tool_call_id")});
    ChatCompletionRequest::Message message;
    message.role = json.string(QStringLiteral("role"));
    if (message.role != u"system" && message.role != u"user" && message.role != u"assistant" &&
        message.role != u"tool")
        json.refuse(QStringLiteral("role"),
                    QStringLiteral("must be \"system\", \"user\", \"assistant\" or \"tool\"."));

    if (const auto calls = json.optionalArray(QStringLiteral("tool_calls"))) {
        if (message.role != u"assistant")
            throw ApiException::invalidRequest(
                QStringLiteral("Only assistant messages carry \"tool_calls\"."),
                json.field(QStringLiteral("tool_calls")));
        message.toolCalls.emplace();
        for (qsizetype i = 0; i < calls->size(); ++i) {
            const auto key = json.field(QStringLiteral("tool_calls[%1]").arg(i));
            if (!calls->at(i).isObject())
                throw ApiException::invalidRequest(
                    QStringLiteral("\"") + key + QStringLiteral("\" must be an object."), key);
            message.toolCalls->append(readToolCall(RequestJson(calls->at(i).toObject(), key)));
        }
    }

    const auto content = json.json().value(QStringLiteral("content"));
    if (content.isUndefined())
        json.refuse(QStringLiteral("content"), QStringLiteral("is required."));
    if (content.isNull()) {
        // Only an assistant turn that called tools has no text.
        if (message.role != u"assistant" || !message.toolCalls)
            json.refuse(
                QStringLiteral("content"),
                QStringLiteral("may be null only in an assistant message with tool calls."));
    } else {
        message.content = json.string(QStringLiteral("content"));
    }

    message.toolCallId = json.optionalString(QStringLiteral("tool_call_id"));
    if (message.role == u"tool" && (!message.toolCallId || message.toolCallId->isEmpty()))
        throw ApiException::invalidRequest(QStringLiteral("A tool message needs \"tool_call_id\"."),
                                           json.field(QStringLiteral("tool_call_id")));
    if (message.role != u"tool" && message.toolCallId)
        throw ApiException::invalidRequest(
            QStringLiteral("Only tool messages carry \"tool_call_id\"."),
            json.field(QStringLiteral("tool_call_id")));
    return message;
}

void checkTool(const RequestJson& json) {
    if (json.string(QStringLiteral("type")) != u"function")
        json.refuse(QStringLiteral("type"), QStringLiteral("must be \"function\"."));
    const auto function = json.optionalObject(QStringLiteral("function"));
    if (!function)
        json.refuse(QStringLiteral("function"), QStringLiteral("is required."));
    const RequestJson functionJson(*function, json.field(QStringLiteral("function")));
    const auto name = functionJson.string(QStringLiteral("name"));
    if (name.isEmpty() || name.toUtf8().size() > 64)
        functionJson.refuse(QStringLiteral("name"), QStringLiteral("must be 1 to 64 bytes."));
}

} // namespace

ChatCompletionRequest ChatCompletionRequest::parse(const QByteArray& body) {
    const auto json = RequestJson::parse(body);
    json.rejectUnknownKeys({QStringLiteral("model"), QStringLiteral("messages"),
                            QStringLiteral("max_tokens"), QStringLiteral("temperature"),
                            QStringLiteral("tools"), QStringLiteral("tool_choice"),
                            QStringLiteral("parallel_tool_calls")});
    ChatCompletionRequest request;
    request.bodyBytes = body.size();
    request.model = json.string(QStringLiteral("model"));
    request.messagesJson = json.array(QStringLiteral("messages"));
    if (request.messagesJson.isEmpty() || request.messagesJson.size() > maximumMessages)
        throw ApiException::invalidRequest(
            QStringLiteral("\"messages\" must hold 1 to 10000 messages."),
            QStringLiteral("messages"));
    for (qsizetype i = 0; i < request.messagesJson.size(); ++i) {
        const auto key = QStringLiteral("messages[%1]").arg(i);
        if (!request.messagesJson[i].isObject())
            throw ApiException::invalidRequest(
                QStringLiteral("\"") + key + QStringLiteral("\" must be an object."), key);
        request.messages.push_back(
            readMessage(RequestJson(request.messagesJson[i].toObject(), key)));
    }
    bool hasUser = false;
    for (const auto& message : request.messages)
        hasUser = hasUser || message.role == u"user";
    if (!hasUser)
        throw ApiException::invalidRequest(QStringLiteral("\"messages\" needs a user message."),
                                           QStringLiteral("messages"));

    request.maxTokens = json.optionalInteger(QStringLiteral("max_tokens"));
    if (request.maxTokens && *request.maxTokens < 1)
        throw ApiException::invalidRequest(QStringLiteral("\"max_tokens\" must be positive."),
                                           QStringLiteral("max_tokens"));
    request.temperature = json.optionalNumber(QStringLiteral("temperature"));
    if (request.temperature && !(*request.temperature >= 0.0 && *request.temperature <= 2.0))
        throw ApiException::invalidRequest(QStringLiteral("\"temperature\" must be from 0 to 2."),
                                           QStringLiteral("temperature"));

    request.tools = json.optionalArray(QStringLiteral("tools"));
    if (request.tools) {
        if (request.tools->size() > maximumTools)
            throw ApiException::invalidRequest(QStringLiteral("\"tools\" holds too many tools."),
                                               QStringLiteral("tools"));
        for (qsizetype i = 0; i < request.tools->size(); ++i) {
            const auto key = QStringLiteral("tools[%1]").arg(i);
            if (!request.tools->at(i).isObject())
                throw ApiException::invalidRequest(
                    QStringLiteral("\"") + key + QStringLiteral("\" must be an object."), key);
            checkTool(RequestJson(request.tools->at(i).toObject(), key));
        }
    }
    request.toolChoice = json.optionalString(QStringLiteral("tool_choice"));
    if (request.toolChoice && *request.toolChoice != u"auto" && *request.toolChoice != u"none" &&
        *request.toolChoice != u"required")
        throw ApiException::invalidRequest(
            QStringLiteral("\"tool_choice\" must be \"auto\", \"none\" or \"required\"."),
            QStringLiteral("tool_choice"));
    request.parallelToolCalls = json.optionalBoolean(QStringLiteral("parallel_tool_calls"));
    return request;
}

std::size_t ChatCompletionRequest::lastUserIndex() const {
    for (auto i = messages.size(); i-- > 0;)
        if (messages[i].role == u"user")
            return i;
    return 0;
}

int ChatCompletionRequest::toolResultsSinceLastUser() const {
    int count = 0;
    for (auto i = lastUserIndex() + 1; i < messages.size(); ++i)
        if (messages[i].role == u"tool")
            ++count;
    return count;
}

} // namespace kestrolan::devservice

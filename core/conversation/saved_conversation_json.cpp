// The JSON form of a saved conversation. Keys are snake case but for the settings'
// "maxTokens", which the service has always stored in that case.
#include "conversation/saved_conversation.h"
#include "service/client_error.h"
#include "support/json_reader.h"
#include "tools/reject_unknown_fields.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <limits>

namespace kestrolan {

namespace {

using FieldError = JsonReader::FieldError;

QJsonObject encodeReply(const SavedConversation::Reply& reply) {
    QJsonObject object{
        {QStringLiteral("slot"), reply.slot},
        {QStringLiteral("model"), reply.model},
        {QStringLiteral("text"), reply.text},
        {QStringLiteral("state"), SavedConversation::Reply::toString(reply.state)},
    };
    if (reply.exchanges) {
        QJsonArray exchanges;
        for (const auto& message : *reply.exchanges)
            exchanges.append(message.toJson());
        object.insert(QStringLiteral("exchanges"), exchanges);
    }
    if (reply.finishReason)
        object.insert(QStringLiteral("finish_reason"), *reply.finishReason);
    if (reply.error) {
        QJsonObject error{{QStringLiteral("message"), reply.error->message}};
        if (reply.error->code)
            error.insert(QStringLiteral("code"), *reply.error->code);
        object.insert(QStringLiteral("error"), error);
    }
    QJsonArray meta;
    for (const auto& line : reply.meta)
        meta.append(QJsonObject{{QStringLiteral("text"), line.text},
                                {QStringLiteral("error"), line.error}});
    object.insert(QStringLiteral("meta"), meta);
    return object;
}

QJsonObject encodeTurn(const SavedConversation::Turn& turn) {
    QJsonArray replies;
    for (const auto& reply : turn.replies)
        replies.append(encodeReply(reply));
    QJsonObject object{{QStringLiteral("user"), turn.user}, {QStringLiteral("replies"), replies}};
    if (turn.attachments) {
        QJsonArray attachments;
        for (const auto& attachment : *turn.attachments)
            attachments.append(attachment.toJson());
        object.insert(QStringLiteral("attachments"), attachments);
    }
    return object;
}

QJsonObject element(const QJsonValue& value, const QString& field) {
    if (!value.isObject())
        throw FieldError(field);
    return value.toObject();
}

int smallInteger(const JsonReader& reader, QStringView key) {
    const auto value = reader.integer(key);
    if (value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max())
        throw FieldError(key.toString());
    return static_cast<int>(value);
}

// Tool calls in a transcript are read as strictly as the model's own: any unknown key fails.
ChatMessage decodeExchange(const QJsonObject& object) {
    if (const auto calls = object.value(u"tool_calls"); calls.isArray()) {
        for (const auto& call : calls.toArray()) {
            const auto callObject = element(call, QStringLiteral("tool_calls"));
            rejectUnknownFields(callObject, {QStringLiteral("id"), QStringLiteral("type"),
                                             QStringLiteral("function")});
            if (const auto function = callObject.value(u"function"); function.isObject())
                rejectUnknownFields(function.toObject(),
                                    {QStringLiteral("name"), QStringLiteral("arguments")});
        }
    }
    return ChatMessage::fromJson(object);
}

SavedConversation::Reply decodeReply(const QJsonObject& object) {
    const JsonReader reader(object);
    SavedConversation::Reply reply;
    if (const auto exchanges = reader.optionalArray(u"exchanges")) {
        QList<ChatMessage> messages;
        messages.reserve(exchanges->size());
        for (const auto& message : *exchanges)
            messages.append(decodeExchange(element(message, QStringLiteral("exchanges"))));
        reply.exchanges = std::move(messages);
    }
    reply.slot = smallInteger(reader, u"slot");
    reply.model = reader.string(u"model");
    reply.text = reader.string(u"text");
    const auto state = SavedConversation::Reply::stateFromString(reader.string(u"state"));
    if (!state)
        throw FieldError(QStringLiteral("state"));
    reply.state = *state;
    reply.finishReason = reader.optionalString(u"finish_reason");
    if (const auto error = reader.optionalObject(u"error")) {
        const JsonReader errorReader(*error);
        reply.error = SavedConversation::ReplyError{errorReader.optionalString(u"code"),
                                                    errorReader.string(u"message")};
    }
    for (const auto& line : reader.array(u"meta")) {
        const JsonReader lineReader(element(line, QStringLiteral("meta")));
        reply.meta.append(
            SavedConversation::Meta{lineReader.string(u"text"), lineReader.boolean(u"error")});
    }
    return reply;
}

SavedConversation::Turn decodeTurn(const QJsonObject& object) {
    const JsonReader reader(object);
    SavedConversation::Turn turn;
    if (const auto attachments = reader.optionalArray(u"attachments")) {
        QList<WireAttachment> decoded;
        decoded.reserve(attachments->size());
        for (const auto& attachment : *attachments)
            decoded.append(
                WireAttachment::fromJson(element(attachment, QStringLiteral("attachments"))));
        turn.attachments = std::move(decoded);
    }
    turn.user = reader.string(u"user");
    for (const auto& reply : reader.array(u"replies"))
        turn.replies.append(decodeReply(element(reply, QStringLiteral("replies"))));
    return turn;
}

SavedConversation decodeConversation(const QJsonObject& object) {
    const JsonReader reader(object);
    SavedConversation conversation;
    if (reader.has(u"version"))
        conversation.version = smallInteger(reader, u"version");
    conversation.title = reader.optionalString(u"title");
    for (const auto& slot : reader.array(u"slots")) {
        if (!slot.isString())
            throw FieldError(QStringLiteral("slots"));
        conversation.slots.append(slot.toString());
    }
    const JsonReader settings(reader.object(u"settings"));
    conversation.settings = SavedConversation::Settings{
        settings.string(u"system"), settings.string(u"maxTokens"), settings.string(u"temperature")};
    const auto turns = reader.array(u"turns");
    // The count is checked again by validate(); refusing here spares decoding a huge list.
    if (turns.size() > SavedConversation::maxTurns)
        throw FieldError(QStringLiteral("turns"));
    conversation.turns.reserve(turns.size());
    for (const auto& turn : turns)
        conversation.turns.append(decodeTurn(element(turn, QStringLiteral("turns"))));
    return conversation;
}

} // namespace

QJsonObject SavedConversation::toJson() const {
    QJsonArray encodedTurns;
    for (const auto& turn : turns)
        encodedTurns.append(encodeTurn(turn));
    QJsonObject object{
        {QStringLiteral("slots"), QJsonArray::fromStringList(slots)},
        {QStringLiteral("settings"),
         QJsonObject{{QStringLiteral("system"), settings.system},
                     {QStringLiteral("maxTokens"), settings.maxTokens},
                     {QStringLiteral("temperature"), settings.temperature}}},
        {QStringLiteral("turns"), encodedTurns},
    };
    if (version)
        object.insert(QStringLiteral("version"), *version);
    if (title)
        object.insert(QStringLiteral("title"), *title);
    return object;
}

QByteArray SavedConversation::encoded() const {
    return QJsonDocument(toJson()).toJson(QJsonDocument::Compact);
}

SavedConversation SavedConversation::fromJson(const QByteArray& body) {
    QJsonParseError error;
    const auto document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        throw ClientError(ClientError::Kind::invalidResponse);
    try {
        return decodeConversation(document.object());
    } catch (const FieldError&) {
        throw ClientError(ClientError::Kind::invalidResponse);
    } catch (const Error&) {
        // An unknown key in a transcript's tool call.
        throw ClientError(ClientError::Kind::invalidResponse);
    }
}

SavedConversation SavedConversation::decode(const QByteArray& body) {
    auto conversation = fromJson(body);
    conversation.validate();
    return conversation;
}

} // namespace kestrolan

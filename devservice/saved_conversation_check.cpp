#include "saved_conversation_check.h"

#include "api_exception.h"
#include "request_json.h"

namespace kestrolan::devservice {

namespace {

constexpr qsizetype maximumTitleLength = 80;

ApiException invalid(const QString& field, const QString& rule) {
    return ApiException::invalidRequest(QStringLiteral("\"") + field + QStringLiteral("\" ") + rule,
                                        field);
}

void checkStrings(const QJsonArray& array, const QString& field) {
    for (qsizetype i = 0; i < array.size(); ++i)
        if (!array[i].isString())
            throw invalid(field + QStringLiteral("[%1]").arg(i),
                          QStringLiteral("must be a string."));
}

void checkReply(const RequestJson& reply, qsizetype slotCount, bool version2) {
    reply.rejectUnknownKeys({QStringLiteral("exchanges"), QStringLiteral("slot"),
                             QStringLiteral("model"), QStringLiteral("text"),
                             QStringLiteral("state"), QStringLiteral("finish_reason"),
                             QStringLiteral("error"), QStringLiteral("meta")});
    const auto slot = reply.optionalInteger(QStringLiteral("slot"));
    if (!slot || *slot < 0 || *slot >= slotCount)
        throw invalid(reply.field(QStringLiteral("slot")),
                      QStringLiteral("must index the document's slots."));
    reply.string(QStringLiteral("model"));
    reply.string(QStringLiteral("text"));
    const auto state = reply.string(QStringLiteral("state"));
    if (state != u"complete" && state != u"error" && state != u"stopped")
        throw invalid(reply.field(QStringLiteral("state")),
                      QStringLiteral("must be \"complete\", \"error\" or \"stopped\"."));
    reply.optionalString(QStringLiteral("finish_reason"));
    if (const auto error = reply.optionalObject(QStringLiteral("error"))) {
        const RequestJson errorJson(*error, reply.field(QStringLiteral("error")));
        errorJson.rejectUnknownKeys({QStringLiteral("code"), QStringLiteral("message")});
        errorJson.optionalString(QStringLiteral("code"));
        errorJson.string(QStringLiteral("message"));
    }
    const auto meta = reply.array(QStringLiteral("meta"));
    for (qsizetype i = 0; i < meta.size(); ++i) {
        const auto field = reply.field(QStringLiteral("meta[%1]").arg(i));
        if (!meta[i].isObject())
            throw invalid(field, QStringLiteral("must be an object."));
        const RequestJson line(meta[i].toObject(), field);
        line.rejectUnknownKeys({QStringLiteral("text"), QStringLiteral("error")});
        line.string(QStringLiteral("text"));
        if (!line.optionalBoolean(QStringLiteral("error")))
            throw invalid(line.field(QStringLiteral("error")), QStringLiteral("is required."));
    }
    if (const auto exchanges = reply.optionalArray(QStringLiteral("exchanges"))) {
        if (!version2)
            throw invalid(reply.field(QStringLiteral("exchanges")),
                          QStringLiteral("needs version 2."));
        if (exchanges->size() > 24)
            throw invalid(reply.field(QStringLiteral("exchanges")),
                          QStringLiteral("holds more than 24 messages."));
    }
}

} // namespace

QString SavedConversationCheck::check(const QByteArray& document) {
    if (document.size() > maximumBytes)
        throw ApiException(413,
                           QStringLiteral("A saved chat may be at most 1,048,576 bytes; this one "
                                          "has %L1.")
                               .arg(document.size()),
                           QStringLiteral("invalid_request_error"),
                           QStringLiteral("chat_too_large"));
    const auto json = RequestJson::parse(document);
    json.rejectUnknownKeys({QStringLiteral("version"), QStringLiteral("title"),
                            QStringLiteral("slots"), QStringLiteral("settings"),
                            QStringLiteral("turns")});
    const auto version = json.optionalInteger(QStringLiteral("version"));
    if (version && *version != 1 && *version != 2)
        throw invalid(QStringLiteral("version"), QStringLiteral("must be 1 or 2."));
    const bool version2 = version == 2;
    const auto title = json.optionalString(QStringLiteral("title"));
    const auto slots = json.array(QStringLiteral("slots"));
    checkStrings(slots, QStringLiteral("slots"));
    const auto settings = json.optionalObject(QStringLiteral("settings"));
    if (!settings)
        throw invalid(QStringLiteral("settings"), QStringLiteral("is required."));
    const RequestJson settingsJson(*settings, QStringLiteral("settings"));
    settingsJson.rejectUnknownKeys(
        {QStringLiteral("system"), QStringLiteral("maxTokens"), QStringLiteral("temperature")});
    for (const auto& key :
         {QStringLiteral("system"), QStringLiteral("maxTokens"), QStringLiteral("temperature")})
        settingsJson.string(key);

    const auto turns = json.array(QStringLiteral("turns"));
    if (turns.size() > maximumTurns)
        throw invalid(QStringLiteral("turns"), QStringLiteral("holds more than 1000 turns."));
    QString firstUserText;
    for (qsizetype i = 0; i < turns.size(); ++i) {
        const auto field = QStringLiteral("turns[%1]").arg(i);
        if (!turns[i].isObject())
            throw invalid(field, QStringLiteral("must be an object."));
        const RequestJson turn(turns[i].toObject(), field);
        turn.rejectUnknownKeys(
            {QStringLiteral("attachments"), QStringLiteral("user"), QStringLiteral("replies")});
        const auto user = turn.string(QStringLiteral("user"));
        if (firstUserText.isEmpty())
            firstUserText = user.trimmed();
        if (const auto attachments = turn.optionalArray(QStringLiteral("attachments"));
            attachments && !version2)
            throw invalid(turn.field(QStringLiteral("attachments")),
                          QStringLiteral("needs version 2."));
        const auto replies = turn.array(QStringLiteral("replies"));
        for (qsizetype r = 0; r < replies.size(); ++r) {
            const auto replyField = turn.field(QStringLiteral("replies[%1]").arg(r));
            if (!replies[r].isObject())
                throw invalid(replyField, QStringLiteral("must be an object."));
            checkReply(RequestJson(replies[r].toObject(), replyField), slots.size(), version2);
        }
    }

    auto name = title ? title->trimmed() : QString();
    if (name.isEmpty())
        name = firstUserText.section(u'\n', 0, 0).trimmed();
    if (name.size() > maximumTitleLength)
        name = name.first(maximumTitleLength - 1).trimmed() + QChar(0x2026);
    return name.isEmpty() ? QStringLiteral("Untitled chat") : name;
}

} // namespace kestrolan::devservice

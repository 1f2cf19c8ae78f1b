#include "conversation/saved_chat_summary.h"

#include "service/client_error.h"
#include "support/json_reader.h"
#include "support/uuid_text.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace kestrolan {

std::optional<QDateTime> SavedChatSummary::parseDate(const QString& text) {
    // Calendar date, time with optional fraction, optional zone. Checked first so that the
    // looser forms Qt also reads (week dates, times alone) are not taken for dates.
    static const QRegularExpression form(QStringLiteral(
        R"(^[0-9]{4}-[0-9]{2}-[0-9]{2}[Tt ][0-9]{2}:[0-9]{2}(:[0-9]{2}(\.[0-9]+)?)?([Zz]|[+-][0-9]{2}(:?[0-9]{2})?)?$)"));
    if (!form.match(text).hasMatch())
        return std::nullopt;
    QString normalised = text;
    normalised[10] = u'T';
    if (normalised.endsWith(u'z'))
        normalised.back() = u'Z';
    auto date = QDateTime::fromString(normalised, Qt::ISODateWithMs);
    if (!date.isValid())
        return std::nullopt;
    if (date.timeSpec() == Qt::LocalTime)
        date = QDateTime(date.date(), date.time(), QTimeZone::utc());
    return date;
}

QJsonObject SavedChatSummary::toJson() const {
    return QJsonObject{
        {QStringLiteral("id"), uuidText(id)},
        {QStringLiteral("title"), title},
        {QStringLiteral("updated_at"), updatedAt.toUTC().toString(Qt::ISODateWithMs)},
    };
}

SavedChatSummary SavedChatSummary::fromJson(const QJsonObject& object) {
    try {
        const JsonReader reader(object);
        const auto id = uuidFromText(reader.string(u"id"));
        const auto updatedAt = parseDate(reader.string(u"updated_at"));
        if (!id || !updatedAt)
            ClientError::refuse();
        return SavedChatSummary{*id, reader.string(u"title"), *updatedAt};
    } catch (const JsonReader::FieldError&) {
        ClientError::refuse();
    }
}

SavedChatSummary SavedChatSummary::decode(const QByteArray& body) {
    QJsonParseError error;
    const auto document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        ClientError::refuse();
    return fromJson(document.object());
}

QList<SavedChatSummary> SavedChatSummary::decodeList(const QByteArray& body) {
    QJsonParseError error;
    const auto document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !document.isArray())
        ClientError::refuse();
    const auto array = document.array();
    QList<SavedChatSummary> summaries;
    summaries.reserve(array.size());
    for (const auto& entry : array) {
        if (!entry.isObject())
            ClientError::refuse();
        summaries.append(fromJson(entry.toObject()));
    }
    return summaries;
}

SavedChatSummary::Group SavedChatSummary::group(const QDateTime& now, const QTimeZone& zone) const {
    const QDate today = now.toTimeZone(zone).date();
    if (updatedAt >= today.startOfDay(zone))
        return Group::today;
    if (updatedAt >= today.addDays(-1).startOfDay(zone))
        return Group::yesterday;
    if (updatedAt >= today.addDays(-7).startOfDay(zone))
        return Group::previous7Days;
    return Group::older;
}

QString SavedChatSummary::heading(Group group) {
    switch (group) {
    case Group::today:
        return QStringLiteral("Today");
    case Group::yesterday:
        return QStringLiteral("Yesterday");
    case Group::previous7Days:
        return QStringLiteral("Previous 7 days");
    case Group::older:
        return QStringLiteral("Older");
    }
    Q_UNREACHABLE();
    return {};
}

} // namespace kestrolan

#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QTimeZone>
#include <QUuid>
#include <optional>

namespace kestrolan {

// A saved chat as the sidebar lists it.
struct SavedChatSummary {
    // Sidebar headings, newest first.
    enum class Group { today, yesterday, previous7Days, older };

    QUuid id;
    QString title;
    QDateTime updatedAt;

    bool operator==(const SavedChatSummary&) const = default;

    QJsonObject toJson() const;
    // Throws ClientError(invalidResponse) for anything but a summary object.
    static SavedChatSummary fromJson(const QJsonObject& object);
    static SavedChatSummary decode(const QByteArray& body);
    // The body of the chat list: a JSON array of summaries.
    static QList<SavedChatSummary> decodeList(const QByteArray& body);

    // The date-time forms a service writes: ISO 8601 with or without fractional seconds,
    // with "Z" or a numeric offset. Text without a zone is taken as UTC.
    static std::optional<QDateTime> parseDate(const QString& text);

    // Where the sidebar lists the chat, by the calendar day in `zone`.
    Group group(const QDateTime& now, const QTimeZone& zone) const;
    static QString heading(Group group);
};

} // namespace kestrolan

#pragma once

#include "conversation/saved_chat_summary.h"

#include <QDateTime>
#include <QList>
#include <QTimeZone>

namespace kestrolan {

// The sidebar's saved chats: filtered by title, newest first, under the headings "Today",
// "Yesterday", "Previous 7 days" and "Older" by the calendar day in the local zone.
struct SavedChatList {
    struct Section {
        SavedChatSummary::Group group;
        QString heading;
        QList<SavedChatSummary> chats;
    };

    // Empty sections are left out. The filter matches anywhere in the title, ignoring case;
    // a chat without a title is listed as "New chat".
    static QList<Section> sections(QList<SavedChatSummary> chats, const QString& filter,
                                   const QDateTime& now,
                                   const QTimeZone& zone = QTimeZone::systemTimeZone());
    static QString displayTitle(const SavedChatSummary& summary);
};

} // namespace kestrolan

#include "model/saved_chat_list.h"

#include <algorithm>

namespace kestrolan {

QString SavedChatList::displayTitle(const SavedChatSummary& summary) {
    const QString title = summary.title.simplified();
    return title.isEmpty() ? QStringLiteral("New chat") : title;
}

QList<SavedChatList::Section> SavedChatList::sections(QList<SavedChatSummary> chats,
                                                      const QString& filter, const QDateTime& now,
                                                      const QTimeZone& zone) {
    const QString needle = filter.trimmed();
    if (!needle.isEmpty())
        chats.removeIf([&](const SavedChatSummary& chat) {
            return !displayTitle(chat).contains(needle, Qt::CaseInsensitive);
        });
    std::stable_sort(chats.begin(), chats.end(),
                     [](const SavedChatSummary& a, const SavedChatSummary& b) {
                         return a.updatedAt > b.updatedAt;
                     });
    QList<Section> sections;
    for (const auto group :
         {SavedChatSummary::Group::today, SavedChatSummary::Group::yesterday,
          SavedChatSummary::Group::previous7Days, SavedChatSummary::Group::older}) {
        Section section{group, SavedChatSummary::heading(group), {}};
        for (const auto& chat : std::as_const(chats))
            if (chat.group(now, zone) == group)
                section.chats.append(chat);
        if (!section.chats.isEmpty())
            sections.append(std::move(section));
    }
    return sections;
}

} // namespace kestrolan

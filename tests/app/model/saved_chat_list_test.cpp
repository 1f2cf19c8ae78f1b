#include "model/saved_chat_list.h"
#include "qstring_printer.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace kestrolan;

namespace {

SavedChatSummary chat(const char* title, const char* updatedAt) {
    return {QUuid::createUuid(), QString::fromUtf8(title),
            *SavedChatSummary::parseDate(QString::fromUtf8(updatedAt))};
}

QStringList titles(const SavedChatList::Section& section) {
    QStringList out;
    for (const auto& summary : section.chats)
        out << SavedChatList::displayTitle(summary);
    return out;
}

} // namespace

// The sidebar's days are the user's calendar days, not 24-hour spans: shortly after midnight in
// Berlin, a chat from 23:30 the evening before is "Yesterday" although it is 40 minutes old.
TEST(SavedChatList, GroupsByCalendarDayInTheZoneNewestFirstAndFilters) {
    const QTimeZone berlin("Europe/Berlin");
    const QDateTime now = *SavedChatSummary::parseDate(QStringLiteral("2025-03-10T00:10:00+01:00"));
    const QList<SavedChatSummary> chats{
        chat("Older plan", "2025-03-01T12:00:00Z"),
        chat("Late night", "2025-03-09T22:30:00Z"), // 23:30 in Berlin, the day before
        chat("Just now", "2025-03-09T23:05:00Z"),   // 00:05 in Berlin
        chat("Week start", "2025-03-04T08:00:00Z"),
        chat("", "2025-03-09T23:01:00Z"),
        chat("Earlier today", "2025-03-09T23:00:30Z"),
    };
    const auto sections = SavedChatList::sections(chats, QString(), now, berlin);
    ASSERT_EQ(sections.size(), 4);
    EXPECT_EQ(sections[0].heading, u"Today");
    EXPECT_EQ(titles(sections[0]), (QStringList{u"Just now"_s, u"New chat"_s, u"Earlier today"_s}));
    EXPECT_EQ(sections[1].heading, u"Yesterday");
    EXPECT_EQ(titles(sections[1]), QStringList{u"Late night"_s});
    EXPECT_EQ(sections[2].heading, u"Previous 7 days");
    EXPECT_EQ(titles(sections[2]), QStringList{u"Week start"_s});
    EXPECT_EQ(sections[3].heading, u"Older");
    EXPECT_EQ(titles(sections[3]), QStringList{u"Older plan"_s});

    // The filter ignores case and drops headings left empty.
    const auto filtered = SavedChatList::sections(chats, QStringLiteral("  NIGHT "), now, berlin);
    ASSERT_EQ(filtered.size(), 1);
    EXPECT_EQ(filtered[0].heading, u"Yesterday");
    EXPECT_TRUE(SavedChatList::sections(chats, QStringLiteral("nothing"), now, berlin).isEmpty());
}

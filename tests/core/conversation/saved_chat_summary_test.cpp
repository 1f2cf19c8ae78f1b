#include "conversation/saved_chat_summary.h"
#include "service/client_error.h"

#include <gtest/gtest.h>

using namespace kestrolan;
using Group = SavedChatSummary::Group;

namespace {

QDateTime utc(const char* text) {
    return QDateTime::fromString(QString::fromUtf8(text), Qt::ISODateWithMs).toUTC();
}

SavedChatSummary at(const QDateTime& updatedAt) {
    return SavedChatSummary{QUuid::createUuid(), QStringLiteral("t"), updatedAt};
}

bool refused(const char* body) {
    try {
        SavedChatSummary::decodeList(QByteArray(body));
    } catch (const ClientError& error) {
        return error.kind() == ClientError::Kind::invalidResponse;
    }
    return false;
}

} // namespace

TEST(SavedChatSummary, ReadsTheDateFormsAServiceWrites) {
    const auto expect = [](const char* text, const char* instant) {
        const auto parsed = SavedChatSummary::parseDate(QString::fromUtf8(text));
        ASSERT_TRUE(parsed.has_value()) << text;
        EXPECT_EQ(parsed->toMSecsSinceEpoch(), utc(instant).toMSecsSinceEpoch()) << text;
    };
    expect("2024-05-01T10:00:00Z", "2024-05-01T10:00:00.000Z");
    expect("2024-05-01T10:00:00.25Z", "2024-05-01T10:00:00.250Z");
    expect("2024-05-01T10:00:00.123Z", "2024-05-01T10:00:00.123Z");
    expect("2024-05-01T10:00:00.123456Z", "2024-05-01T10:00:00.123Z");
    expect("2024-05-01T12:00:00+02:00", "2024-05-01T10:00:00.000Z");
    expect("2024-05-01T04:30:00.5-05:30", "2024-05-01T10:00:00.500Z");
    expect("2024-05-01T12:00:00+0200", "2024-05-01T10:00:00.000Z");
    expect("2024-05-01t10:00:00z", "2024-05-01T10:00:00.000Z");
    expect("2024-05-01 10:00:00Z", "2024-05-01T10:00:00.000Z");
    expect("2024-05-01T10:00:00", "2024-05-01T10:00:00.000Z"); // no zone: UTC
    for (const char* bad : {"", "yesterday", "2024-05-01", "2024-13-01T10:00:00Z",
                            "2024-05-01T25:00:00Z", "2024-05-01T10:00:00Q", "1714557600",
                            "2024-W18-3T10:00:00Z", "\u0662024-05-01T10:00:00Z"})
        EXPECT_FALSE(SavedChatSummary::parseDate(QString::fromUtf8(bad)).has_value()) << bad;
}

TEST(SavedChatSummary, DecodesTheChatList) {
    const auto list = SavedChatSummary::decodeList(R"([
        {"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","title":"Plans",
         "updated_at":"2024-05-01T10:00:00.5Z"},
        {"id":"7c9e6679-7425-40de-944b-e07fc1f90ae7","title":"","updated_at":"2024-04-30T08:00:00+01:00"}])");
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(list[0].id, QUuid::fromString(u"6f9619ff-8b86-d011-b42d-00c04fc964ff"));
    EXPECT_EQ(list[0].title, u"Plans");
    EXPECT_EQ(list[0].updatedAt, utc("2024-05-01T10:00:00.500Z"));
    EXPECT_EQ(list[1].updatedAt, utc("2024-04-30T07:00:00.000Z"));
    EXPECT_TRUE(SavedChatSummary::decodeList("[]").isEmpty());

    EXPECT_TRUE(refused(R"({"chats":[]})"));
    EXPECT_TRUE(refused(R"([1])"));
    EXPECT_TRUE(
        refused(R"([{"id":"not-a-uuid","title":"a","updated_at":"2024-05-01T10:00:00Z"}])"));
    // Only the standard 36-character form names a chat.
    EXPECT_TRUE(refused(
        R"([{"id":"{7c9e6679-7425-40de-944b-e07fc1f90ae7}","title":"a","updated_at":"2024-05-01T10:00:00Z"}])"));
    EXPECT_TRUE(refused(
        R"([{"id":"7c9e6679-7425-40de-944b-e07fc1f90ae7","updated_at":"2024-05-01T10:00:00Z"}])"));
    EXPECT_TRUE(refused(
        R"([{"id":"7c9e6679-7425-40de-944b-e07fc1f90ae7","title":"a","updated_at":1714557600}])"));
    EXPECT_TRUE(refused(
        R"([{"id":"7c9e6679-7425-40de-944b-e07fc1f90ae7","title":"a","updated_at":"soon"}])"));

    // What the client writes, it reads back.
    const auto summary = at(utc("2024-05-01T10:00:00.250Z"));
    EXPECT_EQ(SavedChatSummary::fromJson(summary.toJson()), summary);
}

TEST(SavedChatSummary, GroupsByCalendarDayInTheUsersZone) {
    const QTimeZone utcZone = QTimeZone::utc();
    const auto now = utc("2024-05-10T15:00:00.000Z");
    const auto group = [&](const char* when) { return at(utc(when)).group(now, utcZone); };
    EXPECT_EQ(group("2024-05-10T00:01:00.000Z"), Group::today);
    EXPECT_EQ(group("2024-05-10T00:00:00.000Z"), Group::today);
    EXPECT_EQ(group("2024-05-11T09:00:00.000Z"), Group::today); // a clock ahead of ours
    EXPECT_EQ(group("2024-05-09T23:59:00.000Z"), Group::yesterday);
    EXPECT_EQ(group("2024-05-09T00:00:00.000Z"), Group::yesterday);
    EXPECT_EQ(group("2024-05-08T23:59:59.999Z"), Group::previous7Days);
    EXPECT_EQ(group("2024-05-03T00:00:00.000Z"), Group::previous7Days);
    EXPECT_EQ(group("2024-05-02T23:59:59.999Z"), Group::older);

    // Days are the zone's calendar days: 03:30 UTC is still the evening before in New York.
    const QTimeZone newYork("America/New_York");
    ASSERT_TRUE(newYork.isValid());
    const auto morning = utc("2024-05-10T12:00:00.000Z"); // 08:00 in New York
    EXPECT_EQ(at(utc("2024-05-10T03:30:00.000Z")).group(morning, newYork), Group::yesterday);
    EXPECT_EQ(at(utc("2024-05-10T03:30:00.000Z")).group(morning, utcZone), Group::today);
    // Across the spring change the week still counts calendar days, not 24-hour blocks.
    const auto afterChange = utc("2024-03-12T16:00:00.000Z"); // Tuesday noon, EDT
    EXPECT_EQ(at(utc("2024-03-05T05:00:00.000Z")).group(afterChange, newYork),
              Group::previous7Days); // Tuesday 00:00 EST a week earlier
    EXPECT_EQ(at(utc("2024-03-05T04:59:59.000Z")).group(afterChange, newYork), Group::older);

    EXPECT_EQ(SavedChatSummary::heading(Group::today), u"Today");
    EXPECT_EQ(SavedChatSummary::heading(Group::yesterday), u"Yesterday");
    EXPECT_EQ(SavedChatSummary::heading(Group::previous7Days), u"Previous 7 days");
    EXPECT_EQ(SavedChatSummary::heading(Group::older), u"Older");
}

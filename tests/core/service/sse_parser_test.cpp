#include "service/client_error.h"
#include "service/sse_parser.h"

#include <QList>
#include <QString>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <ostream>
#include <random>

namespace kestrolan {

void PrintTo(const SSEEvent& event, std::ostream* out) {
    *out << "SSEEvent(" << (event.event ? event.event->toStdString() : "<none>") << ", \""
         << event.data.toStdString() << "\")";
}

} // namespace kestrolan

using namespace kestrolan;

namespace {

using Kind = ClientError::Kind;

// What a stream produced: its events in order, and the error that ended it, if any.
struct Outcome {
    QList<SSEEvent> events;
    std::optional<Kind> error;
    bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* out) {
    *out << outcome.events.size() << " events";
    for (const auto& event : outcome.events)
        *out << "\n  " << testing::PrintToString(event).substr(0, 80);
    *out << "\n  error " << (outcome.error ? static_cast<int>(*outcome.error) : -1);
}

// Feeds `stream` cut at `cuts` (ascending offsets) and collects what the parser reports.
Outcome parse(const QByteArray& stream, const QList<qsizetype>& cuts = {},
              qsizetype maxEventBytes = SSEParser::chatMaxEventBytes,
              qsizetype maxTotalBytes = SSEParser::chatMaxTotalBytes) {
    SSEParser parser(maxEventBytes, maxTotalBytes);
    Outcome outcome;
    qsizetype from = 0;
    try {
        for (const qsizetype cut : cuts) {
            parser.feed(QByteArrayView(stream).sliced(from, cut - from),
                        [&](const SSEEvent& event) { outcome.events.append(event); });
            from = cut;
        }
        parser.feed(QByteArrayView(stream).sliced(from),
                    [&](const SSEEvent& event) { outcome.events.append(event); });
    } catch (const ClientError& error) {
        outcome.error = error.kind();
    }
    return outcome;
}

QList<qsizetype> everyByte(qsizetype size) {
    QList<qsizetype> cuts;
    for (qsizetype i = 1; i < size; ++i)
        cuts.append(i);
    return cuts;
}

SSEEvent event(const char* data, std::optional<QByteArray> name = std::nullopt) {
    return SSEEvent{std::move(name), QByteArray(data)};
}

// The event stream rules applied one byte at a time, exactly as written down; the parser under
// test must agree with it on every stream and every way of cutting it.
class ReferenceParser {
public:
    ReferenceParser(qsizetype maxEventBytes, qsizetype maxTotalBytes)
        : m_maxEventBytes(maxEventBytes)
        , m_maxTotalBytes(maxTotalBytes) {}

    Outcome run(QByteArrayView stream) {
        try {
            for (const char byte : stream)
                feed(byte);
        } catch (const ClientError& error) {
            m_outcome.error = error.kind();
        }
        return m_outcome;
    }

private:
    void feed(char byte) {
        if (++m_totalBytes > m_maxTotalBytes)
            throw ClientError(Kind::streamTooLarge);
        if (m_skipLF) {
            m_skipLF = false;
            if (byte == '\n')
                return;
        }
        if (++m_eventBytes > m_maxEventBytes)
            throw ClientError(Kind::streamTooLarge);
        if (byte == '\r' || byte == '\n') {
            m_skipLF = byte == '\r';
            consumeLine();
        } else {
            m_line.append(byte);
        }
    }

    void consumeLine() {
        // Only valid UTF-8 survives a round trip: anything else comes back as U+FFFD. The dot
        // keeps a leading byte-order mark from being dropped on the way.
        const QByteArray probe = '.' + m_line;
        if (QString::fromUtf8(probe).toUtf8() != probe)
            throw ClientError(Kind::invalidResponse);
        QByteArray line = m_line;
        if (m_firstLine && line.startsWith("\xEF\xBB\xBF"))
            line.remove(0, 3);
        m_firstLine = false;
        m_line.clear();
        if (line.isEmpty()) {
            if (!m_fields.isEmpty())
                m_outcome.events.append(SSEEvent{m_event, m_fields.join('\n')});
            m_fields.clear();
            m_event.reset();
            m_eventBytes = 0;
            return;
        }
        const qsizetype colon = line.indexOf(':');
        const QByteArray name = colon < 0 ? line : line.left(colon);
        QByteArray value = colon < 0 ? QByteArray() : line.mid(colon + 1);
        if (value.startsWith(' '))
            value.remove(0, 1);
        if (name == "data")
            m_fields.append(value);
        else if (name == "event")
            m_event = value;
    }

    QByteArray m_line;
    QList<QByteArray> m_fields;
    std::optional<QByteArray> m_event;
    bool m_skipLF = false;
    bool m_firstLine = true;
    qsizetype m_eventBytes = 0;
    qsizetype m_totalBytes = 0;
    qsizetype m_maxEventBytes;
    qsizetype m_maxTotalBytes;
    Outcome m_outcome;
};

} // namespace

TEST(SSEParser, ReadsFieldsAndBlocksWhateverTheCuts) {
    const QByteArray stream = "\xEF\xBB\xBF"
                              "data: first\n\n"
                              ": a comment\n"
                              "event: update\n"
                              "id: 7\n"
                              "data:no space\n"
                              "data:  two spaces\n"
                              "data\n"
                              "retry: 10\n\n"
                              ": only a comment\n\n"
                              "event: lonely\n\n"
                              "data: a:b: c\r\n\r\n"
                              "data: \357\273\277kept\n\n"
                              "data: cut off";
    const QList<SSEEvent> expected{event("first"), event("no space\n two spaces\n", "update"),
                                   event("a:b: c"), event("\357\273\277kept")};
    EXPECT_EQ(parse(stream).events, expected);
    EXPECT_EQ(parse(stream, everyByte(stream.size())).events, expected);
    EXPECT_EQ(parse(stream).error, std::nullopt);
}

TEST(SSEParser, TreatsCRLFAsOneLineEndEvenAcrossFeeds) {
    const QByteArray crlf = "data: a\r\ndata: b\r\n\r\n";
    EXPECT_EQ(parse(crlf).events, QList{event("a\nb")});
    // CR alone and LF alone end lines too; CR CR is two line ends, so an empty line.
    EXPECT_EQ(parse("data: a\rdata: b\r\rdata: c\n\n").events, (QList{event("a\nb"), event("c")}));
    for (qsizetype cut = 1; cut < crlf.size(); ++cut)
        EXPECT_EQ(parse(crlf, {cut}).events, QList{event("a\nb")}) << "cut at " << cut;
}

TEST(SSEParser, DropsTheByteOrderMarkOnlyBeforeTheFirstLine) {
    EXPECT_EQ(parse("\357\273\277data: x\n\n", {1, 2}).events, QList{event("x")});
    // Later, the mark is part of the field name, which then means nothing.
    EXPECT_EQ(parse(": hi\n\357\273\277data: x\n\n").events, QList<SSEEvent>{});
    // The first line may itself be empty after the mark.
    EXPECT_EQ(parse("\357\273\277\ndata: y\n\n").events, QList{event("y")});
}

TEST(SSEParser, RefusesLinesThatAreNotUTF8) {
    const char* const invalid[] = {
        "\xFF",             // never valid
        "\xC3",             // truncated sequence
        "\xC0\x80",         // overlong NUL
        "\xED\xA0\x80",     // UTF-16 surrogate
        "\xF4\x90\x80\x80", // above U+10FFFF
    };
    for (const char* bytes : invalid) {
        const QByteArray stream = QByteArray("data: ok\n\n: ") + bytes + "\ndata: later\n\n";
        const Outcome outcome = parse(stream, everyByte(stream.size()));
        EXPECT_EQ(outcome.events, QList{event("ok")}) << bytes;
        EXPECT_EQ(outcome.error, Kind::invalidResponse) << bytes;
    }
    EXPECT_EQ(parse("data: caf\xC3\xA9 \xF0\x9F\x98\x80\n\n", {10}).events,
              QList{event("caf\xC3\xA9 \xF0\x9F\x98\x80")});
    try {
        SSEParser(16, 16).feed("\x80\n", [](const SSEEvent&) {});
        ADD_FAILURE() << "invalid UTF-8 was accepted";
    } catch (const ClientError& error) {
        EXPECT_EQ(error.description(), u"Kestrolan returned an unreadable response.");
    }
}

TEST(SSEParser, EnforcesTheBlockLimitAtItsEdge) {
    const qsizetype limit = SSEParser::chatMaxEventBytes;
    // "data: " + payload + LF + LF: every byte of the block counts, both line ends included.
    const QByteArray fits = "data: " + QByteArray(limit - 8, 'x') + "\n\n";
    ASSERT_EQ(fits.size(), limit);
    const Outcome accepted = parse(fits + fits);
    ASSERT_EQ(accepted.events.size(), 2);
    EXPECT_EQ(accepted.events[0].data.size(), limit - 8);
    EXPECT_EQ(accepted.error, std::nullopt);

    const QByteArray tooLong = "data: " + QByteArray(limit - 7, 'x') + "\n\n";
    EXPECT_EQ(parse(tooLong), (Outcome{{}, Kind::streamTooLarge}));

    // Each LF after a CR counts toward the stream only, so the same blocks with CR LF line ends
    // are two bytes longer on the wire and still fit.
    const QByteArray crlf = "data: " + QByteArray(limit - 8, 'x') + "\r\n\r\n";
    ASSERT_EQ(crlf.size(), limit + 2);
    EXPECT_EQ(parse(crlf + crlf).events.size(), 2);

    // A line of limit + 1 bytes fails on its last byte, not before.
    SSEParser parser(limit, SSEParser::chatMaxTotalBytes);
    const QByteArray comment = ":" + QByteArray(limit - 1, 'c');
    parser.feed(comment, [](const SSEEvent&) { ADD_FAILURE(); });
    try {
        parser.feed("\n", [](const SSEEvent&) { ADD_FAILURE(); });
        ADD_FAILURE() << "a line of 1,048,577 bytes was accepted";
    } catch (const ClientError& error) {
        EXPECT_EQ(error.kind(), Kind::streamTooLarge);
        EXPECT_EQ(error.description(), u"The stream exceeded its size limit.");
    }
}

TEST(SSEParser, EnforcesTheStreamLimitAtItsEdge) {
    const qsizetype limit = SSEParser::chatMaxTotalBytes;
    const QByteArray block = "data: " + QByteArray(SSEParser::chatMaxEventBytes - 8, 'y') + "\n\n";
    const QByteArray stream = block.repeated(limit / block.size());
    ASSERT_EQ(stream.size(), limit);

    SSEParser parser(SSEParser::chatMaxEventBytes, limit);
    int events = 0;
    parser.feed(stream, [&](const SSEEvent&) { ++events; });
    EXPECT_EQ(events, 32);
    try {
        parser.feed("\n", [](const SSEEvent&) {});
        ADD_FAILURE() << "a byte past the stream limit was accepted";
    } catch (const ClientError& error) {
        EXPECT_EQ(error.description(), u"The stream exceeded its size limit.");
    }

    // The LF of a CR LF counts toward the stream even though the block does not see it.
    EXPECT_EQ(parse("data: a\r", {}, 100, 8).error, std::nullopt);
    EXPECT_EQ(parse("data: a\r\n", {}, 100, 8).error, Kind::streamTooLarge);
    EXPECT_EQ(parse("data: a\r\n", {8}, 100, 8).error, Kind::streamTooLarge);
}

TEST(SSEParser, AgreesWithTheByteByByteRulesOnRandomStreams) {
    // The last name starts with a byte-order mark, which only the first line may drop.
    const char* const names[] = {"data", "data",  "data", "data", "data", "event",
                                 "id",   "retry", "",     "dat",  "Data", "\357\273\277data"};
    const char* const pieces[] = {"a",      "b",        " ", ":", "\xC3\xA9", "\xF0\x9F\x98\x80",
                                  "[DONE]", "{\"x\":1}"};
    const char* const invalid[] = {"\xFF", "\xC3", "\x80", "\xED\xA0\x80", "\xC0\xAF"};
    const char* const lineEnds[] = {"\n", "\r", "\r\n"};
    int failures = 0;
    int events = 0;
    std::map<std::optional<Kind>, int> endings;

    for (unsigned seed = 1; seed <= 600 && failures < 3; ++seed) {
        std::mt19937 random(seed);
        const auto chance = [&](int percent) {
            return std::uniform_int_distribution(0, 99)(random) < percent;
        };
        const auto pick = [&](const auto& list) {
            return list[std::uniform_int_distribution<size_t>(0, std::size(list) - 1)(random)];
        };
        const auto between = [&](qsizetype low, qsizetype high) {
            return std::uniform_int_distribution<qsizetype>(low, high)(random);
        };

        QByteArray stream;
        if (chance(20))
            stream += "\xEF\xBB\xBF";
        for (qsizetype lines = between(0, 80); lines > 0; --lines) {
            if (chance(35)) {
                stream += pick(lineEnds); // an empty line ends the block
                continue;
            }
            stream += pick(names);
            if (chance(90))
                stream += chance(50) ? ": " : ":";
            for (qsizetype length = chance(5) ? between(50, 1500) : between(0, 12); length > 0;
                 --length)
                stream += pick(pieces);
            if (chance(1))
                stream += pick(invalid);
            stream += pick(lineEnds);
        }
        const qsizetype maxEvent = chance(25) ? between(8, 2000) : 1 << 20;
        const qsizetype maxTotal = chance(25) ? between(0, stream.size()) : 1 << 24;

        QList<qsizetype> cuts;
        for (qsizetype at = between(0, 40); at < stream.size(); at += between(0, 40))
            cuts.append(at);

        SCOPED_TRACE(testing::Message() << "seed " << seed);
        const Outcome expected = ReferenceParser(maxEvent, maxTotal).run(stream);
        const Outcome whole = parse(stream, {}, maxEvent, maxTotal);
        const Outcome split = parse(stream, cuts, maxEvent, maxTotal);
        const Outcome bytes = parse(stream, everyByte(stream.size()), maxEvent, maxTotal);
        EXPECT_EQ(whole, expected);
        EXPECT_EQ(split, expected);
        EXPECT_EQ(bytes, expected);
        failures += whole != expected || split != expected || bytes != expected;
        events += expected.events.size();
        ++endings[expected.error];
    }
    // The streams must reach every ending often, and carry plenty of events.
    EXPECT_GT(endings[std::nullopt], 200);
    EXPECT_GT(endings[Kind::streamTooLarge], 60);
    EXPECT_GT(endings[Kind::invalidResponse], 60);
    EXPECT_GT(events, 1500);
}

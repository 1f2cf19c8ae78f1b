#include "tools/harness_error.h"
#include "tools/shell_outcome.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

using namespace kestrolan;

namespace {

QJsonObject parsed(const ShellOutcome& outcome) {
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(outcome.text.toUtf8(), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << outcome.text.toStdString();
    return document.object();
}

qsizetype bytes(const ShellOutcome& outcome) {
    return outcome.text.toUtf8().size();
}

} // namespace

TEST(ShellOutcome, KeepsItsKeyOrderAndAppendsNotes) {
    const ShellOutcome plain = ShellOutcome::fromRun("hi\n", 0, false, false);
    EXPECT_EQ(plain.text, u"{\"output\":\"hi\\n\",\"exit_status\":0,\"truncated\":false,"
                          u"\"timed_out\":false,\"untrusted\":true}");
    EXPECT_FALSE(plain.interrupted);

    const ShellOutcome both = ShellOutcome::fromRun("part", 137, true, true);
    const QJsonObject object = parsed(both);
    EXPECT_EQ(object.value(u"output").toString(),
              u"part\n[output truncated; command stopped]"
              u"\n[30-second command deadline; command stopped]");
    EXPECT_EQ(object.value(u"exit_status").toInt(), 137);
    EXPECT_TRUE(object.value(u"truncated").toBool());
    EXPECT_TRUE(object.value(u"timed_out").toBool());
    EXPECT_TRUE(object.value(u"untrusted").toBool());
    EXPECT_TRUE(both.interrupted);

    // Invalid UTF-8 is repaired, not refused.
    const QJsonObject repaired = parsed(ShellOutcome::fromRun("a\xff\xfe"
                                                              "b",
                                                              1, false, false));
    EXPECT_EQ(repaired.value(u"output").toString().front(), u'a');
    EXPECT_EQ(repaired.value(u"output").toString().back(), u'b');
    EXPECT_TRUE(repaired.value(u"output").toString().contains(QChar::ReplacementCharacter));
}

TEST(ShellOutcome, InterruptedWhenStoppedOrEndedBySignal) {
    EXPECT_FALSE(ShellOutcome::fromRun("", 127, false, false).interrupted);
    EXPECT_FALSE(ShellOutcome::fromRun("", -1, false, false).interrupted);
    EXPECT_TRUE(ShellOutcome::fromRun("", 128, false, false).interrupted);
    EXPECT_TRUE(ShellOutcome::fromRun("", 143, false, false).interrupted);
    EXPECT_TRUE(ShellOutcome::fromRun("", 0, true, false).interrupted);
    EXPECT_TRUE(ShellOutcome::fromRun("", 0, false, true).interrupted);
}

TEST(ShellOutcome, ResultAboveTheLimitIsHalvedUntilItFits) {
    const qsizetype overhead = bytes(ShellOutcome::fromRun("", 0, false, false));
    const QByteArray fits(ShellOutcome::maxResultBytes - overhead, 'a');
    const ShellOutcome exact = ShellOutcome::fromRun(fits, 0, false, false);
    EXPECT_EQ(bytes(exact), ShellOutcome::maxResultBytes);
    EXPECT_FALSE(parsed(exact).value(u"truncated").toBool());
    EXPECT_FALSE(exact.interrupted);

    const ShellOutcome over = ShellOutcome::fromRun(QByteArray(fits + 'a'), 0, false, false);
    const QJsonObject halved = parsed(over);
    EXPECT_TRUE(halved.value(u"truncated").toBool());
    EXPECT_EQ(halved.value(u"output").toString(), QString((fits.size() + 1) / 2, u'a'));
    // Halving the reply is not stopping the command.
    EXPECT_FALSE(over.interrupted);

    // Control bytes cost six bytes each in JSON: 20,000 of them need two halvings.
    const QByteArray controls(20000, '\x01');
    const ShellOutcome escaped = ShellOutcome::fromRun(controls, 0, false, false);
    EXPECT_LE(bytes(escaped), ShellOutcome::maxResultBytes);
    EXPECT_EQ(parsed(escaped).value(u"output").toString(), QString(5000, QChar(1)));

    // Halving counts characters: a pair of UTF-16 units is never split.
    QByteArray faces;
    for (int i = 0; i < 9001; ++i)
        faces += "\xF0\x9F\x98\x80";
    const QString output =
        parsed(ShellOutcome::fromRun(faces, 0, false, false)).value(u"output").toString();
    EXPECT_EQ(output, QString::fromUtf8(faces.first(4 * 4500)));
}

TEST(HarnessError, EveryCaseHasItsText) {
    using Kind = HarnessError::Kind;
    const std::pair<Kind, const char16_t*> cases[] = {
        {Kind::invalidArguments, u"The tool call is invalid."},
        {Kind::accessDenied, u"Local access was denied or revoked."},
        {Kind::staleWorkspace, u"The workspace changed. Select it again."},
        {Kind::staleFile, u"The file changed. Read and approve a new edit."},
        {Kind::unsafePath, u"This path is outside the permitted workspace or is protected."},
        {Kind::unsupportedModel,
         u"Start a new text conversation to use a model without tool support."},
        {Kind::shellDisabled, u"Commands are disabled pending sandbox and descendant-cleanup "
                              u"verification on supported Linux releases."},
        {Kind::limit,
         u"The turn reached its limit. Remove context, use an excerpt, or start a new chat."},
        {Kind::billingPending,
         u"Billing confirmation is pending. Check Activity before explicitly continuing."},
        {Kind::interruptedMutation,
         u"An edit was interrupted. Inspect the file before retrying; its outcome is uncertain."},
    };
    for (const auto& [kind, text] : cases) {
        const HarnessError error(kind);
        EXPECT_EQ(error.kind(), kind);
        EXPECT_EQ(error.description(), QString::fromUtf16(text));
        EXPECT_STREQ(error.what(), QString::fromUtf16(text).toUtf8().constData());
    }
    EXPECT_EQ(HarnessError(Kind::limit), HarnessError(Kind::limit));
    EXPECT_FALSE(HarnessError(Kind::limit) == HarnessError(Kind::accessDenied));
}

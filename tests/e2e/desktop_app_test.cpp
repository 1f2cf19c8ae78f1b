// The desktop app end to end: the real binary against the real development service, on a
// private display with a private keyring, driven from the keyboard and read as a screen reader
// reads it.
#include "accessibility_reader.h"
#include "cli_process.h"
#include "desktop_app.h"
#include "dev_service.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace kestrolan::test {
namespace {

class DesktopAppTest : public ::testing::Test {
protected:
    // Every row of the transcript as a screen reader reads it.
    QStringList transcript() const {
        const auto view = app.find(QStringLiteral("Transcript"));
        if (!view)
            return {};
        QStringList rows;
        for (const auto& seen : reader.showing(*view)) {
            if (!seen.name.isEmpty())
                rows.append(seen.name);
        }
        return rows;
    }

    bool transcriptContains(const QString& text) const {
        return transcript().join(u'\n').contains(text);
    }

    // Waits until a row reads `text` exactly and the reply has finished streaming.
    void waitForReply(const QString& text) {
        EXPECT_TRUE(DesktopApp::waitUntil([&] {
            return transcript().contains(text) && app.find(QStringLiteral("Send"));
        })) << "the transcript reads:\n"
            << transcript().join(u'\n').toStdString();
    }

    void send(const QString& message) {
        app.focusWindow(QStringLiteral("Kestrolan"));
        app.key(QStringLiteral("ctrl+l"));
        app.type(message);
        app.key(QStringLiteral("Return"));
    }

    // Signs in from the sign-in screen: Return on "Sign in" opens the browser, whose redirect
    // brings the callback back through a second `kestrolan` process.
    void signIn() {
        app.waitFor(QStringLiteral("Sign in"), QStringLiteral("push button"));
        app.focusWindow(QStringLiteral("Kestrolan"));
        app.key(QStringLiteral("Return"));
        // The chat page with the account strip replaces the sign-in screen.
        app.waitFor(QStringLiteral("Sign out"), QStringLiteral("push button"));
        // The account strip's labels read as what they show, not as what they are.
        app.waitFor(QStringLiteral("dev@localhost"), QStringLiteral("label"));
    }

    // Chooses the scripted model in the model picker (Ctrl+K, search, Return). The picker is a
    // popup, which toolkits leave out of the accessibility tree; the replies show the choice.
    void chooseScriptedModel() {
        app.focusWindow(QStringLiteral("Kestrolan"));
        app.key(QStringLiteral("ctrl+k"));
        app.type(QStringLiteral("scripted"));
        app.key(QStringLiteral("Return"));
    }

    QJsonArray savedChats() const {
        const auto listed =
            runCli(service.baseURL(),
                   {QStringLiteral("chats"), QStringLiteral("list"), QStringLiteral("--json")});
        EXPECT_EQ(listed.exitCode, 0) << listed.err.toStdString();
        return QJsonDocument::fromJson(listed.out.toUtf8()).array();
    }

    AccessibilityReader reader; // before the app, which reads the accessibility switch at start
    DevService service;
    DesktopApp app{reader, service.baseURL()};
};

TEST_F(DesktopAppTest, ChatsSavesReopensAndSignsOut) {
    app.start();
    ASSERT_NO_FATAL_FAILURE(signIn());
    chooseScriptedModel();

    // A streamed reply: words arrive one chunk each until the turn ends and Stop is Send again.
    send(QStringLiteral("@text Streamed words arrive one by one."));
    waitForReply(QStringLiteral("Streamed words arrive one by one."));

    // Ctrl+S saves to the account, where the terminal client finds it.
    app.focusWindow(QStringLiteral("Kestrolan"));
    app.key(QStringLiteral("ctrl+s"));
    app.waitFor(QStringLiteral("Saved"), QStringLiteral("label"));
    EXPECT_TRUE(DesktopApp::waitUntil([&] { return savedChats().size() == 1; }));
    const auto chats = savedChats();
    ASSERT_EQ(chats.size(), 1);
    const QString id = chats[0].toObject().value(u"id").toString();
    const auto shown =
        runCli(service.baseURL(), {QStringLiteral("chats"), QStringLiteral("show"), id});
    EXPECT_EQ(shown.exitCode, 0) << shown.err.toStdString();
    EXPECT_TRUE(shown.out.contains(u"Streamed words arrive one by one."))
        << shown.out.toStdString();
    EXPECT_TRUE(shown.out.contains(u"kestrolan/scripted")) << shown.out.toStdString();

    // A new chat (nothing unsaved, so no question), then the saved one again from the sidebar.
    app.key(QStringLiteral("ctrl+n"));
    EXPECT_TRUE(DesktopApp::waitUntil([&] { return transcript().isEmpty(); }))
        << transcript().join(u'\n').toStdString();
    app.key(QStringLiteral("ctrl+f"));
    app.key(QStringLiteral("Down"));
    app.key(QStringLiteral("Return"));
    EXPECT_TRUE(DesktopApp::waitUntil([&] {
        return transcript().contains(QStringLiteral("Streamed words arrive one by one."));
    })) << app.dump().toStdString();

    // Sign out: back to the sign-in screen, and the stored token is gone for the terminal too.
    app.focus(QStringLiteral("Sign out"), QStringLiteral("push button"));
    app.key(QStringLiteral("space"));
    app.waitFor(QStringLiteral("Sign in"), QStringLiteral("push button"));
    EXPECT_FALSE(app.find(QStringLiteral("Transcript")));
    const auto after = runCli(service.baseURL(), {QStringLiteral("chats"), QStringLiteral("list")});
    EXPECT_EQ(after.exitCode, 4) << after.out.toStdString() << after.err.toStdString();
}

TEST_F(DesktopAppTest, QuittingWithAnUnsavedChatAsksAndDiscardQuits) {
    app.start();
    ASSERT_NO_FATAL_FAILURE(signIn());
    send(QStringLiteral("A chat nobody saves"));
    waitForReply(QStringLiteral("A chat nobody saves"));

    // Ctrl+Q asks; Escape answers Cancel and the app stays.
    app.key(QStringLiteral("ctrl+q"));
    const auto question =
        app.waitFor(QStringLiteral("Keep this chat?"), QStringLiteral("alert message"));
    QString wording;
    for (const auto& seen : reader.showing(question))
        wording += seen.name + u'\n';
    EXPECT_TRUE(wording.contains(
        u"Save this conversation to your account before leaving. Unsent text is not saved."))
        << wording.toStdString();
    EXPECT_EQ(reader.namesWithRole(question, QStringLiteral("push button")),
              (QStringList{QStringLiteral("Save chat"), QStringLiteral("Discard"),
                           QStringLiteral("Cancel")}))
        << wording.toStdString();
    app.focusWindow(QStringLiteral("Keep this chat?"));
    app.key(QStringLiteral("Escape"));
    EXPECT_TRUE(DesktopApp::waitUntil([&] {
        return !app.find(QStringLiteral("Keep this chat?"), QStringLiteral("alert message"));
    }));
    EXPECT_TRUE(app.isRunning());
    EXPECT_TRUE(transcriptContains(QStringLiteral("A chat nobody saves")));

    // Asked again, Discard quits cleanly, stopping the scheduler last, and nothing is saved.
    app.focusWindow(QStringLiteral("Kestrolan"));
    app.key(QStringLiteral("ctrl+q"));
    app.waitFor(QStringLiteral("Keep this chat?"), QStringLiteral("alert message"));
    app.focusWindow(QStringLiteral("Keep this chat?"));
    app.focus(QStringLiteral("Discard"), QStringLiteral("push button"));
    app.key(QStringLiteral("space"));
    EXPECT_EQ(app.waitForExit(), 0) << app.log().toStdString();
    EXPECT_TRUE(app.log().contains(u"Scheduler stopped; terminating")) << app.log().toStdString();
    EXPECT_TRUE(savedChats().isEmpty());
}

TEST_F(DesktopAppTest, AskEveryTimeAsksBeforeReadingAndAllowOnceReads) {
    QTemporaryDir workspace;
    ASSERT_TRUE(workspace.isValid());
    QFile notes(workspace.filePath(QStringLiteral("notes.txt")));
    ASSERT_TRUE(notes.open(QIODevice::WriteOnly));
    notes.write("Heron sightings doubled this spring");
    notes.close();
    const QString folder = QDir(workspace.path()).canonicalPath();

    app.start();
    ASSERT_NO_FATAL_FAILURE(signIn());
    chooseScriptedModel();

    // The folder: its path typed into the folder dialog.
    app.focusWindow(QStringLiteral("Kestrolan"));
    app.focus(QStringLiteral("Choose workspace folder"), QStringLiteral("push button"));
    app.key(QStringLiteral("space"));
    app.waitFor(QStringLiteral("Choose workspace folder"), QStringLiteral("dialog"));
    app.focusWindow(QStringLiteral("Choose workspace folder"));
    app.type(folder);
    app.key(QStringLiteral("Return"));
    EXPECT_TRUE(DesktopApp::waitUntil([&] {
        return !app.find(QStringLiteral("Choose workspace folder"), QStringLiteral("dialog"));
    })) << app.dump().toStdString();

    // The mode: a combo box takes no focus over AT-SPI, so the focus comes back to it from the
    // folder button; Down picks "Ask every time", which first asks to accept tool billing.
    app.focusWindow(QStringLiteral("Kestrolan"));
    app.focus(QStringLiteral("Choose workspace folder"), QStringLiteral("push button"));
    app.key(QStringLiteral("shift+Tab"));
    app.key(QStringLiteral("Down"));
    app.waitFor(QStringLiteral("Tool billing"), QStringLiteral("alert message"));
    app.focusWindow(QStringLiteral("Tool billing"));
    app.focus(QStringLiteral("Accept"), QStringLiteral("push button"));
    app.key(QStringLiteral("space"));
    app.waitFor(u"Granted: Ask every time · " + QDir::toNativeSeparators(folder),
                QStringLiteral("label"));
    // On Linux a combo box reads as its current item.
    EXPECT_TRUE(app.find(QStringLiteral("Ask every time"), QStringLiteral("combo box")));

    // A read asks first; Allow once runs it and the next round answers with its result.
    send(QStringLiteral("@tool read_file {\"path\":\"notes.txt\"}\n@round\n@tool-results"));
    const auto sheet = app.waitFor(QStringLiteral("Approve tool use"), QStringLiteral("dialog"));
    QString asked;
    for (const auto& seen : reader.showing(sheet))
        asked += seen.name + u'\n';
    EXPECT_TRUE(asked.contains(u"Read a file")) << asked.toStdString();
    EXPECT_TRUE(asked.contains(u"notes.txt")) << asked.toStdString();
    EXPECT_FALSE(transcriptContains(QStringLiteral("Heron sightings")));
    app.focusWindow(QStringLiteral("Approve tool use"));
    app.focus(QStringLiteral("Allow once"), QStringLiteral("push button"));
    app.key(QStringLiteral("space"));
    EXPECT_TRUE(DesktopApp::waitUntil([&] {
        return transcriptContains(QStringLiteral("Heron sightings doubled this spring")) &&
               app.find(QStringLiteral("Send"));
    })) << "the transcript reads:\n"
        << transcript().join(u'\n').toStdString() << "\n"
        << app.dump().toStdString();
    EXPECT_FALSE(app.find(QStringLiteral("Approve tool use"), QStringLiteral("dialog")));
}

} // namespace
} // namespace kestrolan::test

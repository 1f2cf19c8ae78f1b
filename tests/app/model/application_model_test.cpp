#include "account/account_model.h"
#include "account/catalog_store.h"
#include "account/desktop_auth.h"
#include "app_test_fixture.h"
#include "conversation/chat_session.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "service/api_client.h"

#include <QUrlQuery>

using namespace kestrolan;
using namespace kestrolan::test;
using Answer = DiscardQuestion::Answer;

TEST_F(AppModelTest, SignsInThroughTheBrowserThenLoadsEverythingOnce) {
    auto& app = makeModel();
    EXPECT_FALSE(app.auth().isSignedIn());
    EXPECT_EQ(app.signedInGeneration(), 1u); // the signed-out start counts as a change
    EXPECT_FALSE(app.hasLocalData());

    app.signIn();
    ASSERT_TRUE(opened);
    EXPECT_TRUE(opened->toString().startsWith(service.baseURL() + u"/desktop/authorize"));
    EXPECT_TRUE(app.auth().isSigningIn());
    signIn();

    EXPECT_EQ(app.signedInGeneration(), 2u);
    ASSERT_TRUE(app.account().account());
    EXPECT_EQ(app.account().account()->email, u"dev@localhost");
    EXPECT_FALSE(app.catalog().models().isEmpty());
    EXPECT_TRUE(app.catalog().selectedModelID());
    // The local data of exactly this account on exactly this service, opened once.
    ASSERT_EQ(links.size(), 1u);
    EXPECT_EQ(links[0]->context(), LocalAccountContext::make(app.client().configuration().origin(),
                                                             *app.account().account()->id));
    EXPECT_TRUE(app.hasLocalData());
    EXPECT_FALSE(app.errorMessage());

    // The same token is found by the next start: signed in without the browser.
    model.reset();
    links.clear();
    opened.reset();
    auto& again = makeModel();
    runUntil([&] { return again.hasLocalData(); });
    EXPECT_TRUE(again.auth().isSignedIn());
    EXPECT_FALSE(opened);
    EXPECT_EQ(links.size(), 1u);
}

TEST_F(AppModelTest, ABrowserThatRefusesCancelsTheAttemptWithItsText) {
    auto& app = makeModel();
    browserWorks = false;
    app.signIn();
    EXPECT_TRUE(opened);
    EXPECT_EQ(app.errorMessage(), u"The sign-in page could not be opened.");
    EXPECT_FALSE(app.auth().isSigningIn());
    // The abandoned attempt's callback no longer signs in.
    runTask(app.handleURL(DevService::openInBrowser(*opened)));
    EXPECT_FALSE(app.auth().isSignedIn());
    EXPECT_EQ(app.auth().errorMessage(), u"The sign-in callback is invalid. Start sign-in again.");

    // A later attempt that works clears the text.
    browserWorks = true;
    app.signIn();
    EXPECT_FALSE(app.errorMessage());
}

TEST_F(AppModelTest, SigningOutTearsDownAndAFreshChatRemains) {
    auto& app = makeModel();
    signIn();
    sendMessage(QStringLiteral("hello"));
    ASSERT_EQ(app.chat().conversation().turns.size(), 1);
    runTask(app.chat().save());
    ASSERT_FALSE(app.chat().saveError()) << app.chat().saveError()->toStdString();
    runUntil([&] { return app.savedChats().size() == 1; });
    app.setDraft(QStringLiteral("unsent"));
    const ChatSession* before = &app.chat();
    const auto generation = app.signedInGeneration();

    runTask(app.signOut());
    runUntil([&] { return !app.hasLocalData() && app.signedInGeneration() > generation; });
    runUntil([&] { return app.savedChats().isEmpty(); });
    EXPECT_FALSE(app.auth().isSignedIn());
    EXPECT_FALSE(app.account().account());
    EXPECT_NE(&app.chat(), before);
    EXPECT_TRUE(app.chat().conversation().turns.isEmpty());
    EXPECT_EQ(app.draft(), u"");
    EXPECT_EQ(app.destination(), ApplicationModel::Destination::chat);
    ASSERT_EQ(links.size(), 1u);
    EXPECT_EQ(links[0]->closed, 1);
    EXPECT_EQ(links[0]->forgotten, 0);
}

TEST_F(AppModelTest, RevocationDuringAStreamedReplyStopsTheChatAndSignsOut) {
    auto& app = makeModel();
    signIn();
    ASSERT_TRUE(app.chat().selectModel(QStringLiteral("kestrolan/scripted")));
    auto turn =
        app.chat().send(QStringLiteral("@text first\n@stall 60000\n@text never"), TurnContext{});
    runUntil([&] { return app.chat().isStreaming(); });
    ChatSession* streaming = &app.chat();
    QPointer<ChatSession> watched = streaming;

    // The service revokes the token; the next request the app makes is refused.
    service.admin("POST", QStringLiteral("/admin/revoke-tokens"));
    runTask(app.account().refresh(true, QDateTime::currentDateTimeUtc()));
    runUntil([&] { return !app.auth().isSignedIn() && &app.chat() != streaming; });
    runUntil([&] { return !app.hasLocalData(); });
    EXPECT_TRUE(app.chat().conversation().turns.isEmpty());
    EXPECT_EQ(links[0]->closed, 1);
    // The old session ends and goes away instead of streaming on.
    runUntil([&] { return watched.isNull(); });
}

TEST_F(AppModelTest, ActivationIsSingleFlight) {
    auto& app = makeModel();
    holdOpening = true;
    app.signIn();
    runTask(app.handleURL(DevService::openInBrowser(*opened)));
    runUntil([&] { return openings == 1; });

    // Two more callers while the first opening waits: they wait for it instead of opening.
    auto second = app.activateLocalAccount();
    auto third = app.activateLocalAccount();
    releaseOpening();
    runTask(std::move(second));
    runTask(std::move(third));
    EXPECT_EQ(openings, 1);
    EXPECT_EQ(links.size(), 1u);
    EXPECT_TRUE(app.hasLocalData());
}

TEST_F(AppModelTest, DataOpenedForAnOlderSignInIsClosedNotKept) {
    auto& app = makeModel();
    signIn();
    runTask(app.signOut());
    runUntil([&] { return !app.hasLocalData(); });

    holdOpening = true;
    app.signIn();
    runTask(app.handleURL(DevService::openInBrowser(*opened)));
    runUntil([&] { return openings == 2; });
    runTask(app.signOut());
    releaseOpening();
    runUntil([&] { return links.size() == 2 && links[1]->closed == 1; });
    EXPECT_FALSE(app.hasLocalData());
    EXPECT_FALSE(app.auth().isSignedIn());
}

TEST_F(AppModelTest, DiscardQuestionFollowsWhatIsUnsavedAndWhetherSavingIsPossible) {
    auto& app = makeModel();
    // Signed out and nothing typed: nothing to ask.
    EXPECT_TRUE(runTask(app.prepareToDiscard(true)));
    EXPECT_FALSE(asked);
    // A draft counts only when the caller says so; signed out, saving is impossible.
    app.setDraft(QStringLiteral("half a thought"));
    EXPECT_TRUE(runTask(app.prepareToDiscard(false)));
    EXPECT_FALSE(asked);
    answer = Answer::cancel;
    EXPECT_FALSE(runTask(app.prepareToDiscard(true)));
    ASSERT_TRUE(asked);
    EXPECT_EQ(asked->title, u"Keep this chat?");
    EXPECT_EQ(asked->text,
              u"Save this conversation to your account before leaving. Unsent text is not saved.");
    EXPECT_EQ(asked->buttons, (QList<Answer>{Answer::cancel, Answer::discard}));
    answer = Answer::discard;
    EXPECT_TRUE(runTask(app.prepareToDiscard(true)));

    // Signed in with an unsaved turn: "Save chat" is offered and saves before going on.
    app.setDraft(QString());
    signIn();
    sendMessage(QStringLiteral("keep me"));
    asked.reset();
    answer = Answer::saveChat;
    EXPECT_TRUE(runTask(app.prepareToDiscard(false)));
    ASSERT_TRUE(asked);
    EXPECT_EQ(asked->buttons, (QList<Answer>{Answer::saveChat, Answer::discard, Answer::cancel}));
    EXPECT_TRUE(app.chat().savedID());
    runUntil([&] { return app.savedChats().size() == 1; });
    // Saved now: nothing left to ask about.
    asked.reset();
    EXPECT_TRUE(runTask(app.prepareToDiscard(false)));
    EXPECT_FALSE(asked);

    // Zero Data Retention: a failing save is never offered.
    service.admin("POST", QStringLiteral("/admin/zero-retention"), R"({"enabled":true})");
    runTask(app.account().refresh(true, QDateTime::currentDateTimeUtc()));
    sendMessage(QStringLiteral("not saved"));
    answer = Answer::cancel;
    EXPECT_FALSE(runTask(app.prepareToDiscard(false)));
    ASSERT_TRUE(asked);
    EXPECT_EQ(asked->buttons, (QList<Answer>{Answer::cancel, Answer::discard}));
}

TEST_F(AppModelTest, QuittingDuringAStreamedReplyOffersOnlyCancelAndDiscard) {
    auto& app = makeModel();
    signIn();
    ASSERT_TRUE(app.chat().selectModel(QStringLiteral("kestrolan/scripted")));
    auto turn = app.chat().send(QStringLiteral("@text partial\n@stall 60000"), TurnContext{});
    runUntil([&] { return app.chat().isStreaming(); });

    answer = Answer::cancel;
    EXPECT_FALSE(runTask(app.prepareToTerminate()));
    ASSERT_TRUE(asked);
    EXPECT_EQ(asked->text, u"Stop the response before saving, or discard this chat.");
    EXPECT_EQ(asked->buttons, (QList<Answer>{Answer::cancel, Answer::discard}));
    // Kept: the reply streams on and the local data stays open.
    EXPECT_TRUE(app.chat().isStreaming());
    EXPECT_TRUE(app.hasLocalData());

    answer = Answer::discard;
    EXPECT_TRUE(runTask(app.prepareToTerminate()));
    EXPECT_FALSE(app.chat().isStreaming());
    EXPECT_FALSE(app.hasLocalData());
    EXPECT_EQ(links[0]->closed, 1);
    runTask(std::move(turn));
}

TEST_F(AppModelTest, ASavedChatOpensAndOneThatFailsStaysListedAsFailed) {
    auto& app = makeModel();
    signIn();
    sendMessage(QStringLiteral("remember this"));
    runTask(app.chat().save());
    const QUuid savedID = *app.chat().savedID();
    app.newChat();
    EXPECT_TRUE(app.chat().conversation().turns.isEmpty());
    runTask(app.refreshHistory());
    ASSERT_EQ(app.savedChats().size(), 1);
    const SavedChatSummary summary = app.savedChats().constFirst();
    EXPECT_EQ(summary.id, savedID);

    runTask(app.open(summary));
    EXPECT_EQ(app.chat().savedID(), savedID);
    ASSERT_EQ(app.chat().conversation().turns.size(), 1);
    EXPECT_EQ(app.chat().conversation().turns[0].user, u"remember this");
    EXPECT_FALSE(app.failedChat());

    // The service fails the next fetch: the chat on screen stays, the summary is marked.
    app.newChat();
    service.admin("POST", QStringLiteral("/admin/fault"),
                  R"({"kind":"error-envelope","path":"/api/chats/","status":500})");
    runTask(app.open(summary));
    EXPECT_EQ(app.failedChat(), summary);
    EXPECT_TRUE(app.chat().conversation().turns.isEmpty());
    EXPECT_EQ(app.errorMessage(), u"Injected failure.");
    // Retrying once the service answers again opens it.
    runTask(app.open(summary));
    EXPECT_FALSE(app.failedChat());
    EXPECT_EQ(app.chat().savedID(), savedID);

    runTask(app.rename(summary, QStringLiteral("  Renamed  ")));
    ASSERT_EQ(app.savedChats().size(), 1);
    EXPECT_EQ(app.savedChats()[0].title, u"Renamed");
    runTask(app.remove(app.savedChats()[0]));
    EXPECT_TRUE(app.savedChats().isEmpty());
    runTask(app.refreshHistory());
    EXPECT_TRUE(app.savedChats().isEmpty());
}

// A scheduled run's notification, chosen while the headless scheduler ran, reaches the app as
// kestrolan://chat/ID: it shows that chat, and is ignored while signed out.
TEST_F(AppModelTest, AChatAddressFromANotificationOpensThatChat) {
    auto& app = makeModel();
    signIn();
    sendMessage(QStringLiteral("scheduled answer"));
    runTask(app.chat().save());
    const QUuid savedID = *app.chat().savedID();
    app.newChat();
    app.setDestination(ApplicationModel::Destination::scheduledTasks);
    int shown = 0;
    QObject::connect(&app, &ApplicationModel::showChatRequested, [&] { ++shown; });

    const QUrl address(u"kestrolan://chat/" + savedID.toString(QUuid::WithoutBraces));
    runTask(app.handleURL(address));
    EXPECT_EQ(app.chat().savedID(), savedID);
    EXPECT_EQ(app.destination(), ApplicationModel::Destination::chat);
    EXPECT_EQ(shown, 1);
    // Not a sign-in callback: the sign-in is untouched.
    EXPECT_TRUE(app.auth().isSignedIn());

    runTask(app.signOut());
    runUntil([&] { return !app.auth().isSignedIn(); });
    runTask(app.handleURL(address));
    EXPECT_FALSE(app.chat().savedID());
    EXPECT_EQ(shown, 1);
}

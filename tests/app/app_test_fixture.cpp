#include "app_test_fixture.h"

#include "account/account_model.h"
#include "account/desktop_auth.h"
#include "account/keychain_token_store.h"
#include "conversation/chat_session.h"
#include "platform/settings_defaults.h"
#include "run_task.h"
#include "secret_service.h"

namespace kestrolan::test {

void AppModelTest::SetUp() {
    ASSERT_TRUE(SecretService::isPrivate())
        << "no private Secret Service: run through tests/support/with-display";
    ASSERT_TRUE(scratch.isValid());
}

void AppModelTest::TearDown() {
    if (model) {
        // Turns still running end before the model goes.
        model->chat().stop();
        runTask(model->chat().waitUntilIdle());
    }
    model.reset();
}

ApplicationModel::Parts AppModelTest::parts() {
    ApplicationModel::Parts parts;
    parts.defaults =
        std::make_shared<SettingsDefaults>(scratch.filePath(QStringLiteral("settings.conf")));
    QProcessEnvironment environment;
    environment.insert(QStringLiteral("KESTROLAN_BASE_URL"), service.baseURL());
    parts.environment = environment;
    parts.openURL = [this](const QUrl& url) {
        opened = url;
        return browserWorks;
    };
    parts.openLocalAccount = [this](LocalAccountContext context) {
        return openLink(std::move(context));
    };
    parts.askToDiscard = [this](DiscardQuestion question) {
        return answerQuestion(std::move(question));
    };
    parts.now = now;
    return parts;
}

ApplicationModel& AppModelTest::makeModel() {
    model = std::make_unique<ApplicationModel>(parts());
    QObject::connect(model.get(), &ApplicationModel::savedChatsChanged, model.get(),
                     [this] { ++historyLoads; });
    runTask(model->start());
    return *model;
}

void AppModelTest::signIn() {
    const int loadsBefore = historyLoads;
    opened.reset();
    model->signIn();
    ASSERT_TRUE(opened);
    runTask(model->handleURL(DevService::openInBrowser(*opened)));
    ASSERT_TRUE(model->auth().isSignedIn())
        << model->auth().errorMessage().value_or(QString()).toStdString();
    runUntil([&] { return historyLoads > loadsBefore; });
}

QCoro::Task<std::shared_ptr<LocalAccountLink>> AppModelTest::openLink(LocalAccountContext context) {
    ++openings;
    while (holdOpening)
        co_await openingWaiters.next();
    auto link = std::make_shared<RecordingLocalAccount>(std::move(context));
    links.push_back(link);
    co_return link;
}

void AppModelTest::releaseOpening() {
    holdOpening = false;
    openingWaiters.resumeAll();
}

QCoro::Task<DiscardQuestion::Answer> AppModelTest::answerQuestion(DiscardQuestion question) {
    asked = question;
    const auto chosen = answer;
    co_return chosen;
}

void AppModelTest::sendMessage(const QString& text) {
    runTask(model->chat().send(text, TurnContext{}));
}

} // namespace kestrolan::test

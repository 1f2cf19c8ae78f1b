#pragma once

#include "dev_service.h"
#include "model/application_model.h"
#include "support/wait_list.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <memory>
#include <optional>

namespace kestrolan::test {

// Stands in for the account's encrypted stores, which the app reaches only through its opener:
// records what was opened and closed so the app's rules about them can be checked.
class RecordingLocalAccount final : public LocalAccountLink {
public:
    explicit RecordingLocalAccount(LocalAccountContext context)
        : m_context(std::move(context)) {}
    const LocalAccountContext& context() const override { return m_context; }
    QCoro::Task<void> close() override {
        ++closed;
        co_return;
    }
    QCoro::Task<void> forget() override {
        ++forgotten;
        co_return;
    }
    int closed = 0;
    int forgotten = 0;

private:
    LocalAccountContext m_context;
};

// An application model against a fresh development service, with the real keyring (the test
// runs under with-display) and a recording browser.
class AppModelTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Everything the model is built from; tests adjust it before makeModel().
    ApplicationModel::Parts parts();
    ApplicationModel& makeModel();
    // Signs in through the recorded browser and waits until the history has been loaded.
    void signIn();
    // Sends one message on the current chat and waits for the turn to end.
    void sendMessage(const QString& text);
    // Lets openings held by holdOpening go on.
    void releaseOpening();

    QCoro::Task<std::shared_ptr<LocalAccountLink>> openLink(LocalAccountContext context);
    QCoro::Task<DiscardQuestion::Answer> answerQuestion(DiscardQuestion question);

    DevService service;
    QTemporaryDir scratch;
    std::optional<QUrl> opened;
    bool browserWorks = true;
    int historyLoads = 0;
    std::vector<std::shared_ptr<RecordingLocalAccount>> links;
    int openings = 0;
    bool holdOpening = false;
    WaitList openingWaiters;
    std::optional<DiscardQuestion> asked;
    DiscardQuestion::Answer answer = DiscardQuestion::Answer::cancel;
    std::function<QDateTime()> now;
    std::unique_ptr<ApplicationModel> model;
};

} // namespace kestrolan::test

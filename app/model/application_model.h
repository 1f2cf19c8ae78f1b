#pragma once

#include "conversation/chat_session.h"
#include "conversation/saved_chat_summary.h"
#include "model/discard_question.h"
#include "model/local_account_link.h"
#include "support/wait_list.h"

#include <QCoroTask>
#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QPointer>
#include <QProcessEnvironment>
#include <QUrl>
#include <QUuid>
#include <functional>
#include <memory>
#include <optional>

namespace kestrolan {

class AccountModel;
class APIClient;
class CatalogStore;
class Defaults;
class DesktopAuth;
class DesktopTaskNotifier;
class LocalKeyStore;
class Scheduler;
class SchedulingModel;
class SystemSchedulerClock;
class TokenStore;

// The running app's state, the one owner of the service client, the sign-in, the catalog, the
// account, the current chat and the saved-chat list. Main thread. Sign-in changes tear local
// state down and build it up again; every operation that suspends re-checks
// signedInGeneration() afterwards and drops what an older sign-in started.
class ApplicationModel : public QObject {
    Q_OBJECT

public:
    enum class Destination { chat, scheduledTasks, agents, projects };

    // Everything may be left out; the app's own is built then.
    struct Parts {
        std::shared_ptr<Defaults> defaults;   // ~/.config/Kestrolan/Kestrolan.conf
        std::shared_ptr<TokenStore> tokens;   // the keyring entry of the configured origin
        std::optional<QString> dataDirectory; // $XDG_DATA_HOME/Kestrolan/Local
        std::optional<QProcessEnvironment> environment;
        std::function<bool(const QUrl&)> openURL; // the desktop's browser
        // With neither, signed-in accounts have no local data. With keys alone, the account's
        // encrypted stores are opened under dataDirectory and the scheduler works on them.
        LocalAccountOpener openLocalAccount;
        std::shared_ptr<const LocalKeyStore> localKeys;
        DiscardPrompt askToDiscard; // none: every question is answered Cancel
        std::function<QDateTime()> now;
    };

    static QString signInPageFailedMessage() {
        return QStringLiteral("The sign-in page could not be opened.");
    }
    static constexpr int defaultSidebarWidth = 260;

    // Throws ClientError(configuration) for a service address the app must not use.
    explicit ApplicationModel(Parts parts = {}, QObject* parent = nullptr);
    ~ApplicationModel() override;

    APIClient& client() const { return *m_client; }
    DesktopAuth& auth() const { return *m_auth; }
    CatalogStore& catalog() const { return *m_catalog; }
    AccountModel& account() const { return *m_account; }
    SchedulingModel& scheduling() const { return *m_scheduling; }
    ChatSession& chat() const { return *m_chat; }
    Defaults& defaults() const { return *m_defaults; }
    QDateTime now() const { return m_now(); }

    const QList<SavedChatSummary>& savedChats() const { return m_savedChats; }
    const std::optional<QString>& errorMessage() const { return m_errorMessage; }
    const std::optional<QString>& historyError() const { return m_historyError; }
    bool isOpeningChat() const { return m_isOpeningChat; }
    const std::optional<SavedChatSummary>& failedChat() const { return m_failedChat; }
    Destination destination() const { return m_destination; }
    const QString& draft() const { return m_draft; }
    quint64 signedInGeneration() const { return m_signedInGeneration; }
    bool isClosingLocalWork() const { return m_closingLocalWork; }
    bool hasLocalData() const { return m_localData != nullptr; }
    const std::optional<QString>& dataDirectory() const { return m_dataDirectory; }
    int sidebarWidth() const { return m_sidebarWidth; }
    const QString& appearance() const { return m_appearance; }
    const QString& textSize() const { return m_textSize; }
    bool enterToSend() const { return m_enterToSend; }

    void setDraft(QString draft) { m_draft = std::move(draft); }
    void setDestination(Destination destination);
    void setErrorMessage(std::optional<QString> message);
    // The quick chat's session, stopped with the main chat's whenever local work stops.
    void setOtherSession(ChatSession* session) { m_otherSession = session; }
    void setOnClearLocalAccount(std::function<void()> action) {
        m_onClearLocalAccount = std::move(action);
    }

    // Reads the stored token; signed in when there is one. Run once the window is up.
    QCoro::Task<void> start();

    // Opens the browser on the authorize page; a refusal cancels the attempt.
    void signIn();
    // The sign-in callback, however it reached the app.
    QCoro::Task<void> handleURL(QUrl url);
    QCoro::Task<void> signOut();

    QCoro::Task<void> signedInChanged();
    // Single-flight: a caller arriving while one runs waits for it instead of opening twice.
    QCoro::Task<void> activateLocalAccount();
    QCoro::Task<void> stopLocalWork();
    QCoro::Task<void> forgetLocalData();
    QCoro::Task<void> refreshHistory();

    // A fresh conversation; the caller has asked prepareToDiscard() first.
    void newChat();
    // Opens a saved chat in place of the current one. One that fails stays as failedChat().
    QCoro::Task<void> open(SavedChatSummary summary);
    // Shows the saved chat of a scheduled task's run (from its notification).
    QCoro::Task<void> openScheduledChat(QUuid id);
    QCoro::Task<void> remove(SavedChatSummary summary);
    QCoro::Task<void> rename(SavedChatSummary summary, QString title);

    // Whether the current conversation may be dropped: true without asking when nothing is
    // unsaved, else the answer to the question (a completed "Save chat" counts as yes).
    QCoro::Task<bool> prepareToDiscard(bool includingDraft);
    // Quitting: the unsaved-chat question, then both chats stopped, local work stopped and the
    // scheduler detached, in that order. False when the user kept the chat.
    QCoro::Task<bool> prepareToTerminate();

Q_SIGNALS:
    // errorMessage, historyError, destination, opening state or local data changed.
    void stateChanged();
    void savedChatsChanged();
    // chat() is another session now; views bind to the new one.
    void chatReplaced();
    // A scheduled task's notification was chosen: the main window should show its chat.
    void showChatRequested();
    void signedInGenerationChanged();

private:
    void connectChat(ChatSession& session);
    std::unique_ptr<ChatSession> makeChat();
    void replaceChat(std::unique_ptr<ChatSession> next);
    // Stops a session that is no longer shown and deletes it once its turn has ended.
    static QCoro::Task<void> retire(std::unique_ptr<ChatSession> session);
    QCoro::Task<void> closeLocalData();
    // The opener used when the app is given the local keys and no opener of its own.
    QCoro::Task<std::shared_ptr<LocalAccountLink>> openLocalWork(LocalAccountContext context);
    void upsertSaved(const SavedChatSummary& summary);
    bool isCurrent(quint64 generation) const { return generation == m_signedInGeneration; }

    std::shared_ptr<Defaults> m_defaults;
    std::unique_ptr<APIClient> m_client;
    std::unique_ptr<DesktopAuth> m_auth;
    std::unique_ptr<CatalogStore> m_catalog;
    std::unique_ptr<AccountModel> m_account;
    // Made when the first account's local data opens; outlive every LocalAccountWork.
    std::unique_ptr<SchedulingModel> m_scheduling;
    std::unique_ptr<SystemSchedulerClock> m_schedulerClock;
    std::unique_ptr<Scheduler> m_scheduler;
    std::unique_ptr<DesktopTaskNotifier> m_taskNotifier;
    std::shared_ptr<const LocalKeyStore> m_localKeys;
    std::shared_ptr<LocalAccountLink> m_localData;
    QPointer<ChatSession> m_otherSession;
    std::function<void()> m_onClearLocalAccount;
    bool m_closingLocalWork = false;
    std::optional<QString> m_dataDirectory;
    std::unique_ptr<ChatSession> m_chat;
    QList<SavedChatSummary> m_savedChats;
    std::optional<QString> m_errorMessage;
    std::optional<QString> m_historyError;
    bool m_isOpeningChat = false;
    std::optional<SavedChatSummary> m_failedChat;
    Destination m_destination = Destination::chat;
    QString m_draft;
    QHash<QUuid, QString> m_drafts;
    int m_sidebarWidth = defaultSidebarWidth;
    QString m_appearance = QStringLiteral("System");
    QString m_textSize = QStringLiteral("Default");
    bool m_enterToSend = true;
    quint64 m_signedInGeneration = 0;
    std::optional<bool> m_lastSignedIn;
    std::optional<qint64> m_lastCredentialRevision;
    std::optional<QUuid> m_lastAccountID;
    bool m_activatingLocalAccount = false;
    WaitList m_activationWaiters;

    std::function<bool(const QUrl&)> m_openURL;
    LocalAccountOpener m_openLocalAccount;
    DiscardPrompt m_askToDiscard;
    std::function<QDateTime()> m_now;
};

} // namespace kestrolan

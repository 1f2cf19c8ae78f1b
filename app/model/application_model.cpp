#include "model/application_model.h"

#include "account/account_model.h"
#include "account/catalog_store.h"
#include "account/desktop_auth.h"
#include "account/keychain_token_store.h"
#include "conversation/chat_session.h"
#include "error.h"
#include "model/app_logging.h"
#include "model/local_account_work.h"
#include "platform/settings_defaults.h"
#include "scheduling/desktop_task_notifier.h"
#include "scheduling/scheduler.h"
#include "scheduling/scheduling_model.h"
#include "scheduling/system_scheduler_clock.h"
#include "service/api_client.h"
#include "service/configuration.h"
#include "storage/local_account_context.h"
#include "support/checked.h"

#include <QDesktopServices>
#include <QSysInfo>
#include <algorithm>

namespace kestrolan {
namespace {

std::optional<bool> flag(const Defaults& defaults, const QString& key) {
    const auto value = defaults.value(key);
    if (!value || value->typeId() != QMetaType::Bool)
        return std::nullopt;
    return value->toBool();
}

} // namespace

ApplicationModel::ApplicationModel(Parts parts, QObject* parent)
    : QObject(parent)
    , m_defaults(parts.defaults ? std::move(parts.defaults) : std::make_shared<SettingsDefaults>())
    , m_scheduling(std::make_unique<SchedulingModel>())
    , m_localKeys(std::move(parts.localKeys))
    , m_dataDirectory(std::move(parts.dataDirectory))
    , m_openURL(parts.openURL ? std::move(parts.openURL)
                              : [](const QUrl& url) { return QDesktopServices::openUrl(url); })
    , m_openLocalAccount(std::move(parts.openLocalAccount))
    , m_askToDiscard(std::move(parts.askToDiscard))
    , m_now(parts.now ? std::move(parts.now) : [] { return QDateTime::currentDateTimeUtc(); }) {
    // 1. Window and text preferences; a stored width of 0 means none was chosen.
    if (const auto width = m_defaults->value(QStringLiteral("sidebarWidth"));
        width && width->toInt() > 0)
        m_sidebarWidth = width->toInt();
    m_appearance = m_defaults->string(QStringLiteral("appearance")).value_or(m_appearance);
    m_textSize = m_defaults->string(QStringLiteral("textSize")).value_or(m_textSize);
    m_enterToSend = flag(*m_defaults, QStringLiteral("enterToSend")).value_or(true);

    // 2-4. Configuration, token store, client.
    const Configuration configuration = Configuration::load(
        parts.environment.value_or(QProcessEnvironment::systemEnvironment()), *m_defaults);
    std::shared_ptr<TokenStore> tokens =
        parts.tokens ? std::move(parts.tokens)
                     : std::static_pointer_cast<TokenStore>(
                           KeychainTokenStore::forApp(configuration.origin()));
    m_client = std::make_unique<APIClient>(configuration, tokens);

    // 5. Sign-in, catalog, account.
    m_auth = std::make_unique<DesktopAuth>(*m_client, tokens);
    m_catalog = std::make_unique<CatalogStore>(*m_client, *m_defaults);
    m_account = std::make_unique<AccountModel>(*m_client);

    // 6. Local data, with the scheduler, once an account is known.
    if (!m_openLocalAccount && m_localKeys)
        m_openLocalAccount = [this](LocalAccountContext context) {
            return openLocalWork(std::move(context));
        };

    // 7. The first chat.
    m_chat = makeChat();

    // 8. Every sign-in change, and an account whose identity becomes known, re-runs the rules.
    connect(m_auth.get(), &DesktopAuth::changed, this, [this] { auto task = signedInChanged(); });
    connect(m_account.get(), &AccountModel::accountChanged, this, [this] {
        const auto& account = m_account->account();
        const std::optional<QUuid> id = account ? account->id : std::nullopt;
        if (id == m_lastAccountID)
            return;
        m_lastAccountID = id;
        m_chat->setAccountID(id);
        if (id && m_auth->isSignedIn() && !m_activatingLocalAccount)
            auto task = activateLocalAccount();
    });
}

ApplicationModel::~ApplicationModel() = default;

void ApplicationModel::setDestination(Destination destination) {
    if (destination == m_destination)
        return;
    m_destination = destination;
    Q_EMIT stateChanged();
}

void ApplicationModel::setErrorMessage(std::optional<QString> message) {
    m_errorMessage = std::move(message);
    Q_EMIT stateChanged();
}

QCoro::Task<void> ApplicationModel::start() {
    co_await m_auth->restore();
    // Nothing stored: signedInChanged() has not run for the first state yet.
    co_await signedInChanged();
}

void ApplicationModel::signIn() {
    QUrl authorize;
    try {
        authorize = m_auth->beginSignIn();
    } catch (const Error& error) {
        setErrorMessage(error.description());
        return;
    }
    setErrorMessage(std::nullopt);
    if (!m_openURL(authorize)) {
        m_auth->cancelSignIn();
        setErrorMessage(signInPageFailedMessage());
    }
}

QCoro::Task<void> ApplicationModel::handleURL(QUrl url) {
    // kestrolan://chat/ID: a scheduled task's chat, chosen in a notification of the headless
    // scheduler.
    if (url.host() == u"chat") {
        const QUuid id = QUuid::fromString(url.path().mid(1));
        if (!id.isNull())
            co_await openScheduledChat(id);
        co_return;
    }
    co_await m_auth->handleCallback(url, QSysInfo::machineHostName());
}

QCoro::Task<void> ApplicationModel::openScheduledChat(QUuid id) {
    if (!m_auth->isSignedIn())
        co_return;
    setDestination(Destination::chat);
    Q_EMIT showChatRequested();
    if (m_chat->savedID() == id)
        co_return;
    // Into a local first: GCC 12 destroys a temporary made inside a co_await expression twice.
    const auto known = std::ranges::find(m_savedChats, id, &SavedChatSummary::id);
    SavedChatSummary summary = known != m_savedChats.end() ? *known : SavedChatSummary{id, {}, {}};
    co_await open(std::move(summary));
}

QCoro::Task<void> ApplicationModel::signOut() {
    co_await m_auth->signOut();
}

QCoro::Task<void> ApplicationModel::signedInChanged() {
    const bool signedIn = m_auth->isSignedIn();
    const qint64 revision = m_auth->credentialRevision();
    if (m_lastSignedIn == signedIn && m_lastCredentialRevision == revision)
        co_return;
    const bool credentialChanged =
        m_lastCredentialRevision && *m_lastCredentialRevision != revision;
    m_lastSignedIn = signedIn;
    m_lastCredentialRevision = revision;
    checkedIncrement(m_signedInGeneration);
    const quint64 generation = m_signedInGeneration;
    Q_EMIT signedInGenerationChanged();

    if (signedIn) {
        if (credentialChanged && m_localData) {
            co_await stopLocalWork();
            co_await closeLocalData();
            if (!isCurrent(generation))
                co_return;
        }
        co_await m_catalog->refresh();
        if (!isCurrent(generation))
            co_return;
        co_await m_account->refresh(true, m_now());
        if (!isCurrent(generation))
            co_return;
        if (const auto selected = m_catalog->selectedModelID())
            m_chat->selectModel(*selected);
        co_await activateLocalAccount();
        if (!isCurrent(generation))
            co_return;
        co_await refreshHistory();
        co_return;
    }

    co_await stopLocalWork();
    co_await closeLocalData();
    if (!isCurrent(generation))
        co_return;
    m_account->clear();
    m_lastAccountID.reset();
    replaceChat(makeChat());
    m_draft.clear();
    m_drafts.clear();
    m_savedChats.clear();
    m_failedChat.reset();
    m_historyError.reset();
    m_destination = Destination::chat;
    Q_EMIT savedChatsChanged();
    Q_EMIT stateChanged();
}

QCoro::Task<void> ApplicationModel::activateLocalAccount() {
    if (m_activatingLocalAccount) {
        while (m_activatingLocalAccount)
            co_await m_activationWaiters.next();
        co_return;
    }
    m_activatingLocalAccount = true;
    const quint64 generation = m_signedInGeneration;
    try {
        const auto& account = m_account->account();
        if (m_openLocalAccount && account && account->id) {
            const auto context =
                LocalAccountContext::make(m_client->configuration().origin(), *account->id);
            if (m_localData && !(m_localData->context() == context)) {
                co_await stopLocalWork();
                co_await closeLocalData();
            }
            if (!m_localData) {
                auto opened = co_await m_openLocalAccount(context);
                if (isCurrent(generation) && m_auth->isSignedIn()) {
                    m_localData = std::move(opened);
                    Q_EMIT stateChanged();
                } else if (opened) {
                    // Signed out or in as someone else meanwhile: this data is not ours to keep.
                    co_await opened->close();
                }
            }
        }
    } catch (const Error& error) {
        if (isCurrent(generation))
            setErrorMessage(error.description());
    }
    m_activatingLocalAccount = false;
    m_activationWaiters.resumeAll();
}

QCoro::Task<void> ApplicationModel::stopLocalWork() {
    m_closingLocalWork = true;
    ChatSession* chat = m_chat.get();
    chat->stop();
    co_await chat->waitUntilIdle();
    if (ChatSession* other = m_otherSession.data()) {
        other->stop();
        co_await other->waitUntilIdle();
    }
    m_closingLocalWork = false;
}

QCoro::Task<std::shared_ptr<LocalAccountLink>>
ApplicationModel::openLocalWork(LocalAccountContext context) {
    if (!m_scheduler) {
        m_schedulerClock = std::make_unique<SystemSchedulerClock>();
        m_scheduler = std::make_unique<Scheduler>(*m_schedulerClock);
        m_taskNotifier = std::make_unique<DesktopTaskNotifier>();
        connect(m_taskNotifier.get(), &DesktopTaskNotifier::chatOpened, this,
                [this](QUuid id) { auto opening = openScheduledChat(id); });
    }
    co_return std::make_shared<LocalAccountWork>(
        std::move(context), m_localKeys,
        m_dataDirectory.value_or(EncryptedLocalStorage::defaultRoot()), *m_client, *m_scheduler,
        *m_scheduling, m_taskNotifier.get());
}

QCoro::Task<void> ApplicationModel::closeLocalData() {
    auto link = std::exchange(m_localData, nullptr);
    if (!link)
        co_return;
    Q_EMIT stateChanged();
    try {
        co_await link->close();
    } catch (const Error& error) {
        qCWarning(lifecycleLog).noquote() << "Local data did not close:" << error.description();
    }
}

QCoro::Task<void> ApplicationModel::forgetLocalData() {
    co_await stopLocalWork();
    auto link = std::exchange(m_localData, nullptr);
    if (link) {
        Q_EMIT stateChanged();
        try {
            co_await link->forget();
        } catch (const Error& error) {
            setErrorMessage(error.description());
        }
    }
    if (m_onClearLocalAccount)
        m_onClearLocalAccount();
}

QCoro::Task<void> ApplicationModel::refreshHistory() {
    const quint64 generation = m_signedInGeneration;
    try {
        auto chats = co_await m_client->chats();
        if (!isCurrent(generation))
            co_return;
        m_savedChats = std::move(chats);
        m_historyError.reset();
        Q_EMIT savedChatsChanged();
    } catch (const Error& error) {
        if (!isCurrent(generation))
            co_return;
        // The list on screen stays as it was.
        m_historyError = error.description();
    }
    Q_EMIT stateChanged();
}

void ApplicationModel::newChat() {
    m_drafts.insert(m_chat->id(), m_draft);
    m_draft.clear();
    m_failedChat.reset();
    replaceChat(makeChat());
    Q_EMIT stateChanged();
}

QCoro::Task<void> ApplicationModel::open(SavedChatSummary summary) {
    const quint64 generation = m_signedInGeneration;
    m_isOpeningChat = true;
    Q_EMIT stateChanged();
    auto session = makeChat();
    ChatSession* loading = session.get();
    co_await loading->load(summary.id);
    m_isOpeningChat = false;
    if (!isCurrent(generation)) {
        // Signed out meanwhile: the chat belongs to the old account.
        auto retired = retire(std::move(session));
        co_return;
    }
    if (const auto failure = loading->errorMessage(); failure || !loading->savedID()) {
        m_failedChat = summary;
        setErrorMessage(failure);
        auto retired = retire(std::move(session));
        co_return;
    }
    m_failedChat.reset();
    m_drafts.insert(m_chat->id(), m_draft);
    m_draft.clear();
    replaceChat(std::move(session));
    m_errorMessage.reset();
    Q_EMIT stateChanged();
}

QCoro::Task<void> ApplicationModel::remove(SavedChatSummary summary) {
    const quint64 generation = m_signedInGeneration;
    try {
        co_await m_client->deleteChat(summary.id);
    } catch (const Error& error) {
        if (isCurrent(generation))
            setErrorMessage(error.description());
        co_return;
    }
    if (!isCurrent(generation))
        co_return;
    m_savedChats.removeIf([&](const SavedChatSummary& s) { return s.id == summary.id; });
    if (m_failedChat && m_failedChat->id == summary.id)
        m_failedChat.reset();
    Q_EMIT savedChatsChanged();
    Q_EMIT stateChanged();
}

QCoro::Task<void> ApplicationModel::rename(SavedChatSummary summary, QString title) {
    const quint64 generation = m_signedInGeneration;
    const QString trimmed = title.trimmed();
    if (trimmed.isEmpty())
        co_return;
    try {
        SavedConversation conversation = co_await m_client->chat(summary.id);
        if (!isCurrent(generation))
            co_return;
        conversation.title = trimmed;
        const bool allowed = m_account->canSaveChats();
        const auto saved =
            co_await m_client->saveChat(summary.id, std::move(conversation), allowed);
        if (!isCurrent(generation))
            co_return;
        upsertSaved(saved);
    } catch (const Error& error) {
        if (isCurrent(generation))
            setErrorMessage(error.description());
    }
}

QCoro::Task<bool> ApplicationModel::prepareToDiscard(bool includingDraft) {
    ChatSession* chat = m_chat.get();
    const bool unsavedMessages = chat->isDirty() && !chat->conversation().turns.isEmpty();
    const bool unsavedDraft = includingDraft && !m_draft.trimmed().isEmpty();
    if (!unsavedMessages && !unsavedDraft)
        co_return true;

    using Answer = DiscardQuestion::Answer;
    DiscardQuestion question;
    question.title = DiscardQuestion::titleText();
    const bool streaming = chat->isStreaming();
    question.text = streaming ? DiscardQuestion::streamingText() : DiscardQuestion::unsavedText();
    if (!streaming && m_account->canSaveChats())
        question.buttons = {Answer::saveChat, Answer::discard, Answer::cancel};
    else
        question.buttons = {Answer::cancel, Answer::discard};
    if (!m_askToDiscard)
        co_return false;
    const Answer answer = co_await m_askToDiscard(question);
    if (answer == Answer::discard)
        co_return true;
    if (answer != Answer::saveChat || !question.buttons.contains(Answer::saveChat))
        co_return false;
    // The session may have been replaced while the question was open.
    if (chat != m_chat.get())
        co_return false;
    co_await chat->save();
    if (chat != m_chat.get())
        co_return false;
    if (const auto failure = chat->saveError()) {
        setErrorMessage(failure);
        co_return false;
    }
    co_return !chat->isDirty();
}

QCoro::Task<bool> ApplicationModel::prepareToTerminate() {
    const bool mayDiscard = co_await prepareToDiscard(true);
    if (!mayDiscard)
        co_return false;
    co_await stopLocalWork();
    co_await closeLocalData();
    qCInfo(lifecycleLog, "Scheduler stopped; terminating");
    co_return true;
}

std::unique_ptr<ChatSession> ApplicationModel::makeChat() {
    auto session = std::make_unique<ChatSession>(*m_client, *m_catalog, *m_defaults);
    connectChat(*session);
    return session;
}

void ApplicationModel::connectChat(ChatSession& session) {
    session.setSavingAllowed([this] { return m_account->canSaveChats(); });
    session.setOnSaved([this](SavedChatSummary summary) { upsertSaved(summary); });
    session.setAccountModel(m_account.get());
    const auto& account = m_account->account();
    session.setAccountID(account ? account->id : std::nullopt);
    if (const auto selected = m_catalog->selectedModelID())
        session.selectModel(*selected);
}

void ApplicationModel::replaceChat(std::unique_ptr<ChatSession> next) {
    auto previous = std::exchange(m_chat, std::move(next));
    if (const auto draft = m_drafts.constFind(m_chat->id()); draft != m_drafts.cend())
        m_draft = *draft;
    Q_EMIT chatReplaced();
    auto retired = retire(std::move(previous));
}

QCoro::Task<void> ApplicationModel::retire(std::unique_ptr<ChatSession> session) {
    session->stop();
    co_await session->waitUntilIdle();
    session.release()->deleteLater();
}

void ApplicationModel::upsertSaved(const SavedChatSummary& summary) {
    m_savedChats.removeIf([&](const SavedChatSummary& s) { return s.id == summary.id; });
    m_savedChats.prepend(summary);
    std::stable_sort(m_savedChats.begin(), m_savedChats.end(),
                     [](const SavedChatSummary& a, const SavedChatSummary& b) {
                         return a.updatedAt > b.updatedAt;
                     });
    Q_EMIT savedChatsChanged();
}

} // namespace kestrolan

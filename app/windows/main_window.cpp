#include "windows/main_window.h"

#include "account/account_model.h"
#include "account/desktop_auth.h"
#include "conversation/chat_session.h"
#include "model/app_logging.h"
#include "model/application_model.h"
#include "service/api_client.h"
#include "widgets/access_panel.h"
#include "widgets/approval_sheet.h"
#include "widgets/composer.h"
#include "widgets/model_slot_bar.h"
#include "widgets/transcript_view.h"
#include "windows/account_strip.h"
#include "windows/chat_sidebar.h"
#include "windows/sign_in_view.h"

#include <QCloseEvent>
#include <QCoroSignal>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QShortcut>
#include <QSplitter>
#include <QStackedWidget>
#include <QVBoxLayout>

namespace kestrolan {
namespace {

QWidget* wrap(QWidget* parent, std::initializer_list<QWidget*> widgets, int stretchIndex) {
    auto* page = new QWidget(parent);
    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    int index = 0;
    for (QWidget* widget : widgets)
        layout->addWidget(widget, index++ == stretchIndex ? 1 : 0);
    return page;
}

} // namespace

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent)
    , m_pages(new QStackedWidget(this))
    , m_failure(new QLabel(this))
    , m_signIn(new SignInView(this))
    , m_sidebar(new ChatSidebar(this))
    , m_accountStrip(new AccountStrip(this))
    , m_chatError(new QLabel(this))
    , m_slots(new ModelSlotBar(this))
    , m_transcript(new TranscriptView(this))
    , m_composer(new Composer(this))
    , m_approval(new ApprovalSheet(nullptr, this)) {
    setWindowTitle(QStringLiteral("Kestrolan"));
    resize(1000, 700);

    m_failure->setWordWrap(true);
    m_failure->setAlignment(Qt::AlignCenter);
    m_failure->setTextFormat(Qt::PlainText);
    m_chatError->setWordWrap(true);
    m_chatError->setTextFormat(Qt::PlainText);
    m_chatError->setStyleSheet(QStringLiteral("color: #d33; padding: 4px 8px;"));
    m_chatError->setAccessibleDescription(QStringLiteral("Error"));
    m_chatError->hide();
    m_transcript->setAccessibleName(QStringLiteral("Transcript"));
    m_composer->setAccessibleName(QStringLiteral("Message"));
    m_sidebar->setAccessibleName(QStringLiteral("Chats"));

    auto* starting = new QWidget(this);
    m_pages->addWidget(starting);
    m_pages->addWidget(m_signIn);
    m_chatPage = new QWidget(this);
    auto* splitter = new QSplitter(Qt::Horizontal, m_chatPage);
    splitter->addWidget(m_sidebar);
    splitter->addWidget(wrap(splitter, {m_slots, m_chatError, m_transcript, m_composer}, 2));
    splitter->setStretchFactor(1, 1);
    splitter->setChildrenCollapsible(false);
    auto* chatLayout = new QVBoxLayout(m_chatPage);
    chatLayout->setContentsMargins(0, 0, 0, 0);
    chatLayout->setSpacing(0);
    chatLayout->addWidget(m_accountStrip);
    chatLayout->addWidget(splitter, 1);
    m_pages->addWidget(m_chatPage);
    m_pages->addWidget(m_failure);
    setCentralWidget(m_pages);

    connect(m_sidebar, &ChatSidebar::newChatRequested, this, [this] { auto t = startNewChat(); });
    connect(m_sidebar, &ChatSidebar::openRequested, this,
            [this](const SavedChatSummary& summary) { auto t = openChat(summary); });
    connect(m_accountStrip, &AccountStrip::saveRequested, this, [this] { auto t = saveChat(); });
    connect(m_accountStrip, &AccountStrip::signOutRequested, this, [this] {
        if (m_model)
            auto t = m_model->signOut();
    });
    installShortcuts();
}

MainWindow::~MainWindow() = default;

void MainWindow::setModel(ApplicationModel* model) {
    m_model = model;
    m_signIn->setModel(model);
    m_sidebar->setModel(model);
    m_accountStrip->setModel(model);
    m_slots->setCatalog(&model->catalog());
    // The access panel keeps the web switches in the preferences the model owns.
    m_access = new AccessPanel(model->defaults(), m_chatPage);
    m_access->setAccessibleName(QStringLiteral("Local access"));
    static_cast<QVBoxLayout*>(m_chatPage->layout())->insertWidget(1, m_access);
    connect(&model->auth(), &DesktopAuth::changed, this, &MainWindow::refreshPage);
    connect(model, &ApplicationModel::stateChanged, this, &MainWindow::refreshPage);
    connect(model, &ApplicationModel::signedInGenerationChanged, this, &MainWindow::refreshPage);
    connect(model, &ApplicationModel::chatReplaced, this, &MainWindow::bindChat);
    connect(&model->account(), &AccountModel::accountChanged, this, &MainWindow::bindChat);
    bindChat();
    refreshPage();
}

void MainWindow::showFailure(const QString& message) {
    m_failure->setText(message);
    m_pages->setCurrentWidget(m_failure);
}

MainWindow::Page MainWindow::page() const {
    const QWidget* current = m_pages->currentWidget();
    if (current == m_signIn)
        return Page::signedOut;
    if (current == m_chatPage)
        return Page::chat;
    if (current == m_failure)
        return Page::failed;
    return Page::starting;
}

void MainWindow::bindChat() {
    if (!m_model)
        return;
    ChatSession& chat = m_model->chat();
    m_transcript->setSession(&chat);
    m_composer->setSession(&chat);
    m_composer->setDraft(m_model->draft());
    m_slots->setSession(&chat);
    m_approval->setExecutor(&chat.tools());
    if (m_access) {
        m_access->setSession(&chat);
        const auto& account = m_model->account().account();
        if (account && account->id)
            m_access->setAccount(m_model->client().configuration().origin(), account->id);
        else
            m_access->setAccount(std::nullopt, std::nullopt);
    }
    if (page() == Page::chat)
        m_composer->editor()->setFocus(Qt::OtherFocusReason);
}

void MainWindow::refreshPage() {
    if (!m_model)
        return;
    const auto& error = m_model->errorMessage();
    m_chatError->setText(error.value_or(m_model->historyError().value_or(QString())));
    m_chatError->setVisible(!m_chatError->text().isEmpty());
    const bool signedIn = m_model->auth().isSignedIn();
    // Until the stored sign-in has been read, neither screen is shown.
    if (!signedIn && m_model->signedInGeneration() == 0)
        return;
    QWidget* target = signedIn ? m_chatPage : static_cast<QWidget*>(m_signIn);
    if (m_pages->currentWidget() == target)
        return;
    m_pages->setCurrentWidget(target);
    if (signedIn)
        m_composer->editor()->setFocus(Qt::OtherFocusReason);
    else
        m_signIn->signInButton()->setFocus(Qt::OtherFocusReason);
}

void MainWindow::installShortcuts() {
    const auto add = [this](const QKeySequence& keys, auto slot) {
        auto* shortcut = new QShortcut(keys, this);
        shortcut->setContext(Qt::WindowShortcut);
        connect(shortcut, &QShortcut::activated, this, slot);
        return shortcut;
    };
    add(QKeySequence(Qt::CTRL | Qt::Key_N), [this] {
        if (page() == Page::chat)
            auto t = startNewChat();
    });
    add(QKeySequence(Qt::CTRL | Qt::Key_L), [this] {
        if (page() == Page::chat)
            m_composer->editor()->setFocus(Qt::ShortcutFocusReason);
    });
    add(QKeySequence(Qt::CTRL | Qt::Key_K), [this] {
        if (page() == Page::chat)
            m_slots->openPicker(0);
    });
    add(QKeySequence(Qt::CTRL | Qt::Key_F), [this] {
        if (page() == Page::chat) {
            m_sidebar->filterField()->setFocus(Qt::ShortcutFocusReason);
            m_sidebar->filterField()->selectAll();
        }
    });
    add(QKeySequence(Qt::CTRL | Qt::Key_S), [this] {
        if (page() == Page::chat && m_accountStrip->saveButton()->isEnabled())
            auto t = saveChat();
    });
    add(QKeySequence(Qt::CTRL | Qt::Key_Q), [this] { Q_EMIT quitRequested(); });
    // Escape stops a streaming reply; sheets and menus take their own Escape first.
    auto* stop = add(QKeySequence(Qt::Key_Escape), [this] {
        if (m_model && m_model->chat().isStreaming())
            m_model->chat().stop();
    });
    stop->setContext(Qt::WindowShortcut);
}

QCoro::Task<void> MainWindow::startNewChat() {
    if (!m_model)
        co_return;
    m_model->setDraft(m_composer->draft());
    const bool mayDiscard = co_await m_model->prepareToDiscard(false);
    if (mayDiscard)
        m_model->newChat();
}

QCoro::Task<void> MainWindow::openChat(SavedChatSummary summary) {
    if (!m_model)
        co_return;
    if (m_model->chat().savedID() == summary.id && !m_model->failedChat())
        co_return;
    m_model->setDraft(m_composer->draft());
    const bool mayDiscard = co_await m_model->prepareToDiscard(false);
    if (mayDiscard)
        co_await m_model->open(summary);
}

QCoro::Task<void> MainWindow::saveChat() {
    if (m_model)
        co_await m_model->chat().save();
}

QCoro::Task<DiscardQuestion::Answer> MainWindow::ask(DiscardQuestion question) {
    using Answer = DiscardQuestion::Answer;
    QPointer<QMessageBox> box = new QMessageBox(QMessageBox::Question, question.title,
                                                question.text, QMessageBox::NoButton, this);
    box->setWindowModality(Qt::WindowModal);
    QHash<QAbstractButton*, Answer> answers;
    for (const Answer answer : question.buttons) {
        const auto role = answer == Answer::saveChat  ? QMessageBox::AcceptRole
                          : answer == Answer::discard ? QMessageBox::DestructiveRole
                                                      : QMessageBox::RejectRole;
        QPushButton* button = box->addButton(DiscardQuestion::buttonText(answer), role);
        answers.insert(button, answer);
        if (answer == question.buttons.constFirst())
            box->setDefaultButton(button);
        if (answer == Answer::cancel)
            box->setEscapeButton(button);
    }
    box->open();
    co_await qCoro(box.data(), &QMessageBox::finished);
    Answer chosen = Answer::cancel;
    if (box) {
        chosen = answers.value(box->clickedButton(), Answer::cancel);
        box->deleteLater();
    }
    co_return chosen;
}

void MainWindow::closeEvent(QCloseEvent* event) {
    // Closing hides the window; quitting is Ctrl+Q, which asks about unsaved work.
    if (m_model)
        m_model->setDraft(m_composer->draft());
    event->accept();
    Q_EMIT closed();
}

} // namespace kestrolan

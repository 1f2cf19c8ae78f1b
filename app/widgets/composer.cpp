#include "composer.h"

#include "conversation/chat_session.h"
#include "tools/attachment_error.h"
#include "tools/text_attachments.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QMimeData>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

namespace kestrolan {

Composer::Composer(QWidget* parent)
    : QWidget(parent)
    , m_editor(new QPlainTextEdit(this))
    , m_attachButton(new QToolButton(this))
    , m_sendButton(new QPushButton(this))
    , m_limits(new QLabel(TextAttachments::limitsDescription(), this))
    , m_notice(new QLabel(this))
    , m_chips(new QWidget(this))
    , m_chipsLayout(new QHBoxLayout(m_chips)) {
    setAcceptDrops(true);
    m_editor->setAccessibleName(QStringLiteral("Message"));
    m_editor->setPlaceholderText(QStringLiteral("Message (Enter sends, Shift+Enter adds a line)"));
    m_editor->setTabChangesFocus(true);
    m_editor->setAcceptDrops(false);
    m_editor->installEventFilter(this);
    m_editor->setMinimumHeight(64);
    m_editor->setMaximumHeight(96);
    m_attachButton->setText(QStringLiteral("Attach…"));
    m_attachButton->setAccessibleName(QStringLiteral("Attach text files"));
    m_attachButton->setToolTip(TextAttachments::limitsDescription());
    m_sendButton->setAccessibleName(QStringLiteral("Send"));
    m_sendButton->setDefault(false);
    m_sendButton->setAutoDefault(false);
    m_limits->setAccessibleDescription(QStringLiteral("Attachment limits"));
    m_limits->setForegroundRole(QPalette::PlaceholderText);
    m_notice->setAccessibleDescription(QStringLiteral("Composer notice"));
    m_notice->setWordWrap(true);
    m_notice->hide();
    m_chipsLayout->setContentsMargins(0, 0, 0, 0);
    m_chipsLayout->setSpacing(6);
    m_chipsLayout->addStretch();
    m_chips->hide();

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(m_attachButton);
    buttons->addWidget(m_limits, 1);
    buttons->addWidget(m_sendButton);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(12, 6, 12, 10);
    layout->setSpacing(6);
    layout->addWidget(m_notice);
    layout->addWidget(m_chips);
    layout->addWidget(m_editor);
    layout->addLayout(buttons);

    connect(m_attachButton, &QToolButton::clicked, this, &Composer::chooseFiles);
    connect(m_sendButton, &QPushButton::clicked, this, &Composer::sendOrStop);
    connect(m_editor, &QPlainTextEdit::textChanged, this, [this] {
        refresh();
        Q_EMIT draftChanged();
    });
    refresh();
}

Composer::~Composer() = default;

void Composer::setSession(ChatSession* session) {
    disconnect(m_sessionChanged);
    m_session = session;
    if (m_session)
        m_sessionChanged = connect(m_session, &ChatSession::changed, this, &Composer::refresh);
    refresh();
}

ChatSession* Composer::session() const {
    return m_session;
}

QString Composer::draft() const {
    return m_editor->toPlainText();
}

void Composer::setDraft(const QString& text) {
    m_editor->setPlainText(text);
    m_editor->moveCursor(QTextCursor::End);
}

QString Composer::notice() const {
    return m_notice->isHidden() ? QString() : m_notice->text();
}

void Composer::showNotice(const QString& text) {
    m_notice->setText(text);
    m_notice->setVisible(!text.isEmpty());
}

void Composer::refresh() {
    const bool streaming = m_session && m_session->isStreaming();
    m_sendButton->setText(streaming ? QStringLiteral("Stop") : QStringLiteral("Send"));
    m_sendButton->setAccessibleName(m_sendButton->text());
    m_sendButton->setEnabled(
        m_session &&
        (streaming || !m_editor->toPlainText().trimmed().isEmpty() || !m_attachments.isEmpty()));
}

void Composer::rebuildChips() {
    while (m_chipsLayout->count() > 1) {
        auto* item = m_chipsLayout->takeAt(0);
        item->widget()->hide();
        item->widget()->deleteLater(); // it may be the chip being clicked
        delete item;
    }
    for (int i = 0; i < m_attachments.size(); ++i) {
        auto* chip = new QToolButton(m_chips);
        chip->setText(m_attachments[i].name + u"  ×");
        chip->setAccessibleName(u"Remove attachment " + m_attachments[i].name);
        chip->setAutoRaise(false);
        connect(chip, &QToolButton::clicked, this, [this, i] { removeAttachment(i); });
        m_chipsLayout->insertWidget(i, chip);
    }
    m_chips->setVisible(!m_attachments.isEmpty());
    refresh();
    Q_EMIT attachmentsChanged();
}

void Composer::removeAttachment(int index) {
    if (index < 0 || index >= m_attachments.size())
        return;
    m_attachments.removeAt(index);
    rebuildChips();
}

void Composer::chooseFiles() {
    const QList<QUrl> files =
        QFileDialog::getOpenFileUrls(this, QStringLiteral("Attach text files"));
    if (!files.isEmpty())
        (void)attach(files);
}

QCoro::Task<void> Composer::attach(QList<QUrl> files) {
    QPointer<Composer> self(this);
    try {
        auto read = co_await m_reader.read(std::move(files));
        if (!self)
            co_return;
        // The limits hold for everything one message carries, not for each drop.
        QList<WireAttachment> combined = m_attachments + read;
        if (const auto violation = TextAttachments::violation(combined)) {
            showNotice(violation->description());
            co_return;
        }
        m_attachments = std::move(combined);
        showNotice({});
        rebuildChips();
    } catch (const AttachmentError& error) {
        if (self)
            showNotice(error.description());
    }
}

void Composer::sendOrStop() {
    if (m_session && m_session->isStreaming()) {
        m_session->stop();
        return;
    }
    (void)send();
}

QCoro::Task<void> Composer::send() {
    QPointer<ChatSession> session = m_session;
    const QString text = m_editor->toPlainText();
    if (!session || session->isStreaming() || m_sending ||
        (text.trimmed().isEmpty() && m_attachments.isEmpty()))
        co_return;
    TurnContext context = m_contextProvider ? m_contextProvider() : TurnContext();
    context.attachments = m_attachments;
    const QList<WireAttachment> attachments = m_attachments;
    QPointer<Composer> self(this);
    m_sending = true;
    m_editor->clear();
    m_attachments.clear();
    rebuildChips();
    showNotice({});
    const qsizetype turnsBefore = session->conversation().turns.size();
    co_await session->send(text, context);
    if (!self)
        co_return;
    m_sending = false;
    // A send that did not get through gives the message back, unless a new one was begun.
    const bool refused = !session || session->conversation().turns.size() == turnsBefore;
    const bool failed = session && session->errorMessage().has_value();
    if ((refused || failed) && m_editor->toPlainText().isEmpty() && m_attachments.isEmpty()) {
        setDraft(text);
        m_attachments = attachments;
        rebuildChips();
        if (session && session->errorMessage())
            showNotice(*session->errorMessage());
    }
    refresh();
}

bool Composer::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_editor && event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        const bool enter = key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter;
        if (enter && (key->modifiers() & Qt::ShiftModifier)) {
            // A plain new paragraph, not the soft line break QPlainTextEdit would insert.
            m_editor->insertPlainText(QStringLiteral("\n"));
            return true;
        }
        if (enter) {
            if (!(m_session && m_session->isStreaming()))
                (void)send();
            return true;
        }
        if (key->key() == Qt::Key_Escape && m_session && m_session->isStreaming()) {
            m_session->stop();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void Composer::dragEnterEvent(QDragEnterEvent* event) {
    if (event->mimeData()->hasUrls())
        event->acceptProposedAction();
}

void Composer::dropEvent(QDropEvent* event) {
    QList<QUrl> files;
    for (const QUrl& url : event->mimeData()->urls()) {
        if (url.isLocalFile())
            files.append(url);
    }
    if (files.isEmpty())
        return;
    event->acceptProposedAction();
    (void)attach(files);
}

} // namespace kestrolan

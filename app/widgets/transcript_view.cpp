#include "transcript_view.h"

#include "conversation/chat_session.h"
#include "markdown_document.h"
#include "transcript_delegate.h"
#include "transcript_model.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QDialog>
#include <QDialogButtonBox>
#include <QKeyEvent>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPainter>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QTextEdit>
#include <QVBoxLayout>

namespace kestrolan {

TranscriptView::TranscriptView(QWidget* parent)
    : QListView(parent)
    , m_model(new TranscriptModel(this))
    , m_delegate(new TranscriptDelegate(this)) {
    setAccessibleName(QStringLiteral("Transcript"));
    setModel(m_model);
    setItemDelegate(m_delegate);
    setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    setLayoutMode(QListView::Batched);
    setBatchSize(50);
    setUniformItemSizes(false);
    setSelectionMode(QAbstractItemView::NoSelection);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setFrameShape(QFrame::NoFrame);
    setMouseTracking(true);
    viewport()->setAttribute(Qt::WA_Hover);
    verticalScrollBar()->setSingleStep(24);

    // A width change alone does not make QListView lay its rows out again.
    m_relayout.setSingleShot(true);
    m_relayout.setInterval(40);
    connect(&m_relayout, &QTimer::timeout, this, [this] { scheduleDelayedItemsLayout(); });

    connect(m_model, &QAbstractItemModel::rowsInserted, this, [this] { followNewRows(); });
    connect(m_model, &QAbstractItemModel::dataChanged, this, [this] { followNewRows(); });
    connect(m_model, &QAbstractItemModel::modelReset, this, [this] {
        m_delegate->reset();
        m_stickToBottom = true;
        followNewRows();
    });
    connect(verticalScrollBar(), &QScrollBar::valueChanged, this,
            [this](int value) { m_stickToBottom = value >= verticalScrollBar()->maximum() - 4; });
    connect(verticalScrollBar(), &QScrollBar::rangeChanged, this, [this](int, int maximum) {
        if (m_stickToBottom)
            verticalScrollBar()->setValue(maximum);
    });
}

TranscriptView::~TranscriptView() = default;

void TranscriptView::setSession(ChatSession* session) {
    m_model->setSession(session);
}

ChatSession* TranscriptView::session() const {
    return m_model->session();
}

QString TranscriptView::replaceQuestion() {
    return ChatSession::replaceLaterMessagesTitle();
}

QString TranscriptView::replaceExplanation() {
    return ChatSession::replaceLaterMessagesExplanation();
}

void TranscriptView::followNewRows() {
    if (m_stickToBottom)
        scrollToBottom();
}

void TranscriptView::mouseMoveEvent(QMouseEvent* event) {
    QListView::mouseMoveEvent(event);
    const QModelIndex index = indexAt(event->position().toPoint());
    Qt::CursorShape shape = Qt::ArrowCursor;
    if (index.isValid()) {
        QStyleOptionViewItem option;
        initViewItemOption(&option);
        option.rect = visualRect(index);
        const auto target = m_delegate->targetAt(option, index, event->position().toPoint());
        if (target.kind != TranscriptDelegate::Target::Kind::none)
            shape = Qt::PointingHandCursor;
        else if (m_delegate->documentAt(option, index, event->position().toPoint(), nullptr))
            shape = Qt::IBeamCursor;
    }
    viewport()->setCursor(shape);
}

void TranscriptView::mouseReleaseEvent(QMouseEvent* event) {
    QListView::mouseReleaseEvent(event);
    if (event->button() != Qt::LeftButton)
        return;
    const QPoint pos = event->position().toPoint();
    const QModelIndex index = indexAt(pos);
    if (!index.isValid())
        return;
    setCurrentIndex(index);
    QStyleOptionViewItem option;
    initViewItemOption(&option);
    option.rect = visualRect(index);
    const auto target = m_delegate->targetAt(option, index, pos);
    const int turn = m_model->turnIndex(index.row());
    using Kind = TranscriptDelegate::Target::Kind;
    switch (target.kind) {
    case Kind::link: {
        // Only a click opens a link, and only one the browser may be trusted with.
        const QUrl url(target.text);
        if (MarkdownDocument::isOpenableLink(url)) {
            QDesktopServices::openUrl(url);
            Q_EMIT linkOpened(url);
        } else {
            Q_EMIT linkRefused(url);
        }
        break;
    }
    case Kind::copyCode:
    case Kind::copyMessage:
        copyText(target.text);
        break;
    case Kind::editMessage:
        editTurn(turn);
        break;
    case Kind::regenerate:
        regenerateTurn(turn);
        break;
    case Kind::none:
        break;
    }
}

void TranscriptView::mouseDoubleClickEvent(QMouseEvent* event) {
    // Text is selected in place: the message opens as read-only text over its row.
    const QPoint pos = event->position().toPoint();
    const QModelIndex index = indexAt(pos);
    if (!index.isValid())
        return QListView::mouseDoubleClickEvent(event);
    QStyleOptionViewItem option;
    initViewItemOption(&option);
    option.rect = visualRect(index);
    QRect area;
    MarkdownDocument* document = m_delegate->documentAt(option, index, pos, &area);
    if (!document)
        return QListView::mouseDoubleClickEvent(event);
    openSelection(document, area);
}

void TranscriptView::openSelection(MarkdownDocument* document, const QRect& area) {
    delete m_selection;
    auto* editor = new QTextEdit(viewport());
    m_selection = editor;
    editor->setAccessibleName(QStringLiteral("Message text"));
    editor->setReadOnly(true);
    editor->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    editor->setFrameShape(QFrame::NoFrame);
    editor->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    editor->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* copy = document->clone(editor);
    copy->setTextWidth(area.width());
    editor->setDocument(copy);
    editor->document()->setDocumentMargin(0);
    editor->viewport()->setAutoFillBackground(false);
    editor->setStyleSheet(QStringLiteral("QTextEdit { background: transparent; }"));
    editor->setGeometry(area.adjusted(0, 0, 0, 2));
    editor->installEventFilter(this);
    editor->show();
    editor->setFocus();
    editor->selectAll();
}

bool TranscriptView::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_selection) {
        if (event->type() == QEvent::FocusOut ||
            (event->type() == QEvent::KeyPress &&
             static_cast<QKeyEvent*>(event)->key() == Qt::Key_Escape)) {
            m_selection->deleteLater();
            m_selection = nullptr;
            setFocus();
            return event->type() == QEvent::KeyPress;
        }
    }
    return QListView::eventFilter(watched, event);
}

void TranscriptView::scrollContentsBy(int dx, int dy) {
    if (m_selection) {
        m_selection->deleteLater();
        m_selection = nullptr;
    }
    QListView::scrollContentsBy(dx, dy);
}

void TranscriptView::keyPressEvent(QKeyEvent* event) {
    const QModelIndex index = currentIndex();
    if (index.isValid() && event->matches(QKeySequence::Copy)) {
        copyText(m_model->plainText(index.row()));
        return;
    }
    if (index.isValid() && event->modifiers() == Qt::ControlModifier) {
        const auto kind = m_model->kind(index.row());
        const int turn = m_model->turnIndex(index.row());
        if (event->key() == Qt::Key_E && kind == TranscriptModel::Kind::user) {
            editTurn(turn);
            return;
        }
        if (event->key() == Qt::Key_R && kind == TranscriptModel::Kind::replies) {
            regenerateTurn(turn);
            return;
        }
    }
    QListView::keyPressEvent(event);
}

void TranscriptView::resizeEvent(QResizeEvent* event) {
    QListView::resizeEvent(event);
    m_relayout.start();
}

void TranscriptView::paintEvent(QPaintEvent* event) {
    QListView::paintEvent(event);
    if (model() && model()->rowCount() > 0)
        return;
    QPainter painter(viewport());
    painter.setPen(palette().color(QPalette::PlaceholderText));
    const QRect area = viewport()->rect().adjusted(48, 0, -48, 0);
    painter.drawText(area, Qt::AlignCenter | Qt::TextWordWrap,
                     QStringLiteral("Ask anything. Each reply shows what its requests cost.\n"
                                    "Local access stays off until you choose a folder and a "
                                    "mode above."));
}

void TranscriptView::changeEvent(QEvent* event) {
    QListView::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange) {
        m_delegate->reset();
        scheduleDelayedItemsLayout();
    }
}

void TranscriptView::copyText(const QString& text) {
    QGuiApplication::clipboard()->setText(text);
    Q_EMIT copied(text);
}

bool TranscriptView::confirmReplace(QWidget* parent) {
    QMessageBox box(QMessageBox::Question, replaceQuestion(), replaceQuestion(),
                    QMessageBox::Cancel, parent);
    box.setInformativeText(replaceExplanation());
    auto* replace = box.addButton(QStringLiteral("Replace"), QMessageBox::AcceptRole);
    box.setDefaultButton(QMessageBox::Cancel);
    box.exec();
    return box.clickedButton() == replace;
}

void TranscriptView::editTurn(int turn) {
    ChatSession* chat = session();
    if (!chat || chat->isStreaming() || turn < 0 || turn >= chat->conversation().turns.size())
        return;
    const auto& original = chat->conversation().turns[turn];
    const QUuid turnID = original.id;
    QDialog dialog(this);
    dialog.setWindowTitle(QStringLiteral("Edit message"));
    auto* editor = new QPlainTextEdit(original.user, &dialog);
    editor->setAccessibleName(QStringLiteral("Edited message"));
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, &dialog);
    buttons->addButton(QStringLiteral("Send"), QDialogButtonBox::AcceptRole);
    connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    auto* layout = new QVBoxLayout(&dialog);
    layout->addWidget(editor);
    layout->addWidget(buttons);
    dialog.resize(520, 240);
    if (dialog.exec() != QDialog::Accepted)
        return;
    const QString text = editor->toPlainText();
    if (!confirmReplace(this))
        return;
    QPointer<ChatSession> guard(chat);
    if (!guard || guard->isStreaming())
        return;
    const TurnContext context = guard->turnContexts().value(turnID);
    // The turn reports its own failures through the session.
    (void)guard->edit(turnID, text, context);
}

void TranscriptView::regenerateTurn(int turn) {
    ChatSession* chat = session();
    if (!chat || chat->isStreaming() || turn < 0 || turn >= chat->conversation().turns.size())
        return;
    const QUuid turnID = chat->conversation().turns[turn].id;
    // Regenerating an earlier turn drops the turns after it, so it is confirmed like an edit.
    if (turn + 1 < chat->conversation().turns.size() && !confirmReplace(this))
        return;
    (void)chat->regenerate(turnID);
}

} // namespace kestrolan

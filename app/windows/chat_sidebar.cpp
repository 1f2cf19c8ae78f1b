#include "windows/chat_sidebar.h"

#include "model/application_model.h"
#include "model/saved_chat_list.h"

#include <QHeaderView>
#include <QInputDialog>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QShortcut>
#include <QTreeWidget>
#include <QTreeWidgetItemIterator>
#include <QVBoxLayout>

namespace kestrolan {

ChatSidebar::ChatSidebar(QWidget* parent)
    : QWidget(parent)
    , m_newChat(new QPushButton(QStringLiteral("New chat"), this))
    , m_filter(new QLineEdit(this))
    , m_list(new QTreeWidget(this)) {
    m_newChat->setAccessibleName(QStringLiteral("New chat"));
    m_filter->setPlaceholderText(QStringLiteral("Filter chats"));
    m_filter->setAccessibleName(QStringLiteral("Filter chats"));
    m_filter->setClearButtonEnabled(true);
    m_list->setHeaderHidden(true);
    m_list->setRootIsDecorated(false);
    m_list->setAccessibleName(QStringLiteral("Saved chats"));
    m_list->setContextMenuPolicy(Qt::CustomContextMenu);
    m_list->setUniformRowHeights(true);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(6, 6, 6, 6);
    layout->addWidget(m_newChat);
    layout->addWidget(m_filter);
    layout->addWidget(m_list, 1);

    connect(m_newChat, &QPushButton::clicked, this, &ChatSidebar::newChatRequested);
    connect(m_filter, &QLineEdit::textChanged, this, &ChatSidebar::rebuild);
    connect(m_list, &QTreeWidget::itemActivated, this, [this] {
        if (const auto summary = current())
            Q_EMIT openRequested(*summary);
    });
    connect(m_list, &QTreeWidget::customContextMenuRequested, this, &ChatSidebar::showMenu);
    auto* rename = new QShortcut(QKeySequence(Qt::Key_F2), m_list);
    rename->setContext(Qt::WidgetShortcut);
    connect(rename, &QShortcut::activated, this, &ChatSidebar::renameCurrent);
    auto* remove = new QShortcut(QKeySequence::Delete, m_list);
    remove->setContext(Qt::WidgetShortcut);
    connect(remove, &QShortcut::activated, this, &ChatSidebar::deleteCurrent);
    // Down from the filter goes into the list, so the keyboard reaches every chat.
    m_filter->installEventFilter(this);
}

void ChatSidebar::setModel(ApplicationModel* model) {
    m_model = model;
    if (model) {
        connect(model, &ApplicationModel::savedChatsChanged, this, &ChatSidebar::rebuild);
        connect(model, &ApplicationModel::stateChanged, this, &ChatSidebar::rebuild);
    }
    rebuild();
}

void ChatSidebar::rebuild() {
    const auto selected = current();
    m_list->clear();
    if (!m_model)
        return;
    const auto& failed = m_model->failedChat();
    auto chats = m_model->savedChats();
    // A chat that failed to open stays listed even when a refresh no longer has it.
    if (failed && std::none_of(chats.cbegin(), chats.cend(),
                               [&](const SavedChatSummary& c) { return c.id == failed->id; }))
        chats.append(*failed);
    QTreeWidgetItem* reselect = nullptr;
    // Rows a little taller than the text, so the list is easy to read and to hit.
    const QSize rowSize(0, m_list->fontMetrics().height() + 10);
    for (const auto& section :
         SavedChatList::sections(chats, m_filter->text(), m_model->now().toLocalTime())) {
        auto* heading = new QTreeWidgetItem(m_list, {section.heading});
        heading->setSizeHint(0, rowSize);
        heading->setFlags(Qt::ItemIsEnabled);
        QFont bold = heading->font(0);
        bold.setBold(true);
        heading->setFont(0, bold);
        for (const auto& chat : section.chats) {
            QString title = SavedChatList::displayTitle(chat);
            if (failed && failed->id == chat.id)
                title += QStringLiteral(" — could not be opened; open to retry");
            auto* item = new QTreeWidgetItem(m_list, {title});
            item->setSizeHint(0, rowSize);
            item->setData(0, summaryRole, QVariant::fromValue(chat.id));
            item->setData(0, Qt::AccessibleTextRole, title);
            if (selected && selected->id == chat.id)
                reselect = item;
        }
    }
    if (reselect)
        m_list->setCurrentItem(reselect);
}

bool ChatSidebar::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_filter && event->type() == QEvent::KeyPress &&
        static_cast<QKeyEvent*>(event)->key() == Qt::Key_Down) {
        // Into the list at the first chat (headings are not chats), or where it was left.
        if (!current()) {
            for (QTreeWidgetItemIterator it(m_list); *it; ++it) {
                if (!(*it)->data(0, summaryRole).value<QUuid>().isNull()) {
                    m_list->setCurrentItem(*it);
                    break;
                }
            }
        }
        m_list->setFocus(Qt::TabFocusReason);
        return true;
    }
    return QWidget::eventFilter(watched, event);
}

std::optional<SavedChatSummary> ChatSidebar::current() const {
    const QTreeWidgetItem* item = m_list->currentItem();
    if (!item || !m_model)
        return std::nullopt;
    const QUuid id = item->data(0, summaryRole).value<QUuid>();
    if (id.isNull())
        return std::nullopt;
    for (const auto& chat : m_model->savedChats())
        if (chat.id == id)
            return chat;
    if (const auto& failed = m_model->failedChat(); failed && failed->id == id)
        return failed;
    return std::nullopt;
}

void ChatSidebar::renameCurrent() {
    const auto summary = current();
    if (!summary || !m_model)
        return;
    bool ok = false;
    const QString title =
        QInputDialog::getText(this, QStringLiteral("Rename chat"), QStringLiteral("Title"),
                              QLineEdit::Normal, SavedChatList::displayTitle(*summary), &ok);
    if (ok && !title.trimmed().isEmpty())
        auto task = m_model->rename(*summary, title);
}

void ChatSidebar::deleteCurrent() {
    const auto summary = current();
    if (!summary || !m_model)
        return;
    const auto answer =
        QMessageBox::question(this, QStringLiteral("Delete chat?"),
                              u"\u201c" + SavedChatList::displayTitle(*summary) +
                                  QStringLiteral("\u201d is removed from your account."),
                              QMessageBox::Cancel | QMessageBox::Discard, QMessageBox::Cancel);
    if (answer == QMessageBox::Discard)
        auto task = m_model->remove(*summary);
}

void ChatSidebar::showMenu(const QPoint& position) {
    if (!current())
        return;
    QMenu menu(this);
    menu.addAction(QStringLiteral("Open"), this, [this] {
        if (const auto summary = current())
            Q_EMIT openRequested(*summary);
    });
    menu.addAction(QStringLiteral("Rename…"), this, &ChatSidebar::renameCurrent);
    menu.addAction(QStringLiteral("Delete…"), this, &ChatSidebar::deleteCurrent);
    menu.exec(m_list->viewport()->mapToGlobal(position));
}

} // namespace kestrolan

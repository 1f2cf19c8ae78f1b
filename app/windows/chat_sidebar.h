#pragma once

#include "conversation/saved_chat_summary.h"

#include <QWidget>

class QLineEdit;
class QPushButton;
class QTreeWidget;
class QTreeWidgetItem;

namespace kestrolan {

class ApplicationModel;

// New chat, the filter, and the saved chats under their day headings. Enter or a click opens a
// chat; F2 renames it; Delete asks before removing it. A chat that failed to open stays listed,
// marked, and opening it again retries.
class ChatSidebar : public QWidget {
    Q_OBJECT

public:
    static constexpr int summaryRole = Qt::UserRole + 1;

    explicit ChatSidebar(QWidget* parent = nullptr);

    void setModel(ApplicationModel* model);
    QLineEdit* filterField() const { return m_filter; }
    QTreeWidget* list() const { return m_list; }
    QPushButton* newChatButton() const { return m_newChat; }
    void rebuild();

Q_SIGNALS:
    void newChatRequested();
    void openRequested(const SavedChatSummary& summary);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    std::optional<SavedChatSummary> current() const;
    void renameCurrent();
    void deleteCurrent();
    void showMenu(const QPoint& position);

    ApplicationModel* m_model = nullptr;
    QPushButton* m_newChat;
    QLineEdit* m_filter;
    QTreeWidget* m_list;
};

} // namespace kestrolan

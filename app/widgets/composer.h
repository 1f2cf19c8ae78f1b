#pragma once

#include "conversation/turn_context.h"
#include "tools/attachment_service.h"

#include <QCoroTask>
#include <QList>
#include <QPlainTextEdit>
#include <QPointer>
#include <QUrl>
#include <QWidget>
#include <functional>

class QLabel;
class QPushButton;
class QToolButton;
class QHBoxLayout;

namespace kestrolan {

class ChatSession;

// The message box: Enter sends, Shift+Enter starts a new line. Text files are attached by
// button or by dropping them, within the attachment limits shown beside the button; a refused
// file is explained and nothing of it is attached. While a reply streams, Send becomes Stop.
// A send that fails gives the message and its files back to the box.
class Composer : public QWidget {
    Q_OBJECT

public:
    explicit Composer(QWidget* parent = nullptr);
    ~Composer() override;

    // The session messages go to; the composer does not own it.
    void setSession(ChatSession* session);
    ChatSession* session() const;
    // What each turn is sent with besides its text and files (project, agent).
    void setContextProvider(std::function<TurnContext()> provider) {
        m_contextProvider = std::move(provider);
    }

    QString draft() const;
    void setDraft(const QString& text);
    const QList<WireAttachment>& attachments() const { return m_attachments; }
    // The last refusal shown, empty when none.
    QString notice() const;

    // Reads `files` and attaches them, or explains the first refusal. Returns once read.
    QCoro::Task<void> attach(QList<QUrl> files);
    // Sends the draft with its files; returns when the turn has ended.
    QCoro::Task<void> send();

    QPlainTextEdit* editor() const { return m_editor; }

Q_SIGNALS:
    void draftChanged();
    void attachmentsChanged();

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void chooseFiles();
    void sendOrStop();
    void removeAttachment(int index);
    void showNotice(const QString& text);
    void refresh();
    void rebuildChips();

    QPointer<ChatSession> m_session;
    QMetaObject::Connection m_sessionChanged;
    std::function<TurnContext()> m_contextProvider;
    QList<WireAttachment> m_attachments;
    AttachmentService m_reader;
    bool m_sending = false;

    QPlainTextEdit* m_editor;
    QToolButton* m_attachButton;
    QPushButton* m_sendButton;
    QLabel* m_limits;
    QLabel* m_notice;
    QWidget* m_chips;
    QHBoxLayout* m_chipsLayout;
};

} // namespace kestrolan

#pragma once

#include "conversation/saved_chat_summary.h"
#include "model/discard_question.h"

#include <QCoroTask>
#include <QMainWindow>

class QLabel;
class QStackedWidget;

namespace kestrolan {

class AccessPanel;
class AccountStrip;
class ApplicationModel;
class ApprovalSheet;
class ChatSidebar;
class Composer;
class ModelSlotBar;
class SignInView;
class TranscriptView;

// The main window, titled "Kestrolan" in every state: a blank page until the stored sign-in has
// been read, the sign-in screen while signed out, else the sidebar beside the chat with the
// account strip above it.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    enum class Page { starting, signedOut, chat, failed };

    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    // The model is built after the window is up; until then the starting page shows.
    void setModel(ApplicationModel* model);
    // The model could not be built: its reason instead of any content.
    void showFailure(const QString& message);
    Page page() const;

    // The modal "Keep this chat?" alert, answered without blocking the event loop.
    QCoro::Task<DiscardQuestion::Answer> ask(DiscardQuestion question);

    SignInView* signInView() const { return m_signIn; }
    ChatSidebar* sidebar() const { return m_sidebar; }
    AccountStrip* accountStrip() const { return m_accountStrip; }
    Composer* composer() const { return m_composer; }
    TranscriptView* transcript() const { return m_transcript; }

Q_SIGNALS:
    void quitRequested();
    // The window was closed by the user; the app keeps running.
    void closed();

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void installShortcuts();
    void refreshPage();
    void bindChat();
    QCoro::Task<void> startNewChat();
    QCoro::Task<void> openChat(SavedChatSummary summary);
    QCoro::Task<void> saveChat();

    ApplicationModel* m_model = nullptr;
    bool m_started = false;
    QStackedWidget* m_pages;
    QLabel* m_failure;
    SignInView* m_signIn;
    ChatSidebar* m_sidebar;
    AccountStrip* m_accountStrip;
    QLabel* m_chatError;
    ModelSlotBar* m_slots;
    TranscriptView* m_transcript;
    AccessPanel* m_access = nullptr;
    Composer* m_composer;
    ApprovalSheet* m_approval;
    QWidget* m_chatPage;
};

} // namespace kestrolan

#pragma once

#include <QDialog>
#include <QPointer>
#include <QTimer>
#include <QUuid>
#include <memory>

class QLabel;
class QPushButton;

namespace kestrolan {

class ApprovalClock;
class ToolExecutor;

// Asks the user about the executor's pending approval: the operation and its target, the exact
// disclosure, a countdown to the automatic denial, "Allow once" and "Deny". Shows itself while
// an approval is pending and hides when it is answered. Escape, closing or the countdown
// running out deny.
class ApprovalSheet : public QDialog {
    Q_OBJECT

public:
    // `clock` must be the executor's approval clock (null: the system clock).
    explicit ApprovalSheet(std::shared_ptr<ApprovalClock> clock = nullptr,
                           QWidget* parent = nullptr);
    ~ApprovalSheet() override;

    void setExecutor(ToolExecutor* executor);

    // Seconds left before the pending approval is denied, as the countdown shows them.
    int secondsLeft() const;
    QString countdownText() const;
    // Reads the clock again and redraws the countdown (the sheet also does so every second).
    void tick();

    void done(int result) override;

private:
    void refresh();

    std::shared_ptr<ApprovalClock> m_clock;
    QPointer<ToolExecutor> m_executor;
    QMetaObject::Connection m_connection;
    QUuid m_shownID;
    QTimer m_ticker;

    QLabel* m_operation;
    QLabel* m_target;
    QLabel* m_disclosure;
    QLabel* m_note;
    QLabel* m_countdown;
    QPushButton* m_allow;
    QPushButton* m_deny;
};

} // namespace kestrolan

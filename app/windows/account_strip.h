#pragma once

#include <QWidget>

class QLabel;
class QPushButton;

namespace kestrolan {

class ApplicationModel;

// The signed-in account: e-mail, available balance (refreshed after every turn), Zero Data
// Retention when on, Save chat (disabled with its reason while saving is off) and Sign out.
class AccountStrip : public QWidget {
    Q_OBJECT

public:
    static QString zeroRetentionReason();

    explicit AccountStrip(QWidget* parent = nullptr);

    void setModel(ApplicationModel* model);
    QLabel* emailLabel() const { return m_email; }
    QLabel* balanceLabel() const { return m_balance; }
    QPushButton* saveButton() const { return m_save; }
    QPushButton* signOutButton() const { return m_signOut; }
    // Rebinds to the model's current chat (after it was replaced).
    void refresh();

Q_SIGNALS:
    void saveRequested();
    void signOutRequested();

private:
    ApplicationModel* m_model = nullptr;
    QMetaObject::Connection m_chatChanged;
    QLabel* m_email;
    QLabel* m_balance;
    QLabel* m_retention;
    QLabel* m_status;
    QPushButton* m_save;
    QPushButton* m_signOut;
};

} // namespace kestrolan

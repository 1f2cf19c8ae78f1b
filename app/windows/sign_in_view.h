#pragma once

#include <QWidget>

class QLabel;
class QPushButton;

namespace kestrolan {

class ApplicationModel;

// The signed-out screen: "Sign in" (focused, the default button) opens the browser; while the
// browser is out, a waiting line with Cancel; the last failure under it.
class SignInView : public QWidget {
    Q_OBJECT

public:
    explicit SignInView(QWidget* parent = nullptr);

    void setModel(ApplicationModel* model);
    QPushButton* signInButton() const { return m_signIn; }
    QPushButton* cancelButton() const { return m_cancel; }
    QString errorText() const;
    bool isWaiting() const;

protected:
    void showEvent(QShowEvent* event) override;

private:
    void refresh();

    ApplicationModel* m_model = nullptr;
    QLabel* m_waiting;
    QLabel* m_error;
    QPushButton* m_signIn;
    QPushButton* m_cancel;
};

} // namespace kestrolan

#include "windows/sign_in_view.h"

#include "account/desktop_auth.h"
#include "model/application_model.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace kestrolan {

SignInView::SignInView(QWidget* parent)
    : QWidget(parent)
    , m_waiting(new QLabel(QStringLiteral("Finish signing in in your browser."), this))
    , m_error(new QLabel(this))
    , m_signIn(new QPushButton(QStringLiteral("Sign in"), this))
    , m_cancel(new QPushButton(QStringLiteral("Cancel"), this)) {
    auto* title = new QLabel(QStringLiteral("Kestrolan"), this);
    QFont big = title->font();
    big.setPointSizeF(big.pointSizeF() * 2);
    big.setBold(true);
    title->setFont(big);
    auto* explanation =
        new QLabel(QStringLiteral("Sign in with your account to chat. Your browser opens to "
                                  "finish signing in."),
                   this);
    explanation->setWordWrap(true);
    // A wrapped label in a centred layout gets no width of its own and is cut off.
    explanation->setFixedWidth(explanation->fontMetrics().averageCharWidth() * 52);
    explanation->setAlignment(Qt::AlignCenter);
    explanation->setMinimumHeight(explanation->heightForWidth(explanation->width()));
    m_error->setWordWrap(true);
    m_error->setStyleSheet(QStringLiteral("color: #d33;"));
    m_error->setTextFormat(Qt::PlainText);
    m_error->setAccessibleDescription(QStringLiteral("Sign-in error"));
    m_signIn->setDefault(true);
    m_signIn->setAutoDefault(true);
    m_signIn->setAccessibleName(QStringLiteral("Sign in"));
    m_signIn->setMinimumWidth(m_signIn->fontMetrics().averageCharWidth() * 20);
    m_cancel->setAccessibleName(QStringLiteral("Cancel sign-in"));

    auto* layout = new QVBoxLayout(this);
    layout->setSpacing(12);
    layout->addStretch(1);
    for (QWidget* widget : {static_cast<QWidget*>(title), static_cast<QWidget*>(explanation),
                            static_cast<QWidget*>(m_signIn), static_cast<QWidget*>(m_waiting),
                            static_cast<QWidget*>(m_cancel), static_cast<QWidget*>(m_error)})
        layout->addWidget(widget, 0, Qt::AlignHCenter);
    layout->addStretch(2);

    connect(m_signIn, &QPushButton::clicked, this, [this] {
        if (m_model)
            m_model->signIn();
    });
    connect(m_cancel, &QPushButton::clicked, this, [this] {
        if (m_model)
            m_model->auth().cancelSignIn();
    });
    refresh();
}

void SignInView::setModel(ApplicationModel* model) {
    m_model = model;
    if (model) {
        connect(&model->auth(), &DesktopAuth::changed, this, &SignInView::refresh);
        connect(model, &ApplicationModel::stateChanged, this, &SignInView::refresh);
    }
    refresh();
}

QString SignInView::errorText() const {
    return m_error->text();
}

bool SignInView::isWaiting() const {
    return m_model && m_model->auth().isSigningIn();
}

void SignInView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    m_signIn->setFocus(Qt::OtherFocusReason);
}

void SignInView::refresh() {
    const bool waiting = isWaiting();
    m_waiting->setVisible(waiting);
    m_cancel->setVisible(waiting);
    m_signIn->setEnabled(m_model && !waiting);
    QString error;
    if (m_model) {
        if (const auto& own = m_model->errorMessage())
            error = *own;
        else if (const auto& auth = m_model->auth().errorMessage())
            error = *auth;
    }
    m_error->setText(error);
    m_error->setVisible(!error.isEmpty());
    if (!waiting && isVisible() && !m_signIn->hasFocus())
        m_signIn->setFocus(Qt::OtherFocusReason);
}

} // namespace kestrolan

#include "windows/application_delegate.h"

#include "model/app_logging.h"
#include "platform/color_scheme.h"
#include "platform/instance_socket.h"
#include "windows/main_window.h"

#include <QApplication>
#include <QTimer>

namespace kestrolan {

ApplicationDelegate::ApplicationDelegate(InstanceSocket& socket, ApplicationModel::Parts parts,
                                         QObject* parent)
    : QObject(parent)
    , m_socket(socket)
    , m_parts(std::move(parts))
    , m_window(std::make_unique<MainWindow>())
    , m_colors(new ColorScheme(this)) {
    connect(&m_socket, &InstanceSocket::urlReceived, this, &ApplicationDelegate::openURL);
    connect(&m_socket, &InstanceSocket::activationRequested, this, &ApplicationDelegate::reopen);
    connect(m_window.get(), &MainWindow::quitRequested, this, [this] { auto t = terminate(); });
    connect(m_window.get(), &MainWindow::closed, this,
            [] { qCInfo(lifecycleLog, "Main window closed; app remains running"); });
}

ApplicationDelegate::~ApplicationDelegate() = default;

void ApplicationDelegate::launch() {
    m_window->show();
    // Everything slow (the keyring, the network) waits until the window is on screen.
    QTimer::singleShot(0, this, [this] {
        m_colors->start();
        buildModel();
    });
}

void ApplicationDelegate::buildModel() {
    ApplicationModel::Parts parts = std::move(m_parts);
    if (!parts.askToDiscard)
        parts.askToDiscard = [window = m_window.get()](DiscardQuestion question) {
            return window->ask(std::move(question));
        };
    m_state.build(std::move(parts));
    ApplicationModel* model = m_state.model();
    if (!model) {
        m_window->showFailure(m_state.errorMessage().value_or(QString()));
        return;
    }
    m_window->setModel(model);
    connect(model, &ApplicationModel::showChatRequested, this, &ApplicationDelegate::reopen);
    auto started = model->start();
    for (const QUrl& url : std::exchange(m_pendingURLs, {}))
        auto handled = model->handleURL(url);
}

void ApplicationDelegate::openURL(const QUrl& url) {
    ApplicationModel* model = m_state.model();
    if (!model) {
        m_pendingURLs.append(url);
        return;
    }
    auto handled = model->handleURL(url);
    reopen();
}

void ApplicationDelegate::reopen() {
    m_window->show();
    m_window->raise();
    m_window->activateWindow();
}

QCoro::Task<void> ApplicationDelegate::terminate() {
    if (m_isTerminating)
        co_return;
    m_isTerminating = true;
    if (ApplicationModel* model = m_state.model()) {
        reopen();
        const bool mayQuit = co_await model->prepareToTerminate();
        if (!mayQuit) {
            m_isTerminating = false;
            co_return;
        }
    }
    QCoreApplication::quit();
}

} // namespace kestrolan

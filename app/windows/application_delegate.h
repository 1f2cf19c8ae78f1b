#pragma once

#include "model/app_state.h"

#include <QCoroTask>
#include <QList>
#include <QObject>
#include <QUrl>
#include <memory>

namespace kestrolan {

class ColorScheme;
class InstanceSocket;
class MainWindow;

// Ties the app to its process: shows the window first and builds the model after it is up,
// passes URLs from the instance socket to sign-in (queued until the model exists), raises the
// window when `kestrolan` is started again, and quits only through prepareToTerminate().
class ApplicationDelegate : public QObject {
    Q_OBJECT

public:
    ApplicationDelegate(InstanceSocket& socket, ApplicationModel::Parts parts,
                        QObject* parent = nullptr);
    ~ApplicationDelegate() override;

    // Shows the main window, then builds the model on the next turn of the event loop.
    void launch();
    void openURL(const QUrl& url);
    void reopen();
    // Quits unless the user keeps the unsaved chat.
    QCoro::Task<void> terminate();

    AppState& state() { return m_state; }
    MainWindow& window() const { return *m_window; }

private:
    void buildModel();

    InstanceSocket& m_socket;
    ApplicationModel::Parts m_parts;
    AppState m_state;
    std::unique_ptr<MainWindow> m_window;
    ColorScheme* m_colors;
    QList<QUrl> m_pendingURLs;
    bool m_isTerminating = false;
};

} // namespace kestrolan

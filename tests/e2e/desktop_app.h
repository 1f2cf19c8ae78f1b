#pragma once

#include "accessibility_reader.h"

#include <QProcess>
#include <QTemporaryDir>
#include <chrono>
#include <functional>

namespace kestrolan::test {

// The desktop app as a real process on the test's display, signed in through a browser
// stand-in: an `xdg-open` first on PATH that follows the authorize page's redirect with curl
// and starts `kestrolan CALLBACK`, which hands the callback to the running app as the desktop's
// URL handler would. Input is typed with xdotool; what the app shows is read through `reader`,
// which must exist before start().
class DesktopApp {
public:
    DesktopApp(const AccessibilityReader& reader, QString baseURL);
    ~DesktopApp();
    DesktopApp(const DesktopApp&) = delete;
    DesktopApp& operator=(const DesktopApp&) = delete;

    // Starts the app with `environment` added and waits for its main window.
    void start(const QProcessEnvironment& environment = {});
    // Waits for the app to exit; its exit code, -1 when it crashed or is still running.
    int waitForExit();
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }
    QProcess& process() { return m_process; }

    // Polls `condition` until it holds or `limit` has passed.
    static bool waitUntil(const std::function<bool()>& condition,
                          std::chrono::milliseconds limit = std::chrono::seconds(60));

    // The showing object named `name` (and of `role`, when given) in any of the app's windows.
    std::optional<AccessibleNode> find(const QString& name, const QString& role = {}) const;
    // Waits for that object; fails the test with the app's tree when it never shows.
    AccessibleNode waitFor(const QString& name, const QString& role = {});
    // The text a label or field named `name` shows; empty when it is not showing.
    QString textOf(const QString& name) const;
    // The names of every showing object of `role`, in tree order.
    QStringList namesWithRole(const QString& role) const;
    // Every showing object's role, name and text, one per line, indented by depth.
    QString dump() const;

    // Gives the X input focus to the app's window titled `title`, as clicking on it would.
    void focusWindow(const QString& title);
    // Moves the keyboard focus to the object named `name` in the focused window (not a combo
    // box: Tab to it from a neighbour).
    void focus(const QString& name, const QString& role = {});
    // xdotool key names, e.g. "ctrl+s", "shift+Return".
    void key(const QString& keys);
    // Types `text`; each "\n" is Shift+Return, a new line in the message box.
    void type(const QString& text);

    const QString& log();

private:
    const AccessibilityReader& m_reader;
    QString m_baseURL;
    QTemporaryDir m_scratch;
    QProcess m_process;
    QString m_log;
};

} // namespace kestrolan::test

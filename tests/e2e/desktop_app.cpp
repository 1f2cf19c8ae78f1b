#include "desktop_app.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QRegularExpression>
#include <QThread>
#include <gtest/gtest.h>

namespace kestrolan::test {

namespace {

bool xdotool(const QStringList& arguments) {
    QProcess process;
    process.start(QStringLiteral("xdotool"), arguments);
    if (!process.waitForFinished(30'000)) {
        process.kill();
        process.waitForFinished();
        ADD_FAILURE() << "xdotool " << arguments.join(u' ').toStdString() << " did not finish";
        return false;
    }
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

} // namespace

DesktopApp::DesktopApp(const AccessibilityReader& reader, QString baseURL)
    : m_reader(reader)
    , m_baseURL(std::move(baseURL)) {
    // The browser: the service approves at once (--auto-approve), so following the redirect
    // yields the app's callback; the desktop would then run the app's URL handler with it.
    QFile browser(m_scratch.filePath(QStringLiteral("xdg-open")));
    if (!browser.open(QIODevice::WriteOnly))
        qFatal("cannot write the browser stand-in");
    browser.write("#!/bin/sh\n"
                  "callback=$(curl -s -o /dev/null -w '%{redirect_url}' \"$1\") || exit 1\n"
                  "[ -n \"$callback\" ] || exit 1\n"
                  "exec '" KESTROLAN_APP_PATH "' \"$callback\"\n");
    browser.close();
    browser.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    m_process.setProcessChannelMode(QProcess::MergedChannels);
}

DesktopApp::~DesktopApp() {
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(10'000))
        m_process.kill();
    m_process.waitForFinished();
}

void DesktopApp::start(const QProcessEnvironment& environment) {
    auto env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("KESTROLAN_BASE_URL"), m_baseURL);
    env.insert(QStringLiteral("PATH"), m_scratch.path() + u':' + env.value(QStringLiteral("PATH")));
    env.insert(environment);
    m_process.setProcessEnvironment(env);
    m_process.start(QStringLiteral(KESTROLAN_APP_PATH), QStringList());
    ASSERT_TRUE(m_process.waitForStarted(30'000));
    ASSERT_TRUE(waitUntil([this] {
        return find(QStringLiteral("Kestrolan"), QStringLiteral("frame")).has_value();
    })) << log().toStdString();
}

int DesktopApp::waitForExit() {
    waitUntil([this] { return m_process.state() == QProcess::NotRunning; });
    if (m_process.state() != QProcess::NotRunning || m_process.exitStatus() != QProcess::NormalExit)
        return -1;
    return m_process.exitCode();
}

bool DesktopApp::waitUntil(const std::function<bool()>& condition,
                           std::chrono::milliseconds limit) {
    const QDeadlineTimer deadline(limit);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents();
        QThread::msleep(50);
    }
    return true;
}

std::optional<AccessibleNode> DesktopApp::find(const QString& name, const QString& role) const {
    const auto root = m_reader.application(m_process.processId());
    if (!root)
        return std::nullopt;
    return m_reader.findNamed(*root, name, role);
}

AccessibleNode DesktopApp::waitFor(const QString& name, const QString& role) {
    std::optional<AccessibleNode> node;
    if (!waitUntil([&] { return (node = find(name, role)).has_value(); })) {
        ADD_FAILURE() << "\"" << name.toStdString() << "\" never showed; the app shows:\n"
                      << dump().toStdString() << "\nits output:\n"
                      << log().toStdString();
        return {};
    }
    return *node;
}

QString DesktopApp::textOf(const QString& name) const {
    const auto node = find(name);
    return node ? m_reader.text(*node) : QString();
}

QStringList DesktopApp::namesWithRole(const QString& role) const {
    const auto root = m_reader.application(m_process.processId());
    return root ? m_reader.namesWithRole(*root, role) : QStringList();
}

QString DesktopApp::dump() const {
    QString out;
    const auto root = m_reader.application(m_process.processId());
    if (!root)
        return out;
    for (const auto& seen : m_reader.showing(*root)) {
        out += QString(seen.depth * 2, u' ') + seen.role + u" \"" + seen.name + u'"';
        if (const QString text = m_reader.text(seen.node); !text.isEmpty())
            out += u" text=\"" + text + u'"';
        out += u'\n';
    }
    return out;
}

void DesktopApp::focusWindow(const QString& title) {
    // Xvfb runs no window manager: the input focus goes where xdotool puts it.
    EXPECT_TRUE(waitUntil([&] {
        return xdotool({QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                        QStringLiteral("--name"), u'^' + QRegularExpression::escape(title) + u'$',
                        QStringLiteral("windowfocus"), QStringLiteral("--sync")});
    })) << "no window titled "
        << title.toStdString();
}

void DesktopApp::focus(const QString& name, const QString& role) {
    EXPECT_TRUE(m_reader.grabFocus(waitFor(name, role)))
        << "\"" << name.toStdString() << "\" takes no focus";
}

void DesktopApp::key(const QString& keys) {
    EXPECT_TRUE(
        xdotool({QStringLiteral("key"), QStringLiteral("--delay"), QStringLiteral("30"), keys}));
}

void DesktopApp::type(const QString& text) {
    const auto lines = text.split(u'\n');
    for (qsizetype i = 0; i < lines.size(); ++i) {
        if (i > 0)
            key(QStringLiteral("shift+Return"));
        if (!lines[i].isEmpty()) {
            EXPECT_TRUE(xdotool({QStringLiteral("type"), QStringLiteral("--delay"),
                                 QStringLiteral("5"), lines[i]}));
        }
    }
}

const QString& DesktopApp::log() {
    m_log += QString::fromUtf8(m_process.readAll());
    return m_log;
}

} // namespace kestrolan::test

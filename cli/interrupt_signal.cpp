#include "interrupt_signal.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace kestrolan::cli {
namespace {

std::atomic<int> writeEnd{-1};
std::atomic<bool> pending{false};
struct sigaction previous {};

void onInterrupt(int) {
    if (pending.exchange(true))
        ::_exit(130);
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(writeEnd.load(), &byte, 1);
}

} // namespace

InterruptSignal::InterruptSignal(QObject* parent)
    : QObject(parent) {
    if (::pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("cannot make the interrupt pipe");
    writeEnd = m_pipe[1];
    pending = false;
    m_notifier = std::make_unique<QSocketNotifier>(m_pipe[0], QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, [this] {
        char bytes[64];
        while (::read(m_pipe[0], bytes, sizeof bytes) > 0) {
        }
        Q_EMIT interrupted();
    });
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, &previous);
}

InterruptSignal::~InterruptSignal() {
    ::sigaction(SIGINT, &previous, nullptr);
    m_notifier.reset();
    writeEnd = -1;
    ::close(m_pipe[0]);
    ::close(m_pipe[1]);
}

void InterruptSignal::rearm() {
    pending = false;
}

} // namespace kestrolan::cli

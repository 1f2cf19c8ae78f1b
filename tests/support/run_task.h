#pragma once

#include <QCoroTask>
#include <QTimer>
#include <QtGlobal>

#include <chrono>

namespace kestrolan::test {

// Runs a coroutine to completion on the current thread's event loop. A coroutine that never
// finishes aborts the test binary with a message instead of hanging ctest.
template <typename T>
T runTask(QCoro::Task<T> task, std::chrono::milliseconds watchdog = std::chrono::seconds(30))
{
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout,
                     [] { qFatal("watchdog: the coroutine under test did not finish in time"); });
    timer.start(watchdog);
    return QCoro::waitFor(std::move(task));
}

// Spins the event loop until `done()` holds; aborts like runTask when it never does.
template <typename Predicate>
void runUntil(Predicate done, std::chrono::milliseconds watchdog = std::chrono::seconds(30))
{
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout,
                     [] { qFatal("watchdog: the awaited condition never held"); });
    timer.start(watchdog);
    while (!done())
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 10);
}

} // namespace kestrolan::test

#pragma once

#include <QCoreApplication>
#include <QCoroTask>
#include <QEventLoop>
#include <QTimer>
#include <QtGlobal>
#include <chrono>
#include <exception>
#include <optional>

namespace kestrolan::test {

namespace detail {

template <typename T>
struct TaskOutcome {
    QEventLoop loop;
    bool done = false;
    std::exception_ptr error;
    std::optional<T> value;
};

template <>
struct TaskOutcome<void> {
    QEventLoop loop;
    bool done = false;
    std::exception_ptr error;
};

// The outcome outlives this coroutine: runTask waits for `done` before returning.
template <typename T>
QCoro::Task<void> drive(QCoro::Task<T> task, TaskOutcome<T>* outcome) {
    try {
        if constexpr (std::is_void_v<T>)
            co_await task;
        else
            outcome->value.emplace(co_await task);
    } catch (...) {
        outcome->error = std::current_exception();
    }
    outcome->done = true;
    outcome->loop.quit();
}

} // namespace detail

// Runs a coroutine to completion on the current thread's event loop and returns its value or
// rethrows its exception. A coroutine that never finishes aborts the test binary with a message
// instead of hanging ctest.
template <typename T>
T runTask(QCoro::Task<T> task, std::chrono::milliseconds watchdog = std::chrono::seconds(30)) {
    detail::TaskOutcome<T> outcome;
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout,
                     [] { qFatal("watchdog: the coroutine under test did not finish in time"); });
    timer.start(watchdog);
    auto driver = detail::drive(std::move(task), &outcome);
    if (!outcome.done)
        outcome.loop.exec();
    if (outcome.error)
        std::rethrow_exception(outcome.error);
    if constexpr (!std::is_void_v<T>)
        return std::move(*outcome.value);
}

// Spins the event loop until `done()` holds; aborts like runTask when it never does.
template <typename Predicate>
void runUntil(Predicate done, std::chrono::milliseconds watchdog = std::chrono::seconds(30)) {
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout,
                     [] { qFatal("watchdog: the awaited condition never held"); });
    timer.start(watchdog);
    while (!done())
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 10);
}

} // namespace kestrolan::test

#include "platform/system_keychain_access.h"

#include "service/client_error.h"

#include <QTimer>
#include <coroutine>
#include <deque>
#include <functional>
#include <memory>
#include <qt6keychain/keychain.h>

namespace kestrolan {

namespace {

struct Outcome {
    QKeychain::Error error = QKeychain::NoError;
    QByteArray data;
    bool timedOut = false;
};

// One keychain call, from its submission to its outcome. Shared by the awaiting caller and the
// queue, which keeps it while its job runs even when the caller has given up.
struct Call {
    std::function<QKeychain::Job*()> makeJob;
    bool reads = false;
    QTimer deadline;
    std::optional<Outcome> outcome;
    std::coroutine_handle<> waiter;
};

// QtKeychain runs its jobs one at a time in a queue of its own that cannot be inspected, so a
// job that has timed out could not be told from one still waiting. This queue hands a job to
// QtKeychain only when none is outstanding, so that a call timing out before its turn never
// starts. A running job cannot be taken back (the Secret Service library holds a pointer to
// it), so it is left to finish on its own.
class JobQueue {
public:
    static JobQueue& instance() {
        static JobQueue queue;
        return queue;
    }

    void submit(const std::shared_ptr<Call>& call, std::chrono::milliseconds timeout) {
        call->deadline.setSingleShot(true);
        QObject::connect(&call->deadline, &QTimer::timeout, &m_context,
                         [this, weak = std::weak_ptr<Call>(call)] {
                             if (const auto expired = weak.lock())
                                 complete(*expired, Outcome{.timedOut = true});
                         });
        call->deadline.start(timeout);
        m_waiting.push_back(call);
        startNext();
    }

private:
    void startNext() {
        while (!m_running && !m_waiting.empty()) {
            auto call = std::move(m_waiting.front());
            m_waiting.pop_front();
            if (call->outcome)
                continue; // ran out of time while waiting: never reaches the keyring
            m_running = true;
            QKeychain::Job* job = call->makeJob();
            QObject::connect(
                job, &QKeychain::Job::finished, &m_context, [this, call](QKeychain::Job* finished) {
                    Outcome outcome{.error = finished->error()};
                    if (call->reads)
                        outcome.data =
                            static_cast<QKeychain::ReadPasswordJob*>(finished)->binaryData();
                    complete(*call, std::move(outcome));
                    m_running = false;
                    startNext();
                });
            job->start();
        }
    }

    void complete(Call& call, Outcome outcome) {
        if (call.outcome)
            return; // a late answer to a call that already timed out
        call.deadline.stop();
        call.outcome = std::move(outcome);
        if (const auto waiter = std::exchange(call.waiter, nullptr))
            QMetaObject::invokeMethod(
                &m_context, [waiter] { waiter.resume(); }, Qt::QueuedConnection);
    }

    QObject m_context;
    std::deque<std::shared_ptr<Call>> m_waiting;
    bool m_running = false;
};

struct CallAwaiter {
    std::shared_ptr<Call> call;

    bool await_ready() const { return call->outcome.has_value(); }
    void await_suspend(std::coroutine_handle<> waiter) { call->waiter = waiter; }
    Outcome await_resume() const { return *call->outcome; }
};

CallAwaiter run(std::function<QKeychain::Job*()> makeJob, bool reads,
                std::chrono::milliseconds timeout) {
    auto call = std::make_shared<Call>();
    call->makeJob = std::move(makeJob);
    call->reads = reads;
    JobQueue::instance().submit(call, timeout);
    return CallAwaiter{std::move(call)};
}

void throwOnFailure(const Outcome& outcome) {
    if (outcome.timedOut)
        throw ClientError::keychain(SystemKeychainAccess::timedOutStatus);
    if (outcome.error != QKeychain::NoError)
        throw ClientError::keychain(static_cast<qint32>(outcome.error));
}

// The jobs are made outside the coroutines below: GCC 12 mishandles lambdas that capture a
// coroutine's parameters by copy.
CallAwaiter readCall(const QString& service, const QString& account,
                     std::chrono::milliseconds timeout) {
    return run(
        [service, account]() -> QKeychain::Job* {
            auto* job = new QKeychain::ReadPasswordJob(service);
            job->setKey(account);
            return job;
        },
        true, timeout);
}

CallAwaiter writeCall(const QByteArray& data, const QString& service, const QString& account,
                      std::chrono::milliseconds timeout) {
    // Always binary: an entry stored once as text and once as binary would be two entries.
    return run(
        [data, service, account]() -> QKeychain::Job* {
            auto* job = new QKeychain::WritePasswordJob(service);
            job->setKey(account);
            job->setBinaryData(data);
            return job;
        },
        false, timeout);
}

CallAwaiter removeCall(const QString& service, const QString& account,
                       std::chrono::milliseconds timeout) {
    return run(
        [service, account]() -> QKeychain::Job* {
            auto* job = new QKeychain::DeletePasswordJob(service);
            job->setKey(account);
            return job;
        },
        false, timeout);
}

} // namespace

SystemKeychainAccess::SystemKeychainAccess(std::chrono::milliseconds timeout)
    : m_timeout(timeout) {}

QCoro::Task<std::optional<QByteArray>> SystemKeychainAccess::read(QString service,
                                                                  QString account) {
    const auto outcome = co_await readCall(service, account, m_timeout);
    if (!outcome.timedOut && outcome.error == QKeychain::EntryNotFound)
        co_return std::nullopt;
    throwOnFailure(outcome);
    std::optional<QByteArray> data = outcome.data;
    co_return data;
}

QCoro::Task<void> SystemKeychainAccess::write(QByteArray data, QString service, QString account) {
    const auto outcome = co_await writeCall(data, service, account, m_timeout);
    throwOnFailure(outcome);
}

QCoro::Task<void> SystemKeychainAccess::remove(QString service, QString account) {
    const auto outcome = co_await removeCall(service, account, m_timeout);
    if (!outcome.timedOut && outcome.error == QKeychain::EntryNotFound)
        co_return;
    throwOnFailure(outcome);
}

} // namespace kestrolan

#pragma once

#include "storage/encrypted_local_storage.h"
#include "storage/local_privacy_error.h"

#include <QCoroFuture>
#include <QCoroTask>
#include <QFuture>
#include <QString>
#include <QThreadPool>
#include <QtConcurrent>
#include <exception>
#include <mutex>
#include <optional>
#include <type_traits>
#include <variant>

namespace kestrolan {

// One local store's serial queue: its jobs run one at a time on a thread of their own, each
// under the exclusive advisory lock of the account's ".storage-lock" file, which every store of
// the account and every process share. Without storage (in-memory mode) jobs get nullptr and no
// lock. Once closed, the queue refuses new jobs with LocalPrivacyError(unavailable).
class LocalStoreQueue {
public:
    template <class F>
    using Result = std::invoke_result_t<F&, EncryptedLocalStorage*>;

    // `label` names the queue, e.g. "org.kestrolan.mac.projects".
    LocalStoreQueue(QString label, std::optional<EncryptedLocalStorage> storage);
    // Waits for the job under way and those queued.
    ~LocalStoreQueue();
    LocalStoreQueue(const LocalStoreQueue&) = delete;
    LocalStoreQueue& operator=(const LocalStoreQueue&) = delete;

    const QString& label() const { return m_label; }
    const std::optional<EncryptedLocalStorage>& storage() const { return m_storage; }

    // Runs `job` on the queue under the lock; its result or exception reaches the awaiter, on
    // the awaiting thread.
    template <class F>
    QCoro::Task<Result<F>> run(F job) {
        return awaitOutcome<Result<F>>(submit(std::move(job)));
    }

    // The same for a thread that may block (never the queue's own thread, and never the main
    // thread while a job needs it, see KeychainLocalKeyStore).
    template <class F>
    Result<F> runBlocking(F job) {
        QFuture<Outcome<Result<F>>> future = submit(std::move(job));
        return unwrap<Result<F>>(future.result());
    }

    // Refuses new work from now on and finishes once the work already queued is done.
    QCoro::Task<void> close();
    bool isClosed() const;

private:
    // What a job left behind; QtConcurrent would otherwise wrap its exception.
    template <class R>
    using Outcome =
        std::variant<std::conditional_t<std::is_void_v<R>, std::monostate, R>, std::exception_ptr>;

    // Holds the account's storage lock while it lives.
    class AccountLock {
    public:
        explicit AccountLock(const EncryptedLocalStorage& storage);
        ~AccountLock();
        AccountLock(const AccountLock&) = delete;
        AccountLock& operator=(const AccountLock&) = delete;

    private:
        int m_fd;
    };

    template <class F>
    QFuture<Outcome<Result<F>>> submit(F job) {
        using R = Result<F>;
        std::lock_guard guard(m_mutex);
        if (m_closed)
            return QtFuture::makeReadyFuture(Outcome<R>(
                std::make_exception_ptr(LocalPrivacyError(LocalPrivacyError::Kind::unavailable))));
        return QtConcurrent::run(
            &m_pool, [this, job = std::move(job)]() mutable { return execute<F>(job); });
    }

    template <class F>
    Outcome<Result<F>> execute(F& job) {
        using R = Result<F>;
        try {
            std::optional<AccountLock> lock;
            EncryptedLocalStorage* storage = nullptr;
            if (m_storage) {
                lock.emplace(*m_storage);
                storage = &*m_storage;
            }
            if constexpr (std::is_void_v<R>) {
                job(storage);
                return Outcome<R>(std::monostate{});
            } else {
                return Outcome<R>(std::in_place_index<0>, job(storage));
            }
        } catch (...) {
            return Outcome<R>(std::current_exception());
        }
    }

    template <class R>
    static R unwrap(Outcome<R> outcome) {
        if (auto* error = std::get_if<std::exception_ptr>(&outcome))
            std::rethrow_exception(*error);
        if constexpr (!std::is_void_v<R>)
            return std::get<0>(std::move(outcome));
    }

    template <class R>
    static QCoro::Task<R> awaitOutcome(QFuture<Outcome<R>> future) {
        Outcome<R> outcome = co_await future;
        if constexpr (std::is_void_v<R>)
            unwrap<R>(std::move(outcome));
        else {
            R value = unwrap<R>(std::move(outcome));
            co_return value;
        }
    }

    QString m_label;
    std::optional<EncryptedLocalStorage> m_storage;
    mutable std::mutex m_mutex;
    bool m_closed = false;
    QThreadPool m_pool;
};

} // namespace kestrolan

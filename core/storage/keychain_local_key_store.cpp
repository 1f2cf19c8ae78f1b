#include "storage/keychain_local_key_store.h"

#include "platform/system_keychain_access.h"
#include "storage/key_cache.h"
#include "storage/local_account_context.h"
#include "storage/local_privacy_error.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QPointer>
#include <QThread>
#include <condition_variable>
#include <functional>
#include <openssl/rand.h>

namespace kestrolan {

namespace {

LocalPrivacyError unavailable() {
    return LocalPrivacyError(LocalPrivacyError::Kind::unavailable);
}

// One secret-store call made on the main thread for a caller that waits for it.
struct Call {
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    std::optional<QByteArray> value;
    std::exception_ptr error;
    QPointer<QEventLoop> loop;
};

using Operation = std::function<QCoro::Task<std::optional<QByteArray>>(KeychainAccess&)>;

QCoro::Task<void> drive(std::shared_ptr<KeychainAccess> access, Operation operation,
                        std::shared_ptr<Call> call) {
    std::optional<QByteArray> value;
    std::exception_ptr error;
    try {
        value = co_await operation(*access);
    } catch (...) {
        error = std::current_exception();
    }
    {
        std::lock_guard guard(call->mutex);
        call->value = std::move(value);
        call->error = error;
        call->done = true;
    }
    call->finished.notify_all();
    if (call->loop)
        call->loop->quit();
}

// Waits for the call's own time-out and a little more; past that the main thread is not
// serving the event loop and the secret store counts as unavailable.
constexpr auto mainThreadGrace = std::chrono::seconds(5);

std::optional<QByteArray> callOnMainThread(const std::shared_ptr<KeychainAccess>& access,
                                           Operation operation) {
    QCoreApplication* app = QCoreApplication::instance();
    if (app == nullptr)
        throw unavailable();
    auto call = std::make_shared<Call>();
    if (QThread::currentThread() == app->thread()) {
        QEventLoop loop;
        call->loop = &loop;
        auto task = drive(access, std::move(operation), call);
        if (!call->done)
            loop.exec();
    } else {
        QMetaObject::invokeMethod(
            app,
            [access, operation = std::move(operation), call]() mutable {
                // The task runs on by itself; `call` carries its outcome.
                drive(access, std::move(operation), call);
            },
            Qt::QueuedConnection);
        std::unique_lock held(call->mutex);
        const auto limit = SystemKeychainAccess::defaultTimeout + mainThreadGrace;
        if (!call->finished.wait_for(held, limit, [&] { return call->done; }))
            throw unavailable();
    }
    if (call->error)
        throw unavailable();
    return call->value;
}

std::optional<QByteArray> readKey(const std::shared_ptr<KeychainAccess>& access,
                                  const QString& account) {
    return callOnMainThread(access, [account](KeychainAccess& store) {
        return store.read(QString(KeychainLocalKeyStore::service), account);
    });
}

QCoro::Task<std::optional<QByteArray>> writeThenNothing(KeychainAccess& store, QByteArray data,
                                                        QString account) {
    co_await store.write(data, QString(KeychainLocalKeyStore::service), account);
    co_return std::nullopt;
}

QCoro::Task<std::optional<QByteArray>> removeThenNothing(KeychainAccess& store, QString account) {
    co_await store.remove(QString(KeychainLocalKeyStore::service), account);
    co_return std::nullopt;
}

QByteArray checkedKey(const QByteArray& key) {
    if (key.size() != LocalKeyStore::keyLength)
        throw unavailable();
    return key;
}

} // namespace

KeychainLocalKeyStore::KeychainLocalKeyStore(std::shared_ptr<KeychainAccess> access)
    : m_access(access ? std::move(access) : std::make_shared<SystemKeychainAccess>()) {}

QByteArray KeychainLocalKeyStore::key(const LocalAccountContext& context, bool create) const {
    const QString storageID = context.storageID();
    KeyCache& cache = KeyCache::shared();
    const auto held = cache.lock();
    if (auto key = cache.cached(storageID))
        return *key;

    if (const auto found = readKey(m_access, storageID)) {
        const QByteArray key = checkedKey(*found);
        cache.store(storageID, key);
        return key;
    }
    if (!create)
        throw unavailable();

    QByteArray fresh(keyLength, Qt::Uninitialized);
    if (RAND_bytes(reinterpret_cast<unsigned char*>(fresh.data()), int(fresh.size())) != 1)
        throw unavailable();
    callOnMainThread(m_access, [fresh, storageID](KeychainAccess& store) {
        return writeThenNothing(store, fresh, storageID);
    });
    // The Secret Service replaces rather than refusing a duplicate, so the entry is read back:
    // when another writer's key landed after ours, theirs is the one that stays and is used.
    const auto stored = readKey(m_access, storageID);
    if (!stored)
        throw unavailable();
    const QByteArray key = checkedKey(*stored);
    cache.store(storageID, key);
    return key;
}

void KeychainLocalKeyStore::deleteKey(const LocalAccountContext& context) const {
    const QString storageID = context.storageID();
    KeyCache& cache = KeyCache::shared();
    const auto held = cache.lock();
    cache.drop(storageID);
    callOnMainThread(m_access, [storageID](KeychainAccess& store) {
        return removeThenNothing(store, storageID);
    });
}

} // namespace kestrolan

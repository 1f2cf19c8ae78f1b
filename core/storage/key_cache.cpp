#include "storage/key_cache.h"

#include <QCoreApplication>
#include <QThread>
#include <chrono>

namespace kestrolan {

KeyCache& KeyCache::shared() {
    static KeyCache cache;
    return cache;
}

std::unique_lock<std::timed_mutex> KeyCache::lock() {
    const QCoreApplication* app = QCoreApplication::instance();
    if (app == nullptr || QThread::currentThread() != app->thread())
        return std::unique_lock(m_mutex);
    std::unique_lock held(m_mutex, std::defer_lock);
    while (!held.try_lock_for(std::chrono::milliseconds(5)))
        QCoreApplication::processEvents();
    return held;
}

std::optional<QByteArray> KeyCache::cached(const QString& storageID) const {
    const auto found = m_keys.constFind(storageID);
    if (found == m_keys.constEnd())
        return std::nullopt;
    return *found;
}

void KeyCache::store(const QString& storageID, const QByteArray& key) {
    m_keys.insert(storageID, key);
}

void KeyCache::drop(const QString& storageID) {
    m_keys.remove(storageID);
}

} // namespace kestrolan

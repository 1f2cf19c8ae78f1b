#include "storage/local_store_queue.h"

#include <QByteArray>
#include <QFile>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace kestrolan {

LocalStoreQueue::LocalStoreQueue(QString label, std::optional<EncryptedLocalStorage> storage)
    : m_label(std::move(label))
    , m_storage(std::move(storage)) {
    m_pool.setMaxThreadCount(1);
    m_pool.setObjectName(m_label);
}

LocalStoreQueue::~LocalStoreQueue() {
    m_pool.waitForDone();
}

QCoro::Task<void> LocalStoreQueue::close() {
    {
        std::lock_guard guard(m_mutex);
        m_closed = true;
    }
    // The queue is serial: once this empty job has run, everything queued before it has too.
    co_await QtConcurrent::run(&m_pool, [] {});
}

bool LocalStoreQueue::isClosed() const {
    std::lock_guard guard(m_mutex);
    return m_closed;
}

LocalStoreQueue::AccountLock::AccountLock(const EncryptedLocalStorage& storage)
    : m_fd(-1) {
    EncryptedLocalStorage::prepareDirectory(storage.accountDirectory());
    m_fd = ::open(QFile::encodeName(storage.lockFilePath()).constData(),
                  O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (m_fd < 0)
        throw LocalPrivacyError(LocalPrivacyError::Kind::unavailable);
    while (::flock(m_fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            ::close(m_fd);
            throw LocalPrivacyError(LocalPrivacyError::Kind::unavailable);
        }
    }
}

LocalStoreQueue::AccountLock::~AccountLock() {
    ::flock(m_fd, LOCK_UN);
    ::close(m_fd);
}

} // namespace kestrolan

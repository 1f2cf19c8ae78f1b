#pragma once

#include <QtGlobal>
#include <cerrno>
#include <unistd.h>
#include <utility>

namespace kestrolan {

// Owns one file descriptor and closes it.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd)
        : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept
        : m_fd(std::exchange(other.m_fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return m_fd; }
    bool isValid() const { return m_fd >= 0; }
    // Reads until end of file or until `capacity` bytes are in, retrying interrupted reads.
    // Returns the bytes read, or -1 with errno set.
    qsizetype readAll(char* into, qsizetype capacity) const {
        qsizetype length = 0;
        while (length < capacity) {
            const ssize_t count = ::read(m_fd, into + length, size_t(capacity - length));
            if (count < 0 && errno == EINTR)
                continue;
            if (count < 0)
                return -1;
            if (count == 0)
                break;
            length += count;
        }
        return length;
    }
    void reset() {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd = -1;
};

} // namespace kestrolan

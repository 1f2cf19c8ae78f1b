#include "workspace/file_digest.h"

#include "tools/harness_error.h"
#include "tools/operation_cancellation.h"
#include "workspace/workspace_file_error.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <openssl/evp.h>
#include <unistd.h>

namespace kestrolan {

namespace {

// Small enough to stay in cache between the kernel's copy and the hash.
constexpr size_t blockBytes = 256 * 1024;

struct DigestDeleter {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

QByteArray hex(const unsigned char* digest, unsigned length) {
    return QByteArray(reinterpret_cast<const char*>(digest), length).toHex();
}

} // namespace

QByteArray FileDigest::ofFile(int fd, qint64 sizeHint, const OperationCancellation& cancellation,
                              const std::function<void(QByteArrayView)>& consume) {
    if (sizeHint > maxBytes)
        throw HarnessError(HarnessError::Kind::limit);
    std::unique_ptr<EVP_MD_CTX, DigestDeleter> context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1)
        throw WorkspaceFileError(WorkspaceFileError::Kind::ioFailure);
    const auto buffer = std::make_unique_for_overwrite<char[]>(blockBytes);
    qint64 total = 0;
    for (;;) {
        cancellation.check();
        const ssize_t got = ::pread(fd, buffer.get(), blockBytes, total);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw WorkspaceFileError::fromErrno(errno);
        if (got == 0)
            break;
        // Checked as it is read: the file may have grown since its size was taken.
        total += got;
        if (total > maxBytes)
            throw HarnessError(HarnessError::Kind::limit);
        if (EVP_DigestUpdate(context.get(), buffer.get(), size_t(got)) != 1)
            throw WorkspaceFileError(WorkspaceFileError::Kind::ioFailure);
        if (consume)
            consume(QByteArrayView(buffer.get(), got));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest, &length) != 1)
        throw WorkspaceFileError(WorkspaceFileError::Kind::ioFailure);
    return hex(digest, length);
}

QByteArray FileDigest::of(QByteArrayView bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (EVP_Digest(bytes.data(), size_t(bytes.size()), digest, &length, EVP_sha256(), nullptr) != 1)
        throw WorkspaceFileError(WorkspaceFileError::Kind::ioFailure);
    return hex(digest, length);
}

bool FileDigest::looksBinary(QByteArrayView bytes) {
    const qsizetype probe = qMin(bytes.size(), binaryProbeBytes);
    return probe > 0 && std::memchr(bytes.data(), 0, size_t(probe)) != nullptr;
}

} // namespace kestrolan

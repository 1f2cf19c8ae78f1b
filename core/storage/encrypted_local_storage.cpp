#include "storage/encrypted_local_storage.h"

#include "storage/local_key_store.h"
#include "storage/local_privacy_error.h"
#include "support/unique_fd.h"
#include "support/uuid_text.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QUuid>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace kestrolan {

namespace {

using Kind = LocalPrivacyError::Kind;

constexpr int nonceLength = 12;
constexpr int tagLength = 16;

[[noreturn]] void fail(Kind kind) {
    throw LocalPrivacyError(kind);
}

QByteArray encoded(const QString& path) {
    return QFile::encodeName(path);
}

// Letters, marks and numbers count as alphanumeric, as in the usual Unicode sense.
bool isAllowedInRecordName(char32_t c) {
    if (c == U'-' || c == U'.' || c == U'_')
        return true;
    switch (QChar::category(c)) {
    case QChar::Letter_Uppercase:
    case QChar::Letter_Lowercase:
    case QChar::Letter_Titlecase:
    case QChar::Letter_Modifier:
    case QChar::Letter_Other:
    case QChar::Mark_NonSpacing:
    case QChar::Mark_SpacingCombining:
    case QChar::Mark_Enclosing:
    case QChar::Number_DecimalDigit:
    case QChar::Number_Letter:
    case QChar::Number_Other:
        return true;
    default:
        return false;
    }
}

bool isValidRecordName(const QString& record) {
    if (record.isEmpty() || record.startsWith(u'.'))
        return false;
    if (record.toUtf8().size() > EncryptedLocalStorage::maximumRecordNameBytes)
        return false;
    for (qsizetype i = 0; i < record.size(); ++i) {
        const QChar unit = record.at(i);
        char32_t c = unit.unicode();
        if (unit.isHighSurrogate() && i + 1 < record.size() && record.at(i + 1).isLowSurrogate()) {
            c = QChar::surrogateToUcs4(unit, record.at(i + 1));
            ++i;
        } else if (unit.isSurrogate()) {
            return false;
        }
        if (!isAllowedInRecordName(c))
            return false;
    }
    return true;
}

QString joined(const QString& directory, const QString& name) {
    if (directory.endsWith(u'/'))
        return directory + name;
    return directory + u'/' + name;
}

// Names of the sealed records in `directory`; nothing when it does not exist.
QStringList sealedFileNames(const QString& directory) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(encoded(directory).constData()), &::closedir);
    if (!dir) {
        if (errno == ENOENT)
            return {};
        fail(Kind::unavailable);
    }
    QStringList names;
    errno = 0;
    while (const dirent* entry = ::readdir(dir.get())) {
        const QString name = QFile::decodeName(entry->d_name);
        if (name.endsWith(EncryptedLocalStorage::recordSuffix))
            names.append(name);
        errno = 0;
    }
    if (errno != 0)
        fail(Kind::unavailable);
    return names;
}

struct CipherContext {
    CipherContext()
        : context(EVP_CIPHER_CTX_new()) {
        if (context == nullptr)
            fail(Kind::unavailable);
    }
    ~CipherContext() { EVP_CIPHER_CTX_free(context); }
    CipherContext(const CipherContext&) = delete;
    CipherContext& operator=(const CipherContext&) = delete;

    EVP_CIPHER_CTX* context;
};

auto bytes(const QByteArray& data) {
    return reinterpret_cast<const unsigned char*>(data.constData());
}

// nonce || ciphertext || tag of `plaintext`.
QByteArray seal(const QByteArray& plaintext, const QByteArray& key, const QByteArray& aad) {
    QByteArray box(plaintext.size() + EncryptedLocalStorage::sealOverhead, Qt::Uninitialized);
    auto* out = reinterpret_cast<unsigned char*>(box.data());
    if (RAND_bytes(out, nonceLength) != 1)
        fail(Kind::unavailable);
    CipherContext cipher;
    int length = 0;
    bool ok =
        EVP_EncryptInit_ex(cipher.context, EVP_aes_256_gcm(), nullptr, nullptr, nullptr) == 1 &&
        EVP_CIPHER_CTX_ctrl(cipher.context, EVP_CTRL_GCM_SET_IVLEN, nonceLength, nullptr) == 1 &&
        EVP_EncryptInit_ex(cipher.context, nullptr, nullptr, bytes(key), out) == 1 &&
        EVP_EncryptUpdate(cipher.context, nullptr, &length, bytes(aad), int(aad.size())) == 1;
    // EVP lengths are int: feed a large record in pieces.
    qsizetype done = 0;
    constexpr qsizetype piece = 1 << 30;
    while (ok && done < plaintext.size()) {
        const int count = int(std::min(piece, plaintext.size() - done));
        ok = EVP_EncryptUpdate(cipher.context, out + nonceLength + done, &length,
                               bytes(plaintext) + done, count) == 1 &&
             length == count;
        done += count;
    }
    ok = ok && EVP_EncryptFinal_ex(cipher.context, out + nonceLength + done, &length) == 1 &&
         EVP_CIPHER_CTX_ctrl(cipher.context, EVP_CTRL_GCM_GET_TAG, tagLength,
                             out + nonceLength + done) == 1;
    if (!ok)
        fail(Kind::unavailable);
    return box;
}

// Opens `sealed` (ciphertext || tag, the nonce apart) in place: on success it holds the
// plaintext. Any failure is corrupt.
void unseal(const unsigned char* nonce, QByteArray& sealed, const QByteArray& key,
            const QByteArray& aad) {
    if (sealed.size() < tagLength)
        fail(Kind::corrupt);
    const qsizetype textLength = sealed.size() - tagLength;
    auto* data = reinterpret_cast<unsigned char*>(sealed.data());
    CipherContext cipher;
    int length = 0;
    bool ok =
        EVP_DecryptInit_ex(cipher.context, EVP_aes_256_gcm(), nullptr, nullptr, nullptr) == 1 &&
        EVP_CIPHER_CTX_ctrl(cipher.context, EVP_CTRL_GCM_SET_IVLEN, nonceLength, nullptr) == 1 &&
        EVP_DecryptInit_ex(cipher.context, nullptr, nullptr, bytes(key), nonce) == 1 &&
        EVP_DecryptUpdate(cipher.context, nullptr, &length, bytes(aad), int(aad.size())) == 1;
    qsizetype done = 0;
    constexpr qsizetype piece = 1 << 30;
    while (ok && done < textLength) {
        const int count = int(std::min(piece, textLength - done));
        ok = EVP_DecryptUpdate(cipher.context, data + done, &length, data + done, count) == 1 &&
             length == count;
        done += count;
    }
    ok = ok &&
         EVP_CIPHER_CTX_ctrl(cipher.context, EVP_CTRL_GCM_SET_TAG, tagLength, data + textLength) ==
             1 &&
         EVP_DecryptFinal_ex(cipher.context, data + textLength, &length) == 1;
    if (!ok) {
        // Never hand out a partly decrypted record.
        sealed.fill('\0');
        fail(Kind::corrupt);
    }
    sealed.truncate(textLength);
}

bool writeAll(int fd, const QByteArray& data) {
    qsizetype written = 0;
    while (written < data.size()) {
        const ssize_t count =
            ::write(fd, data.constData() + written, size_t(data.size() - written));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        written += count;
    }
    return true;
}

bool fsyncDirectory(const QString& directory) {
    const UniqueFd fd(
        ::open(encoded(directory).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.isValid())
        return false;
    while (::fsync(fd.get()) != 0) {
        if (errno != EINTR)
            return false;
    }
    return true;
}

} // namespace

EncryptedLocalStorage::EncryptedLocalStorage(QString root, LocalAccountContext context,
                                             std::shared_ptr<const LocalKeyStore> keys)
    : m_root(std::move(root))
    , m_context(std::move(context))
    , m_keys(std::move(keys)) {}

QString EncryptedLocalStorage::defaultRoot() {
    QString data = qEnvironmentVariable("XDG_DATA_HOME");
    if (data.isEmpty() || !QDir::isAbsolutePath(data))
        data = QDir::homePath() + QStringLiteral("/.local/share");
    return joined(data, QStringLiteral("Kestrolan/Local"));
}

QString EncryptedLocalStorage::accountDirectory() const {
    return joined(m_root, m_context.storageID());
}

QString EncryptedLocalStorage::lockFilePath() const {
    return joined(accountDirectory(), lockFileName);
}

QString EncryptedLocalStorage::url(const QString& record) const {
    if (!isValidRecordName(record))
        fail(Kind::invalidRecord);
    return joined(accountDirectory(), record + recordSuffix);
}

QByteArray EncryptedLocalStorage::associatedData(const QString& record) const {
    return QStringLiteral("kestrolan-local\n1\n%1\n%2\n%3")
        .arg(m_context.origin(), uuidText(m_context.accountID()).toLower(), record)
        .toUtf8();
}

std::optional<QByteArray> EncryptedLocalStorage::read(const QString& record) const {
    const QString path = url(record);
    checkPath(accountDirectory());
    const QByteArray nativePath = encoded(path);

    struct stat status {};
    if (::lstat(nativePath.constData(), &status) != 0) {
        if (errno == ENOENT)
            return std::nullopt;
        fail(Kind::unavailable);
    }
    const auto acceptable = [](const struct stat& s) {
        return S_ISREG(s.st_mode) && s.st_nlink == 1 && s.st_size <= maximumFileBytes;
    };
    if (!acceptable(status))
        fail(Kind::corrupt);

    // No-follow and non-blocking, and the checks again on what was opened: the name may have
    // been swapped for a link or a pipe in between.
    const UniqueFd fd(
        ::open(nativePath.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!fd.isValid()) {
        if (errno == ELOOP)
            fail(Kind::corrupt);
        fail(Kind::unavailable);
    }
    struct stat opened {};
    if (::fstat(fd.get(), &opened) != 0)
        fail(Kind::unavailable);
    if (!acceptable(opened) || opened.st_ino != status.st_ino || opened.st_dev != status.st_dev)
        fail(Kind::corrupt);
    if (opened.st_size < sealOverhead)
        fail(Kind::corrupt);

    unsigned char nonce[nonceLength];
    if (fd.readAll(reinterpret_cast<char*>(nonce), nonceLength) != nonceLength)
        fail(Kind::unavailable);
    QByteArray sealed(opened.st_size - nonceLength, Qt::Uninitialized);
    const qsizetype count = fd.readAll(sealed.data(), sealed.size());
    if (count < 0)
        fail(Kind::unavailable);
    char extra = 0;
    if (count != sealed.size() || fd.readAll(&extra, 1) != 0)
        fail(Kind::corrupt);

    const QByteArray key = m_keys->key(m_context, false);
    if (key.size() != LocalKeyStore::keyLength)
        fail(Kind::unavailable);
    unseal(nonce, sealed, key, associatedData(record));
    return sealed;
}

void EncryptedLocalStorage::write(const QByteArray& plaintext, const QString& record) const {
    if (plaintext.size() > maximumRecordBytes)
        fail(Kind::quotaExceeded);
    const QString path = url(record);
    const QString directory = accountDirectory();
    prepareDirectory(directory);

    // The quota counts every sealed record after this write: the new size of this one, the
    // present size of the others.
    const QString replaced = record + recordSuffix;
    qint64 total = plaintext.size() + sealOverhead;
    for (const QString& name : sealedFileNames(directory)) {
        if (name == replaced)
            continue;
        struct stat status {};
        if (::lstat(encoded(joined(directory, name)).constData(), &status) != 0 ||
            status.st_size < 0 || status.st_size > quotaBytes - total)
            fail(Kind::quotaExceeded);
        total += status.st_size;
    }
    if (total > quotaBytes)
        fail(Kind::quotaExceeded);

    // A key is made only for an account without sealed records: a lost key is never replaced
    // while records still depend on it.
    const bool create = sealedFileNames(directory).isEmpty();
    const QByteArray key = m_keys->key(m_context, create);
    if (key.size() != LocalKeyStore::keyLength)
        fail(Kind::unavailable);
    const QByteArray box = seal(plaintext, key, associatedData(record));

    const QString temporary = joined(
        directory, u'.' + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() + u".tmp");
    const QByteArray nativeTemporary = encoded(temporary);
    UniqueFd fd(::open(nativeTemporary.constData(),
                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.isValid())
        fail(Kind::unavailable);
    bool ok = writeAll(fd.get(), box);
    while (ok && ::fsync(fd.get()) != 0)
        ok = errno == EINTR;
    ok = ok && ::rename(nativeTemporary.constData(), encoded(path).constData()) == 0;
    if (!ok) {
        fd.reset();
        ::unlink(nativeTemporary.constData());
        fail(Kind::unavailable);
    }
    fd.reset();
    // The new name itself must survive a power cut, not only the bytes behind it.
    if (!fsyncDirectory(directory))
        fail(Kind::unavailable);
}

void EncryptedLocalStorage::remove(const QString& record) const {
    const QString path = url(record);
    checkPath(accountDirectory());
    if (::unlink(encoded(path).constData()) != 0 && errno != ENOENT)
        fail(Kind::unavailable);
}

void EncryptedLocalStorage::forget() const {
    const QString directory = accountDirectory();
    checkPath(directory);
    std::error_code error;
    // remove_all never follows a symbolic link; it removes the link.
    std::filesystem::remove_all(std::filesystem::path(encoded(directory).toStdString()), error);
    if (error)
        fail(Kind::unavailable);
    m_keys->deleteKey(m_context);
}

bool EncryptedLocalStorage::hasSealedRecords() const {
    const QString directory = accountDirectory();
    checkPath(directory);
    return !sealedFileNames(directory).isEmpty();
}

std::optional<QJsonDocument> EncryptedLocalStorage::readDocument(const QString& record) const {
    const auto plaintext = read(record);
    if (!plaintext)
        return std::nullopt;
    QJsonParseError error{};
    QJsonDocument document = QJsonDocument::fromJson(*plaintext, &error);
    if (error.error != QJsonParseError::NoError || document.isNull())
        fail(Kind::corrupt);
    return document;
}

void EncryptedLocalStorage::writeDocument(const QJsonDocument& document,
                                          const QString& record) const {
    // QJsonObject keeps its keys sorted, so compact output has sorted keys.
    write(document.toJson(QJsonDocument::Compact), record);
}

void EncryptedLocalStorage::checkPath(const QString& path) {
    const QStringList components = path.split(u'/', Qt::SkipEmptyParts);
    // Also past a missing component: the rest of the path is about to be created.
    if (components.contains(u"."_s) || components.contains(u".."_s))
        fail(Kind::unavailable);
    QString prefix = path.startsWith(u'/') ? QStringLiteral("/") : QString();
    for (const QString& component : components) {
        prefix = prefix.isEmpty() ? component : joined(prefix, component);
        struct stat status {};
        if (::lstat(encoded(prefix).constData(), &status) != 0) {
            if (errno == ENOENT)
                return;
            fail(Kind::unavailable);
        }
        if (!S_ISDIR(status.st_mode))
            fail(Kind::unavailable);
    }
}

void EncryptedLocalStorage::prepareDirectory(const QString& path) {
    checkPath(path);
    QString prefix = path.startsWith(u'/') ? QStringLiteral("/") : QString();
    for (const QString& component : path.split(u'/', Qt::SkipEmptyParts)) {
        prefix = prefix.isEmpty() ? component : joined(prefix, component);
        const QByteArray native = encoded(prefix);
        if (::mkdir(native.constData(), 0700) == 0)
            continue;
        struct stat status {};
        if (errno != EEXIST || ::lstat(native.constData(), &status) != 0 ||
            !S_ISDIR(status.st_mode))
            fail(Kind::unavailable);
    }
    if (path.isEmpty() || ::chmod(encoded(path).constData(), 0700) != 0)
        fail(Kind::unavailable);
}

} // namespace kestrolan

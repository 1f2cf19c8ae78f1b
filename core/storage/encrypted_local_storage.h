#pragma once

#include "storage/local_account_context.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QString>
#include <memory>
#include <optional>

namespace kestrolan {

class LocalKeyStore;

// One account's sealed records on disk: root/<storageID>/<record>.krenc, each the AES-256-GCM
// box (nonce, ciphertext, tag) of one whole record, bound by its associated data to the origin,
// the account and the record name, so a file moved to another name or account does not open.
// The records of an account share a 50 MiB quota.
//
// Every operation blocks and throws LocalPrivacyError. Callers run them on their store's serial
// queue under the account's storage lock (LocalStoreQueue); a value of this type holds no state
// of its own beyond where the records live and whose key seals them.
class EncryptedLocalStorage {
public:
    static constexpr qint64 maximumRecordBytes = 52'428'800;
    static constexpr qint64 quotaBytes = 52'428'800;
    static constexpr qint64 maximumFileBytes = 52'428'864;
    // Nonce and tag around the ciphertext, which is as long as the plaintext.
    static constexpr qint64 sealOverhead = 28;
    static constexpr qsizetype maximumRecordNameBytes = 100;
    static constexpr auto recordSuffix = QLatin1StringView(".krenc");
    static constexpr auto lockFileName = QLatin1StringView(".storage-lock");

    EncryptedLocalStorage(QString root, LocalAccountContext context,
                          std::shared_ptr<const LocalKeyStore> keys);

    // $XDG_DATA_HOME/Kestrolan/Local, else ~/.local/share/Kestrolan/Local.
    static QString defaultRoot();

    const QString& root() const { return m_root; }
    const LocalAccountContext& context() const { return m_context; }
    const std::shared_ptr<const LocalKeyStore>& keys() const { return m_keys; }
    // root/<storageID>
    QString accountDirectory() const;
    // accountDirectory/.storage-lock
    QString lockFilePath() const;

    // The record's file path. Throws invalidRecord unless the name is 1 to 100 UTF-8 bytes of
    // letters, digits, "-", "." and "_" not starting with ".".
    QString url(const QString& record) const;

    // The record's plaintext, nothing when it was never written (or was removed).
    std::optional<QByteArray> read(const QString& record) const;
    // Replaces the record whole: the old file stays intact until the new one is on disk.
    void write(const QByteArray& plaintext, const QString& record) const;
    void remove(const QString& record) const;
    // Removes the account directory and the account's key.
    void forget() const;
    // True when the account directory holds a sealed record.
    bool hasSealedRecords() const;

    // Records as JSON: written compact with sorted keys; a plaintext that is not a JSON object
    // or array reads as corrupt.
    std::optional<QJsonDocument> readDocument(const QString& record) const;
    void writeDocument(const QJsonDocument& document, const QString& record) const;

    // Refuses (unavailable) a path with a "." or ".." component, or whose existing prefix has a
    // component that is not a real directory (a symbolic link included). A missing tail is fine.
    static void checkPath(const QString& path);
    // checkPath, then creates the directory and its parents, and makes it 0700 even when it
    // already existed. Failure: unavailable.
    static void prepareDirectory(const QString& path);

private:
    QByteArray associatedData(const QString& record) const;

    QString m_root;
    LocalAccountContext m_context;
    std::shared_ptr<const LocalKeyStore> m_keys;
};

} // namespace kestrolan

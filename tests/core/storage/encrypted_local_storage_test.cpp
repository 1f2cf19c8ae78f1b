#include "memory_local_key_store.h"
#include "qstring_printer.h"
#include "storage/encrypted_local_storage.h"
#include "storage/local_privacy_error.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QTemporaryDir>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;
using Kind = LocalPrivacyError::Kind;

namespace {

const QUuid alice = QUuid::fromString(u"3f2504e0-4f89-41d3-9a0c-0305e82c3301"_s);
const QUuid bob = QUuid::fromString(u"6ba7b810-9dad-11d1-80b4-00c04fd430c8"_s);

LocalAccountContext contextOf(const QString& origin, const QUuid& account) {
    return LocalAccountContext::make(QUrl(origin), account);
}

std::optional<Kind> failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const LocalPrivacyError& error) {
        return error.kind();
    }
    return std::nullopt;
}

QByteArray fileBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// One key for every account, so that only the associated data tells records apart.
class OneKeyForAll final : public LocalKeyStore {
public:
    QByteArray key(const LocalAccountContext&, bool) const override {
        return QByteArray(keyLength, '\x5a');
    }
    void deleteKey(const LocalAccountContext&) const override {}
};

mode_t modeOf(const QString& path) {
    struct stat status {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return 0;
    return status.st_mode & 07777;
}

class EncryptedLocalStorageTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(temporary.isValid()); }

    EncryptedLocalStorage storageFor(const LocalAccountContext& context) const {
        return {root(), context, keys};
    }
    QString root() const { return temporary.filePath(u"Kestrolan/Local"_s); }
    // Names in the account directory, lock and temporary files included.
    QStringList entries(const EncryptedLocalStorage& of) const {
        return QDir(of.accountDirectory())
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                       QDir::Name);
    }

    QTemporaryDir temporary;
    std::shared_ptr<MemoryLocalKeyStore> keys = std::make_shared<MemoryLocalKeyStore>();
    LocalAccountContext aliceContext = contextOf(u"https://api.example.com"_s, alice);
    EncryptedLocalStorage storage = storageFor(aliceContext);
};

} // namespace

TEST_F(EncryptedLocalStorageTest, SealsRecordsOnePrivateFileEach) {
    EXPECT_EQ(storage.read(u"projects"_s), std::nullopt);
    EXPECT_FALSE(storage.hasSealedRecords());

    const QByteArray value = R"({"a":1,"name":"Résumé"})";
    storage.write(value, u"projects"_s);
    EXPECT_EQ(storage.read(u"projects"_s), value);
    EXPECT_TRUE(storage.hasSealedRecords());

    const QString file = storage.url(u"projects"_s);
    EXPECT_EQ(file, root() + u'/' + aliceContext.storageID() + u"/projects.krenc");
    const QByteArray sealed = fileBytes(file);
    EXPECT_EQ(sealed.size(), value.size() + 28);
    EXPECT_FALSE(sealed.contains("Résumé"));
    EXPECT_EQ(modeOf(file), 0600u);
    EXPECT_EQ(modeOf(storage.accountDirectory()), 0700u);
    EXPECT_EQ(modeOf(root()), 0700u);

    // A fresh nonce for every write: the same value never gives the same file twice.
    storage.write(value, u"projects"_s);
    EXPECT_NE(fileBytes(file), sealed);
    EXPECT_EQ(storage.read(u"projects"_s), value);

    // An empty record is a record.
    storage.write({}, u"empty"_s);
    EXPECT_EQ(storage.read(u"empty"_s), QByteArray());
    EXPECT_EQ(fileBytes(storage.url(u"empty"_s)).size(), 28);

    storage.remove(u"projects"_s);
    storage.remove(u"projects"_s);
    EXPECT_EQ(storage.read(u"projects"_s), std::nullopt);
    EXPECT_EQ(entries(storage), QStringList{u"empty.krenc"_s});
    EXPECT_EQ(keys->created, 1);
}

TEST_F(EncryptedLocalStorageTest, RecordNamesAreCheckedBeforeAnythingIsTouched) {
    const QString hundred = u"aZ0-._"_s.repeated(16) + u"abcd"_s;
    ASSERT_EQ(hundred.toUtf8().size(), 100);
    storage.write("1", hundred);
    EXPECT_EQ(storage.read(hundred), "1");
    // Letters of any script count, and length is counted in UTF-8 bytes.
    storage.write("2", u"é"_s.repeated(50));
    EXPECT_EQ(storage.read(u"é"_s.repeated(50)), "2");
    storage.write("3", u"日本語"_s);
    EXPECT_EQ(storage.read(u"日本語"_s), "3");

    const QStringList refused = {
        QString(),
        u".hidden"_s,
        u"a/b"_s,
        u"a b"_s,
        u"../x"_s,
        u".."_s,
        u"a\\b"_s,
        hundred + u"e"_s,
        u"é"_s.repeated(50) + u"e"_s,
        u"tab\t"_s,
        u"x:y"_s,
        u"emoji😀"_s,
        QString(QChar(0xD800)),
    };
    for (const QString& name : refused) {
        SCOPED_TRACE(name.toStdString());
        EXPECT_EQ(failureOf([&] { storage.url(name); }), Kind::invalidRecord);
        EXPECT_EQ(failureOf([&] { storage.write("x", name); }), Kind::invalidRecord);
        EXPECT_EQ(failureOf([&] { (void)storage.read(name); }), Kind::invalidRecord);
        EXPECT_EQ(failureOf([&] { storage.remove(name); }), Kind::invalidRecord);
    }
    EXPECT_EQ(entries(storage).size(), 3);
}

TEST_F(EncryptedLocalStorageTest, ARecordOnlyOpensUnderItsOwnNameAccountAndOrigin) {
    const auto oneKey = std::make_shared<OneKeyForAll>();
    const EncryptedLocalStorage aliceStorage(root(), aliceContext, oneKey);
    const EncryptedLocalStorage bobStorage(root(), contextOf(u"https://api.example.com"_s, bob),
                                           oneKey);
    const EncryptedLocalStorage elsewhereStorage(
        root(), contextOf(u"https://other.example.com"_s, alice), oneKey);
    aliceStorage.write(R"({"v":"alice"})", u"agents"_s);
    bobStorage.write(R"({"v":"bob"})", u"agents"_s);
    elsewhereStorage.write(R"({"v":"elsewhere"})", u"agents"_s);
    const QByteArray sealed = fileBytes(aliceStorage.url(u"agents"_s));

    const auto plant = [](const QString& path, const QByteArray& bytes) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(bytes);
    };
    const auto readFails = [](const EncryptedLocalStorage& from, const QString& record) {
        return failureOf([&] { (void)from.read(record); });
    };
    // Moved under another name in the same account.
    ASSERT_TRUE(QFile::rename(aliceStorage.url(u"agents"_s), aliceStorage.url(u"projects"_s)));
    EXPECT_EQ(readFails(aliceStorage, u"projects"_s), Kind::corrupt);
    // Copied over another account's record, or over the same account's on another origin.
    plant(bobStorage.url(u"agents"_s), sealed);
    EXPECT_EQ(readFails(bobStorage, u"agents"_s), Kind::corrupt);
    plant(elsewhereStorage.url(u"agents"_s), sealed);
    EXPECT_EQ(readFails(elsewhereStorage, u"agents"_s), Kind::corrupt);

    // Tampering anywhere (nonce, text, tag) and truncation fail; the file stays on disk.
    for (const qsizetype at : {qsizetype(0), qsizetype(14), sealed.size() - 1}) {
        QByteArray tampered = sealed;
        tampered[at] = char(tampered[at] ^ 0x01);
        plant(aliceStorage.url(u"agents"_s), tampered);
        EXPECT_EQ(readFails(aliceStorage, u"agents"_s), Kind::corrupt) << at;
    }
    for (const qsizetype length : {qsizetype(0), qsizetype(27), sealed.size() - 1}) {
        plant(aliceStorage.url(u"agents"_s), sealed.left(length));
        EXPECT_EQ(readFails(aliceStorage, u"agents"_s), Kind::corrupt) << length;
    }
    plant(aliceStorage.url(u"agents"_s), sealed + "x");
    EXPECT_EQ(readFails(aliceStorage, u"agents"_s), Kind::corrupt);
    EXPECT_TRUE(QFile::exists(aliceStorage.url(u"agents"_s)));

    plant(aliceStorage.url(u"agents"_s), sealed);
    EXPECT_EQ(aliceStorage.read(u"agents"_s), R"({"v":"alice"})");

    // Under a key of its own, another account cannot open Alice's file either.
    plant(storageFor(bobStorage.context()).url(u"agents"_s),
          fileBytes(aliceStorage.url(u"agents"_s)));
    EXPECT_EQ(readFails(storageFor(bobStorage.context()), u"agents"_s), Kind::unavailable);
}

TEST_F(EncryptedLocalStorageTest, LinksAndOtherFileKindsReadCorrupt) {
    storage.write("original", u"a"_s);
    storage.write("other", u"b"_s);
    const QString a = storage.url(u"a"_s);
    const QString b = storage.url(u"b"_s);

    // A second hard link makes both names suspect.
    const QString outside = temporary.filePath(u"outside.krenc"_s);
    ASSERT_EQ(::link(QFile::encodeName(a).constData(), QFile::encodeName(outside).constData()), 0);
    EXPECT_EQ(failureOf([&] { (void)storage.read(u"a"_s); }), Kind::corrupt);
    ASSERT_TRUE(QFile::remove(outside));
    EXPECT_EQ(storage.read(u"a"_s), "original");

    // A symbolic link to a perfectly good record of the same name.
    ASSERT_TRUE(QFile::rename(b, outside));
    ASSERT_TRUE(QFile::link(outside, b));
    EXPECT_EQ(failureOf([&] { (void)storage.read(u"b"_s); }), Kind::corrupt);
    ASSERT_TRUE(QFile::remove(b));

    // A pipe must neither block the read nor pass.
    ASSERT_EQ(::mkfifo(QFile::encodeName(b).constData(), 0600), 0);
    EXPECT_EQ(failureOf([&] { (void)storage.read(u"b"_s); }), Kind::corrupt);
    ASSERT_TRUE(QFile::remove(b));
    ASSERT_TRUE(QDir().mkdir(b));
    EXPECT_EQ(failureOf([&] { (void)storage.read(u"b"_s); }), Kind::corrupt);
}

TEST_F(EncryptedLocalStorageTest, QuotaCountsEverySealedFileAfterTheWrite) {
    constexpr qint64 quota = 52'428'800;
    // Syncing 50 MiB files to disk again and again only makes the test slow.
    QTemporaryDir inMemory(u"/dev/shm/kestrolan-storage-XXXXXX"_s);
    if (inMemory.isValid())
        storage = EncryptedLocalStorage(inMemory.path(), aliceContext, keys);
    // The largest record alone: its file is exactly the quota.
    const QByteArray largest(quota - 28, 'x');
    storage.write(largest, u"big"_s);
    // Rewriting it counts its new size, not old and new together.
    storage.write(largest, u"big"_s);
    EXPECT_EQ(QFileInfo(storage.url(u"big"_s)).size(), quota);
    // An empty record elsewhere would go one file (28 bytes) over.
    EXPECT_EQ(failureOf([&] { storage.write({}, u"small"_s); }), Kind::quotaExceeded);
    storage.write("y", u"big"_s);
    storage.write({}, u"small"_s);

    // Two records filling the quota to the byte, then one byte too many.
    storage.write(QByteArray(quota - 28 - 28 - 1 - 28, 'z'), u"third"_s);
    EXPECT_EQ(failureOf([&] { storage.write("yy", u"big"_s); }), Kind::quotaExceeded);
    EXPECT_EQ(storage.read(u"big"_s), "y");
    EXPECT_EQ(storage.read(u"small"_s), QByteArray());

    // A plaintext over 50 MiB is refused before anything else, as is one that only the file
    // overhead puts over the quota.
    EXPECT_EQ(failureOf([&] { storage.write(QByteArray(quota + 1, 'x'), u"other"_s); }),
              Kind::quotaExceeded);
    storage.remove(u"third"_s);
    storage.remove(u"small"_s);
    EXPECT_EQ(failureOf([&] { storage.write(QByteArray(quota - 27, 'x'), u"big"_s); }),
              Kind::quotaExceeded);
    EXPECT_EQ(storage.read(u"big"_s), "y");

    // Other files in the folder (a leftover temporary, the lock) do not count.
    QFile leftover(storage.accountDirectory() + u"/.leftover.tmp"_s);
    ASSERT_TRUE(leftover.open(QIODevice::WriteOnly));
    leftover.write(QByteArray(1024, 'l'));
    leftover.close();
    storage.write(largest, u"big"_s);
    EXPECT_EQ(entries(storage), (QStringList{u".leftover.tmp"_s, u"big.krenc"_s}));
}

TEST_F(EncryptedLocalStorageTest, ALostKeyIsNeverReplacedWhileSealedFilesRemain) {
    storage.write("sealed", u"a"_s);
    const QByteArray before = fileBytes(storage.url(u"a"_s));
    keys->deleteKey(aliceContext);

    EXPECT_EQ(failureOf([&] { (void)storage.read(u"a"_s); }), Kind::unavailable);
    EXPECT_EQ(failureOf([&] { storage.write("new", u"a"_s); }), Kind::unavailable);
    EXPECT_EQ(failureOf([&] { storage.write("new", u"b"_s); }), Kind::unavailable);
    EXPECT_FALSE(keys->hasKey(aliceContext));
    EXPECT_EQ(keys->created, 1);
    EXPECT_EQ(fileBytes(storage.url(u"a"_s)), before);
    EXPECT_EQ(entries(storage), QStringList{u"a.krenc"_s});

    // Once nothing depends on the old key, a new one may be made.
    storage.remove(u"a"_s);
    storage.write("fresh", u"b"_s);
    EXPECT_EQ(keys->created, 2);
    EXPECT_EQ(storage.read(u"b"_s), "fresh");
}

TEST_F(EncryptedLocalStorageTest, AFailedWriteLeavesTheOldRecordAndNoTemporaryFile) {
    storage.write("old", u"a"_s);
    // The rename cannot replace a non-empty directory: the failure comes after the temporary
    // file was written and synced.
    ASSERT_TRUE(QDir().mkpath(storage.url(u"blocked"_s) + u"/inside"_s));
    EXPECT_EQ(failureOf([&] { storage.write("new", u"blocked"_s); }), Kind::unavailable);
    EXPECT_EQ(entries(storage), (QStringList{u"a.krenc"_s, u"blocked.krenc"_s}));

    // A key store that refuses leaves nothing behind either.
    keys->refuseAll = true;
    const EncryptedLocalStorage bobStorage =
        storageFor(contextOf(u"https://api.example.com"_s, bob));
    EXPECT_EQ(failureOf([&] { bobStorage.write("x", u"a"_s); }), Kind::unavailable);
    EXPECT_TRUE(entries(bobStorage).isEmpty());
    EXPECT_EQ(storage.read(u"a"_s), "old");
}

TEST_F(EncryptedLocalStorageTest, PathsThroughLinksOrFilesAreRefused) {
    // A missing tail is fine; "." and ".." never are.
    EncryptedLocalStorage::checkPath(temporary.filePath(u"not/yet/there"_s));
    for (const QString& path :
         QStringList{temporary.filePath(u"a/../b"_s), temporary.filePath(u"./b"_s),
                     temporary.path() + u"/x/."_s}) {
        SCOPED_TRACE(path.toStdString());
        EXPECT_EQ(failureOf([&] { EncryptedLocalStorage::checkPath(path); }), Kind::unavailable);
        EXPECT_EQ(failureOf([&] { EncryptedLocalStorage::prepareDirectory(path); }),
                  Kind::unavailable);
    }

    // The root reached through a symbolic link: nothing is read or written through it.
    const QString real = temporary.filePath(u"real"_s);
    ASSERT_TRUE(QDir().mkpath(real));
    ASSERT_TRUE(QFile::link(real, temporary.filePath(u"linked"_s)));
    const EncryptedLocalStorage linked(temporary.filePath(u"linked/Local"_s), aliceContext, keys);
    EXPECT_EQ(failureOf([&] { linked.write("x", u"a"_s); }), Kind::unavailable);
    EXPECT_EQ(failureOf([&] { (void)linked.read(u"a"_s); }), Kind::unavailable);
    EXPECT_EQ(failureOf([&] { linked.forget(); }), Kind::unavailable);
    EXPECT_TRUE(QDir(real).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));

    // The account directory replaced by a link to another account's directory.
    storage.write("alice", u"a"_s);
    const EncryptedLocalStorage bobStorage =
        storageFor(contextOf(u"https://api.example.com"_s, bob));
    ASSERT_TRUE(QFile::link(storage.accountDirectory(), bobStorage.accountDirectory()));
    EXPECT_EQ(failureOf([&] { (void)bobStorage.read(u"a"_s); }), Kind::unavailable);

    // A file where a directory belongs.
    QFile file(temporary.filePath(u"file"_s));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();
    const EncryptedLocalStorage underFile(temporary.filePath(u"file/Local"_s), aliceContext, keys);
    EXPECT_EQ(failureOf([&] { underFile.write("x", u"a"_s); }), Kind::unavailable);

    // A loose folder is tightened; missing parents are made private.
    const QString loose = temporary.filePath(u"loose"_s);
    ASSERT_TRUE(QDir().mkpath(loose));
    ASSERT_EQ(::chmod(QFile::encodeName(loose).constData(), 0755), 0);
    EncryptedLocalStorage::prepareDirectory(loose);
    EXPECT_EQ(modeOf(loose), 0700u);
    EncryptedLocalStorage::prepareDirectory(loose + u"/one/two/"_s);
    EXPECT_EQ(modeOf(loose + u"/one"_s), 0700u);
    EXPECT_EQ(modeOf(loose + u"/one/two"_s), 0700u);
}

TEST_F(EncryptedLocalStorageTest, ForgetRemovesOneAccountAndItsKey) {
    const LocalAccountContext bobContext = contextOf(u"https://api.example.com"_s, bob);
    const EncryptedLocalStorage bobStorage = storageFor(bobContext);
    storage.write("alice", u"a"_s);
    bobStorage.write("bob", u"a"_s);
    QFile lock(storage.lockFilePath());
    ASSERT_TRUE(lock.open(QIODevice::WriteOnly));
    lock.close();

    storage.forget();
    EXPECT_FALSE(QFileInfo::exists(storage.accountDirectory()));
    EXPECT_FALSE(keys->hasKey(aliceContext));
    EXPECT_EQ(storage.read(u"a"_s), std::nullopt);
    EXPECT_EQ(bobStorage.read(u"a"_s), "bob");
    // Nothing left to forget is no error; afterwards the account starts afresh.
    storage.forget();
    storage.write("again", u"a"_s);
    EXPECT_EQ(storage.read(u"a"_s), "again");
}

TEST_F(EncryptedLocalStorageTest, DocumentsAreCompactSortedJsonAndAnythingElseIsCorrupt) {
    storage.writeDocument(QJsonDocument(QJsonObject{{u"b"_s, 1}, {u"a"_s, u"x"_s}}), u"doc"_s);
    EXPECT_EQ(storage.read(u"doc"_s), R"({"a":"x","b":1})");
    EXPECT_EQ(storage.readDocument(u"doc"_s)->object().value(u"b"_s).toInt(), 1);
    EXPECT_EQ(storage.readDocument(u"none"_s), std::nullopt);
    storage.write("not json", u"doc"_s);
    EXPECT_EQ(failureOf([&] { (void)storage.readDocument(u"doc"_s); }), Kind::corrupt);
}

TEST(EncryptedLocalStorageRoot, FollowsTheDataHome) {
    const QByteArray saved = qgetenv("XDG_DATA_HOME");
    qputenv("XDG_DATA_HOME", "/data/home");
    EXPECT_EQ(EncryptedLocalStorage::defaultRoot(), u"/data/home/Kestrolan/Local");
    qunsetenv("XDG_DATA_HOME");
    EXPECT_EQ(EncryptedLocalStorage::defaultRoot(),
              QDir::homePath() + u"/.local/share/Kestrolan/Local");
    qputenv("XDG_DATA_HOME", "relative/path");
    EXPECT_EQ(EncryptedLocalStorage::defaultRoot(),
              QDir::homePath() + u"/.local/share/Kestrolan/Local");
    if (saved.isNull())
        qunsetenv("XDG_DATA_HOME");
    else
        qputenv("XDG_DATA_HOME", saved);
}

#include "storage/encrypted_local_storage.h"
#include "storage/local_key_store.h"
#include "support/unique_fd.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QUuid>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

using namespace kestrolan;
using namespace Qt::StringLiterals;

namespace {

// The app fetches the key once per process and serves it from memory; so does this store.
class FixedKeyStore final : public LocalKeyStore {
public:
    QByteArray key(const LocalAccountContext&, bool) const override {
        return QByteArray(keyLength, '\x42');
    }
    void deleteKey(const LocalAccountContext&) const override {}
};

QByteArray recordOf(qint64 size) {
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator random(7);
    for (char& byte : bytes)
        byte = char('a' + random.bounded(26));
    return bytes;
}

struct Account {
    QTemporaryDir dir;
    EncryptedLocalStorage storage{
        dir.path(),
        LocalAccountContext::make(QUrl(u"https://api.example.com"_s), QUuid::createUuid()),
        std::make_shared<FixedKeyStore>()};
};

void BM_LocalRecordWrite(benchmark::State& state) {
    Account account;
    const QByteArray record = recordOf(state.range(0));
    for (auto _ : state)
        account.storage.write(record, u"projects"_s);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_LocalRecordWrite)->Arg(1 << 20)->Unit(benchmark::kMillisecond)->UseRealTime();

// The floor for a durable replacement: the same bytes, unencrypted, to an exclusive temporary
// file, synced and renamed over the record.
void bareWrite(benchmark::State& state, bool syncFolder) {
    QTemporaryDir dir;
    const QByteArray record = recordOf(state.range(0));
    const QByteArray target = QFile::encodeName(dir.filePath(u"projects.krenc"_s));
    for (auto _ : state) {
        const QByteArray temporary = QFile::encodeName(dir.filePath(
            u'.' + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() + u".tmp"));
        UniqueFd fd(::open(temporary.constData(),
                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!fd.isValid() ||
            ::write(fd.get(), record.constData(), size_t(record.size())) != record.size() ||
            ::fsync(fd.get()) != 0 || ::rename(temporary.constData(), target.constData()) != 0)
            state.SkipWithError("bare write failed");
        if (syncFolder) {
            const UniqueFd folder(::open(QFile::encodeName(dir.path()).constData(),
                                         O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            if (::fsync(folder.get()) != 0)
                state.SkipWithError("folder sync failed");
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_BareWriteFsyncRename(benchmark::State& state) {
    bareWrite(state, false);
}
BENCHMARK(BM_BareWriteFsyncRename)->Arg(1 << 20)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same with the folder synced after the rename, as a record write does, so that the new
// name survives a power cut.
void BM_BareWriteFsyncRenameSyncFolder(benchmark::State& state) {
    bareWrite(state, true);
}
BENCHMARK(BM_BareWriteFsyncRenameSyncFolder)
    ->Arg(1 << 20)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_LocalRecordRead(benchmark::State& state) {
    Account account;
    account.storage.write(recordOf(state.range(0)), u"projects"_s);
    for (auto _ : state)
        benchmark::DoNotOptimize(account.storage.read(u"projects"_s));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_LocalRecordRead)
    ->Arg(1 << 20)
    ->Arg(40 << 20)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace

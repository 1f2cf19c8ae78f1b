// A child process for the storage tests, writing to one account's records through the real
// key store and the account's storage lock, as a second running copy of the app would.
//
//   kestrolan-storage-worker count ROOT ORIGIN ACCOUNT NAME N
//     N times, under the lock: adds one to the shared record "counter" and to its own record
//     "count-NAME" (read, add, write). Exits 0.
//   kestrolan-storage-worker rewrite ROOT ORIGIN ACCOUNT RECORD...
//     Rewrites each record in turn with its value plus one, forever, printing "RECORD VALUE"
//     once each write has returned. Runs until killed.
// Values are JSON objects {"pad": ..., "v": N}. Failures print the error and exit 2.

#include "storage/encrypted_local_storage.h"
#include "storage/keychain_local_key_store.h"
#include "storage/local_store_queue.h"

#include <QCoreApplication>
#include <QJsonObject>
#include <QTimer>
#include <cstdio>
#include <unistd.h>

using namespace kestrolan;

namespace {

qint64 valueOf(EncryptedLocalStorage* storage, const QString& record) {
    const auto document = storage->readDocument(record);
    return document ? document->object().value(QStringLiteral("v")).toInteger() : 0;
}

void store(EncryptedLocalStorage* storage, const QString& record, qint64 value, qsizetype padding) {
    const QJsonObject object{{QStringLiteral("v"), value},
                             {QStringLiteral("pad"), QString(padding, u'p')}};
    storage->writeDocument(QJsonDocument(object), record);
}

void report(const QString& line) {
    const QByteArray bytes = (line + u'\n').toUtf8();
    // One write per line, unbuffered: what was printed is in the pipe even after a SIGKILL.
    if (::write(STDOUT_FILENO, bytes.constData(), size_t(bytes.size())) != bytes.size())
        std::_Exit(3);
}

[[noreturn]] void failWith(const std::exception& error) {
    std::fprintf(stderr, "storage worker: %s\n", error.what());
    std::_Exit(2);
}

// The jobs are made outside the coroutines: GCC 12 mishandles lambdas capturing a coroutine's
// parameters.
auto countJob(const QString& name) {
    return [name](EncryptedLocalStorage* storage) {
        store(storage, QStringLiteral("counter"), valueOf(storage, QStringLiteral("counter")) + 1,
              0);
        const QString own = QStringLiteral("count-") + name;
        store(storage, own, valueOf(storage, own) + 1, 0);
    };
}

auto rewriteJob(const QString& record) {
    return [record](EncryptedLocalStorage* storage) {
        const qint64 next = valueOf(storage, record) + 1;
        // Big enough that a kill often lands inside a write.
        store(storage, record, next, 64 * 1024);
        return next;
    };
}

QCoro::Task<void> count(LocalStoreQueue* queue, QString name, int times) {
    try {
        for (int i = 0; i < times; ++i)
            co_await queue->run(countJob(name));
    } catch (const std::exception& error) {
        failWith(error);
    }
    QCoreApplication::exit(0);
}

QCoro::Task<void> rewrite(LocalStoreQueue* queue, QStringList records) {
    try {
        for (;;) {
            for (const QString& record : records) {
                const qint64 written = co_await queue->run(rewriteJob(record));
                report(record + u' ' + QString::number(written));
            }
        }
    } catch (const std::exception& error) {
        failWith(error);
    }
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() < 6) {
        std::fprintf(stderr,
                     "usage: kestrolan-storage-worker count|rewrite ROOT ORIGIN ACCOUNT ...\n");
        return 64;
    }
    const QString mode = arguments.at(1);
    std::optional<LocalStoreQueue> queue;
    try {
        const auto context =
            LocalAccountContext::make(QUrl(arguments.at(3)), QUuid::fromString(arguments.at(4)));
        queue.emplace(QStringLiteral("org.kestrolan.mac.storage-worker"),
                      EncryptedLocalStorage(arguments.at(2), context,
                                            std::make_shared<KeychainLocalKeyStore>()));
    } catch (const std::exception& error) {
        failWith(error);
    }
    QTimer::singleShot(0, &app, [&] {
        if (mode == u"count" && arguments.size() == 7)
            count(&*queue, arguments.at(5), arguments.at(6).toInt());
        else if (mode == u"rewrite")
            rewrite(&*queue, arguments.mid(5));
        else
            QCoreApplication::exit(64);
    });
    return app.exec();
}

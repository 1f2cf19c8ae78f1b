#include "tools/operation_cancellation.h"
#include "tools/shell_command.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <benchmark/benchmark.h>
#include <chrono>
#include <memory>
#include <thread>
#include <unistd.h>

using namespace kestrolan;
using namespace Qt::StringLiterals;

namespace {

QUrl root() {
    return QUrl::fromLocalFile(u"/"_s);
}

QByteArray procFile(const QString& pid, const QString& name) {
    QFile file(u"/proc/"_s + pid + u'/' + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Processes whose command line is exactly `sleep <argument>`, zombies not counted.
int sleepsAlive(const QByteArray& argument) {
    const QByteArray wanted = QByteArray("sleep\0", 6) + argument + QByteArray(1, '\0');
    int alive = 0;
    const QStringList pids = QDir(u"/proc"_s).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& pid : pids) {
        if (procFile(pid, u"cmdline"_s) != wanted)
            continue;
        const QByteArray stat = procFile(pid, u"stat"_s);
        const qsizetype close = stat.lastIndexOf(')');
        alive += close >= 0 && close + 2 < stat.size() && stat[close + 2] != 'Z';
    }
    return alive;
}

} // namespace

// `true`, from the call to the outcome: temporary folder, spawn, clean-up and the result JSON.
void BM_ShellTrue(benchmark::State& state) {
    for (auto _ : state) {
        ShellCommand command;
        const ShellOutcome outcome = command.runOutcome(u"true"_s, root(), 30000);
        benchmark::DoNotOptimize(outcome.text.size());
    }
}
BENCHMARK(BM_ShellTrue)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(200)
    ->ReportAggregatesOnly(true);

// Cancel a command whose tree holds 200 sleeping processes (20 subshells with 9 sleeps each)
// and wait until every one of them is gone. Only the cancel-to-return time is measured.
void BM_ShellCancelTree(benchmark::State& state) {
    QTemporaryDir marks;
    const QByteArray sleepArgument = "29." + QByteArray::number(getpid());
    int round = 0;
    for (auto _ : state) {
        const QString folder = marks.filePath(QString::number(round++));
        QDir().mkpath(folder);
        const QString script = u"i=0; while [ $i -lt 20 ]; do ( j=0; while [ $j -lt 9 ]; do "
                               u"sleep "_s +
                               QString::fromLatin1(sleepArgument) +
                               u" & j=$((j+1)); done; : > '"_s + folder +
                               u"'/$i; wait ) & i=$((i+1)); done; wait"_s;
        auto command = std::make_shared<ShellCommand>();
        OperationCancellation cancellation;
        cancellation.attach(command);
        ShellOutcome outcome;
        std::thread worker([&] { outcome = command->runOutcome(script, root(), 30000); });
        while (QDir(folder).entryList(QDir::Files).size() < 20)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));

        const auto started = std::chrono::steady_clock::now();
        cancellation.cancel();
        worker.join();
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());

        if (!outcome.interrupted || sleepsAlive(sleepArgument) != 0) {
            state.SkipWithError("the tree was not stopped");
            break;
        }
    }
}
BENCHMARK(BM_ShellCancelTree)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(10)
    ->ReportAggregatesOnly(true);

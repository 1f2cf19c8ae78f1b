#include "tools/operation_cancellation.h"
#include "tools/tool_operation.h"
#include "workspace/file_digest.h"
#include "workspace/workspace.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <benchmark/benchmark.h>
#include <chrono>

using namespace kestrolan;
using namespace Qt::StringLiterals;

namespace {

constexpr int sourceFiles = 5'000;
constexpr int filesPerFolder = 100;
// Rare enough that the walk always covers the whole tree.
const QString searchQuery = u"kestrolan_marker_call"_s;

// 5,000 source-like files of about 4 KiB in 50 folders; every 100th file holds the query.
struct SourceTree {
    QTemporaryDir dir;
    qint64 bytes = 0;

    SourceTree() {
        QRandomGenerator random(42);
        for (int index = 0; index < sourceFiles; ++index) {
            const QString folder = dir.filePath(u"module%1"_s.arg(index / filesPerFolder));
            QDir().mkpath(folder);
            QByteArray text;
            while (text.size() < 4096) {
                text += "    int value" + QByteArray::number(random.bounded(100000)) +
                        " = compute(input, " + QByteArray::number(random.bounded(1000)) +
                        ");  // keeps the running total\n";
                if (index % 100 == 0 && text.size() > 2048 && !text.contains("marker"))
                    text += "    " + searchQuery.toUtf8() + "(value);\n";
            }
            QFile file(folder + u"/file%1.cpp"_s.arg(index));
            if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
                qFatal("cannot write the benchmark tree");
            bytes += text.size();
        }
    }
};

SourceTree& sourceTree() {
    static SourceTree tree;
    return tree;
}

} // namespace

// Literal search over the whole tree (the query occurs in 50 files).
void BM_WorkspaceSearch(benchmark::State& state) {
    SourceTree& tree = sourceTree();
    const auto workspace = Workspace::open(QUrl::fromLocalFile(tree.dir.path()), false);
    const ToolOperation operation(ToolOperation::Search{QString(), searchQuery, 0, 100});
    for (auto _ : state) {
        const OperationCancellation cancellation(std::chrono::steady_clock::time_point::max());
        const QString result = workspace->execute(operation, cancellation);
        benchmark::DoNotOptimize(result.size());
    }
    state.SetBytesProcessed(state.iterations() * tree.bytes);
}
BENCHMARK(BM_WorkspaceSearch)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same search by `grep -rF -c` as a real process: the figure to match.
void BM_GrepRF(benchmark::State& state) {
    SourceTree& tree = sourceTree();
    for (auto _ : state) {
        QProcess grep;
        grep.start(u"grep"_s, {u"-rF"_s, u"-c"_s, searchQuery, tree.dir.path()});
        if (!grep.waitForFinished(-1)) {
            state.SkipWithError("grep did not run");
            return;
        }
        benchmark::DoNotOptimize(grep.readAllStandardOutput().size());
    }
    state.SetBytesProcessed(state.iterations() * tree.bytes);
}
BENCHMARK(BM_GrepRF)->Unit(benchmark::kMillisecond)->UseRealTime();

// "read_file" of the first page of a 16 MiB text file: the whole file is read and hashed.
void BM_WorkspaceReadHash(benchmark::State& state) {
    QTemporaryDir dir;
    QByteArray text;
    text.reserve(FileDigest::maxBytes);
    const QByteArray line = "a line of ordinary source text, about sixty bytes long;\n";
    while (text.size() + line.size() <= FileDigest::maxBytes)
        text += line;
    text += QByteArray(FileDigest::maxBytes - text.size(), 'x');
    QFile file(dir.filePath(u"big.txt"_s));
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size()) {
        state.SkipWithError("cannot write the file");
        return;
    }
    file.close();
    const auto workspace = Workspace::open(QUrl::fromLocalFile(dir.path()), false);
    const ToolOperation operation(ToolOperation::ReadFile{u"big.txt"_s, 0, 100});
    for (auto _ : state) {
        const OperationCancellation cancellation(std::chrono::steady_clock::time_point::max());
        const QString result = workspace->execute(operation, cancellation);
        benchmark::DoNotOptimize(result.size());
    }
    state.SetBytesProcessed(state.iterations() * FileDigest::maxBytes);
}
BENCHMARK(BM_WorkspaceReadHash)->Unit(benchmark::kMillisecond)->UseRealTime();

#include "workspace/workspace_search.h"
#include "workspace_fixture.h"

#include <QJsonArray>
#include <fcntl.h>
#include <unistd.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

namespace {

// Each hit as "path:line:text".
QStringList hitsOf(const QJsonObject& result) {
    QStringList hits;
    for (const auto& value : result[u"hits"].toArray()) {
        const QJsonObject hit = value.toObject();
        hits.append(hit[u"path"].toString() + u':' + QString::number(hit[u"line"].toInteger()) +
                    u':' + hit[u"text"].toString());
    }
    return hits;
}

ToolOperation::Search search(QString path, QString query, qint64 offset = 0,
                             qint64 limit = ToolOperation::defaultLimit) {
    return {std::move(path), std::move(query), offset, limit};
}

} // namespace

TEST_F(WorkspaceTest, SearchFindsLiteralTextLineByLineAndSaysWhatItSkipped) {
    write(u"src/a.cpp"_s, "int needle = 1;\nnothing\r\nneedle needle\r\n");
    write(u"src/b.h"_s, "needle.* is (not) a regex\n(needle.*)\n");
    write(u"src/deep/c.txt"_s, "gr\xc3\xbc\xc3\x9f"
                               "e needle\n");
    write(u"src/.git/config"_s, "needle\n");
    write(u"src/image.bin"_s, QByteArray("needle\0", 7));
    QByteArray exact(WorkspaceSearch::maxFileBytes - 7, 'x');
    exact += "\nneedle";
    write(u"src/exact.txt"_s, exact);
    write(u"src/large.txt"_s, exact + 'x');
    write(u"elsewhere/d.txt"_s, "needle\n");
    symlink(u"../elsewhere"_s, u"src/linked-dir"_s);
    symlink(u"../elsewhere/d.txt"_s, u"src/linked-file"_s);
    const auto workspace = open();

    const QJsonObject found = run(*workspace, search(u"src"_s, u"needle"_s));
    EXPECT_EQ(hitsOf(found),
              (QStringList{u"a.cpp:1:int needle = 1;"_s, u"a.cpp:3:needle needle"_s,
                           u"b.h:1:needle.* is (not) a regex"_s, u"b.h:2:(needle.*)"_s,
                           u"exact.txt:2:needle"_s, u"deep/c.txt:1:gr\u00fc\u00dfe needle"_s}));
    EXPECT_EQ(found[u"files_searched"], 4);
    EXPECT_EQ(found[u"skipped_binary"], 1);
    EXPECT_EQ(found[u"skipped_large"], 1);
    EXPECT_EQ(found[u"file_cap_reached"], false);
    EXPECT_EQ(found[u"untrusted"], true);
    EXPECT_FALSE(found.contains(u"next_offset"));

    EXPECT_EQ(hitsOf(run(*workspace, search(u"src"_s, u"(needle.*)"_s))),
              QStringList{u"b.h:2:(needle.*)"_s});
    EXPECT_EQ(hitsOf(run(*workspace, search(QString(), u"\u00fc\u00dfe"_s))),
              QStringList{u"src/deep/c.txt:1:gr\u00fc\u00dfe needle"_s});
    EXPECT_TRUE(hitsOf(run(*workspace, search(u"src"_s, u"absent"_s))).isEmpty());
}

TEST_F(WorkspaceTest, SearchCutsLongLinesWithoutSplittingACharacter) {
    // "é" occupies bytes 399 and 400: it must go as a whole.
    QByteArray line(WorkspaceSearch::maxLineBytes - 1, 'a');
    line += "\xc3\xa9 needle";
    write(u"long.txt"_s, "first\n" + line + "\n");
    const auto workspace = open();
    const QJsonObject found = run(*workspace, search(QString(), u"needle"_s));
    ASSERT_EQ(found[u"hits"].toArray().size(), 1);
    EXPECT_EQ(found[u"hits"][0][u"line"], 2);
    EXPECT_EQ(found[u"hits"][0][u"text"], QString(WorkspaceSearch::maxLineBytes - 1, u'a'));
}

TEST_F(WorkspaceTest, SearchPagesHitsInAStableOrder) {
    for (int index = 0; index < 30; ++index)
        write(u"f"_s + QString::number(index).rightJustified(2, u'0'), "x\nhit\n");
    const auto workspace = open();
    const QJsonObject page = run(*workspace, search(QString(), u"hit"_s, 10, 5));
    EXPECT_EQ(hitsOf(page), (QStringList{u"f10:2:hit"_s, u"f11:2:hit"_s, u"f12:2:hit"_s,
                                         u"f13:2:hit"_s, u"f14:2:hit"_s}));
    EXPECT_EQ(page[u"next_offset"], 15);
    const QJsonObject tail = run(*workspace, search(QString(), u"hit"_s, 28, 5));
    EXPECT_EQ(hitsOf(tail), (QStringList{u"f28:2:hit"_s, u"f29:2:hit"_s}));
    EXPECT_FALSE(tail.contains(u"next_offset"));
    EXPECT_TRUE(run(*workspace, search(QString(), u"hit"_s, 30, 5))[u"hits"].toArray().isEmpty());
}

TEST_F(WorkspaceTest, SearchStopsAtTheFileCap) {
    mkdir(u"many"_s);
    // Sorted last, so only a walk past the cap would find it.
    for (int index = 0; index <= WorkspaceSearch::maxFiles; ++index) {
        const QByteArray name = QFile::encodeName(path(u"many/"_s)) + QByteArray::number(index);
        const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        if (index == WorkspaceSearch::maxFiles) {
            ASSERT_EQ(::write(fd, "hit", 3), 3);
        }
        ::close(fd);
    }
    ::rename(QFile::encodeName(path(u"many/20000"_s)).constData(),
             QFile::encodeName(path(u"many/zz"_s)).constData());
    const auto workspace = open();
    const QJsonObject capped = run(*workspace, search(u"many"_s, u"hit"_s));
    EXPECT_EQ(capped[u"file_cap_reached"], true);
    EXPECT_EQ(capped[u"files_searched"], WorkspaceSearch::maxFiles);
    EXPECT_TRUE(capped[u"hits"].toArray().isEmpty());
    // One file fewer and the walk completes.
    ASSERT_EQ(::unlink(QFile::encodeName(path(u"many/0"_s)).constData()), 0);
    const QJsonObject complete = run(*workspace, search(u"many"_s, u"hit"_s));
    EXPECT_EQ(complete[u"file_cap_reached"], false);
    EXPECT_EQ(hitsOf(complete), QStringList{u"zz:1:hit"_s});
}

namespace {

OperationCancellation* cancelDuringSearch = nullptr;
int filesBeforeCancel = 0;

void cancelAfterThreeFiles() {
    if (++filesBeforeCancel == 3)
        cancelDuringSearch->cancel();
}

} // namespace

TEST_F(WorkspaceTest, SearchEndsWhenCancelledBeforeOrDuringTheWalk) {
    for (int index = 0; index < 50; ++index)
        write(u"tree/"_s + QString::number(index), "text\n");
    const auto workspace = open();
    const ToolOperation operation(search(u"tree"_s, u"absent"_s));

    OperationCancellation before(std::chrono::steady_clock::time_point::max());
    before.cancel();
    EXPECT_THROW(workspace->execute(operation, before), CancellationError);

    OperationCancellation during(std::chrono::steady_clock::time_point::max());
    cancelDuringSearch = &during;
    filesBeforeCancel = 0;
    WorkspaceSearch::afterFile = &cancelAfterThreeFiles;
    EXPECT_THROW(workspace->execute(operation, during), CancellationError);
    WorkspaceSearch::afterFile = nullptr;
    // The walk stopped at the next file instead of running on.
    EXPECT_EQ(filesBeforeCancel, 3);

    // A passed deadline is the turn's limit.
    const OperationCancellation late(std::chrono::steady_clock::now());
    try {
        workspace->execute(operation, late);
        ADD_FAILURE();
    } catch (const HarnessError& error) {
        EXPECT_EQ(error.kind(), HarnessError::Kind::limit);
    }
}

#include "workspace/file_editor.h"
#include "workspace_fixture.h"

#include <QDir>
#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

namespace {

ToolOperation::EditFile replace(QString path, QString hash, QString content) {
    return {std::move(path), std::move(hash), std::move(content), false};
}
ToolOperation::EditFile create(QString path, QString content) {
    return {std::move(path), std::nullopt, std::move(content), true};
}

mode_t permissionsOf(const QString& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(QFile::encodeName(path).constData(), &status), 0);
    return status.st_mode & 07777;
}

} // namespace

TEST_F(WorkspaceTest, EditReplacesOnlyTheFileItWasShownKeepingItsPermissions) {
    write(u"dir/a.txt"_s, "old\n");
    ASSERT_EQ(::chmod(QFile::encodeName(path(u"dir/a.txt"_s)).constData(), 0640), 0);
    const auto workspace = open();

    const QString content = u"new \u00e9\n"_s;
    const QJsonObject done =
        run(*workspace, replace(u"dir/a.txt"_s, sha256("old\n").toUpper(), content));
    EXPECT_EQ(done[u"sha256"], sha256(content.toUtf8()));
    EXPECT_EQ(done[u"bytes_written"], content.toUtf8().size());
    EXPECT_EQ(contents(u"dir/a.txt"_s), content.toUtf8());
    EXPECT_EQ(permissionsOf(path(u"dir/a.txt"_s)), 0640u);
    EXPECT_EQ(
        QDir(path(u"dir"_s)).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        QStringList{u"a.txt"_s});
    // The hash the result gave is the one read_file reports and the next edit needs.
    EXPECT_EQ(run(*workspace, readFile(u"dir/a.txt"_s))[u"sha256"], done[u"sha256"]);

    // The old hash no longer matches; a missing file has no matching hash.
    EXPECT_EQ(harnessKind(*workspace, replace(u"dir/a.txt"_s, sha256("old\n"), u"x"_s)),
              HarnessError::Kind::staleFile);
    EXPECT_EQ(harnessKind(*workspace, replace(u"dir/gone.txt"_s, sha256({}), u"x"_s)),
              HarnessError::Kind::staleFile);
    EXPECT_EQ(contents(u"dir/a.txt"_s), content.toUtf8());
    EXPECT_FALSE(QFile::exists(path(u"dir/gone.txt"_s)));

    // A link is not edited through: the edit would replace the link itself.
    symlink(u"a.txt"_s, u"dir/link"_s);
    EXPECT_EQ(harnessKind(*workspace, replace(u"dir/link"_s, done[u"sha256"].toString(), u"x"_s)),
              HarnessError::Kind::unsafePath);
    EXPECT_EQ(contents(u"dir/a.txt"_s), content.toUtf8());
}

TEST_F(WorkspaceTest, EditCreatesOnlyFilesThatDoNotExist) {
    write(u"there.txt"_s, "keep");
    symlink(path(u"target.txt"_s), u"dangling"_s);
    const auto workspace = open();

    const QJsonObject made = run(*workspace, create(u"new.txt"_s, u"hello"_s));
    EXPECT_EQ(made[u"sha256"], sha256("hello"));
    EXPECT_EQ(contents(u"new.txt"_s), "hello");
    for (const QString& existing : QStringList{u"new.txt"_s, u"there.txt"_s, u"dangling"_s})
        EXPECT_EQ(harnessKind(*workspace, create(existing, u"overwrite"_s)),
                  HarnessError::Kind::staleFile)
            << existing.toStdString();
    EXPECT_EQ(contents(u"new.txt"_s), "hello");
    EXPECT_EQ(contents(u"there.txt"_s), "keep");
    EXPECT_FALSE(QFile::exists(path(u"target.txt"_s)));
    EXPECT_EQ(fileErrorKind(*workspace, create(u"no-such-dir/new.txt"_s, u"x"_s)),
              WorkspaceFileError::Kind::notFound);
    EXPECT_EQ(harnessKind(*workspace, create(u"new.txt/.."_s, u"x"_s)),
              HarnessError::Kind::invalidArguments);
}

TEST_F(WorkspaceTest, EditContentIsBoundedAtTheArgumentSize) {
    const auto workspace = open();
    const QString edge(FileEditor::maxContentBytes, u'x');
    EXPECT_EQ(run(*workspace, create(u"edge.txt"_s, edge))[u"bytes_written"],
              FileEditor::maxContentBytes);
    // Two bytes per character: the UTF-8 size is what counts.
    const QString over((FileEditor::maxContentBytes + 1) / 2 + 1, u'\u00e9');
    EXPECT_EQ(harnessKind(*workspace, create(u"over.txt"_s, over)), HarnessError::Kind::limit);
    EXPECT_FALSE(QFile::exists(path(u"over.txt"_s)));
}

namespace {

OperationCancellation* cancelBeforeRename = nullptr;

void cancelNow() {
    cancelBeforeRename->cancel();
}

int pauseFeedback = -1;

// Tells the parent the new content is on disk, then waits to be killed.
void signalAndPause() {
    const char ready = 'r';
    [[maybe_unused]] const auto written = ::write(pauseFeedback, &ready, 1);
    for (;;)
        ::pause();
}

} // namespace

TEST_F(WorkspaceTest, EditCancelledBeforeTheRenameLeavesNoTrace) {
    write(u"a.txt"_s, "old");
    const auto workspace = open();
    OperationCancellation cancellation(std::chrono::steady_clock::time_point::max());
    cancelBeforeRename = &cancellation;
    FileEditor::beforeRename = &cancelNow;
    EXPECT_THROW(workspace->execute(ToolOperation(replace(u"a.txt"_s, sha256("old"), u"new"_s)),
                                    cancellation),
                 CancellationError);
    FileEditor::beforeRename = nullptr;
    EXPECT_EQ(contents(u"a.txt"_s), "old");
    EXPECT_EQ(QDir(m_dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              QStringList{u"a.txt"_s});
}

TEST_F(WorkspaceTest, EditOfAProcessKilledBeforeTheRenameLeavesTheTargetIntact) {
    write(u"a.txt"_s, "old");
    const auto workspace = open();
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(pipe[0]);
        pauseFeedback = pipe[1];
        FileEditor::beforeRename = &signalAndPause;
        try {
            execute(*workspace, replace(u"a.txt"_s, sha256("old"), u"new"_s));
        } catch (...) {
        }
        ::_exit(1);
    }
    ::close(pipe[1]);
    char ready = 0;
    const auto got = ::read(pipe[0], &ready, 1);
    ::close(pipe[0]);
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_EQ(got, 1) << "the child never reached the rename";
    EXPECT_TRUE(WIFSIGNALED(status));

    EXPECT_EQ(contents(u"a.txt"_s), "old");
    // The synced temporary file was left beside it; the target still takes its old hash.
    const QStringList left =
        QDir(m_dir.path()).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
    ASSERT_EQ(left.size(), 2);
    const QString temporary = left[0] == u"a.txt" ? left[1] : left[0];
    EXPECT_EQ(contents(temporary), "new");
    EXPECT_EQ(run(*workspace, replace(u"a.txt"_s, sha256("old"), u"newer"_s))[u"sha256"],
              sha256("newer"));
}

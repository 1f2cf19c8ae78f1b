#include "workspace_fixture.h"

#include <QJsonArray>
#include <sys/stat.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

namespace {

constexpr auto unsafe = HarnessError::Kind::unsafePath;

struct stat statOf(const QString& path) {
    struct stat status {};
    EXPECT_EQ(::stat(QFile::encodeName(path).constData(), &status), 0);
    return status;
}

QStringList names(const QJsonObject& listing) {
    QStringList result;
    for (const auto& entry : listing[u"entries"].toArray())
        result.append(entry.toObject()[u"name"].toString());
    return result;
}

} // namespace

TEST_F(WorkspaceTest, KnowsItsFolderAndNoticesWhenTheFolderIsReplaced) {
    mkdir(u"ws"_s);
    write(u"ws/a.txt"_s, "a");
    const QUrl url = QUrl::fromLocalFile(path(u"ws"_s));
    const auto workspace = Workspace::open(url, false, {});
    const struct stat status = statOf(path(u"ws"_s));
    EXPECT_EQ(workspace->url(), url);
    EXPECT_FALSE(workspace->isWholeMachine());
    EXPECT_EQ(workspace->identity(),
              (WorkspaceRootIdentity{quint64(status.st_dev), quint64(status.st_ino)}));
    EXPECT_NO_THROW(workspace->validate());

    // Same path, another directory: the grant was for the old one.
    ASSERT_TRUE(QDir().rename(path(u"ws"_s), path(u"moved"_s)));
    mkdir(u"ws"_s);
    write(u"ws/a.txt"_s, "a");
    EXPECT_THROW(workspace->validate(), HarnessError);
    EXPECT_EQ(harnessKind(*workspace, readFile(u"a.txt"_s)), HarnessError::Kind::staleWorkspace);
    ASSERT_TRUE(QDir(path(u"ws"_s)).removeRecursively());
    EXPECT_EQ(harnessKind(*workspace, readFile(u"a.txt"_s)), HarnessError::Kind::staleWorkspace);

    for (const QUrl& bad : QList<QUrl>{QUrl::fromLocalFile(path(u"missing"_s)),
                                       QUrl::fromLocalFile(path(u"moved/a.txt"_s)),
                                       QUrl(u"https://example.com/"_s)}) {
        try {
            Workspace::open(bad, false, {});
            ADD_FAILURE() << bad.toString().toStdString();
        } catch (const HarnessError& error) {
            EXPECT_EQ(error.kind(), HarnessError::Kind::staleWorkspace);
        }
    }
}

TEST_F(WorkspaceTest, RefusesEveryPathThatLeadsOutOfTheFolder) {
    write(u"ws/inside.txt"_s, "inside\n");
    write(u"ws/sub/file.txt"_s, "sub\n");
    write(u"outside/secret.txt"_s, "secret\n");
    symlink(u"../outside"_s, u"ws/out"_s);
    symlink(path(u"outside"_s), u"ws/absolute"_s);
    symlink(u"l2"_s, u"ws/l1"_s);
    symlink(u"sub/../l3"_s, u"ws/l2"_s);
    symlink(u"../outside"_s, u"ws/l3"_s);
    symlink(u"/proc/self/root"_s, u"ws/proc"_s);
    symlink(u"loop-b"_s, u"ws/loop-a"_s);
    symlink(u"loop-a"_s, u"ws/loop-b"_s);
    symlink(u"sub"_s, u"ws/alias"_s);
    const auto workspace = Workspace::open(QUrl::fromLocalFile(path(u"ws"_s)), false, {});

    const QString outsideFile = path(u"outside/secret.txt"_s);
    for (const QString& escape :
         QStringList{u"../outside/secret.txt"_s, u"sub/../../outside/secret.txt"_s, outsideFile,
                     u"out/secret.txt"_s, u"absolute/secret.txt"_s, u"l1/secret.txt"_s,
                     u"proc"_s + outsideFile, u"/proc/self/root"_s + outsideFile, u"loop-a"_s,
                     u"sub/\0x"_s})
        EXPECT_EQ(harnessKind(*workspace, readFile(escape)), unsafe) << escape.toStdString();
    for (const QString& escape : QStringList{u".."_s, u"out"_s, u"/"_s, u"proc"_s})
        EXPECT_EQ(harnessKind(*workspace, ToolOperation::ListDirectory{escape, 0, 10}), unsafe)
            << escape.toStdString();
    EXPECT_EQ(harnessKind(*workspace, ToolOperation::Search{u"out"_s, u"secret"_s, 0, 10}), unsafe);
    EXPECT_EQ(harnessKind(*workspace,
                          ToolOperation::EditFile{u"out/new.txt"_s, std::nullopt, u"x"_s, true}),
              unsafe);
    EXPECT_EQ(harnessKind(*workspace,
                          ToolOperation::EditFile{u"../new.txt"_s, std::nullopt, u"x"_s, true}),
              unsafe);
    EXPECT_FALSE(QFile::exists(path(u"outside/new.txt"_s)));
    EXPECT_FALSE(QFile::exists(path(u"new.txt"_s)));

    // Links and ".." that stay beneath the folder are fine.
    EXPECT_EQ(run(*workspace, readFile(u"alias/file.txt"_s))[u"content"], u"sub\n"_s);
    EXPECT_EQ(run(*workspace, readFile(u"sub/../inside.txt"_s))[u"content"], u"inside\n"_s);
}

TEST_F(WorkspaceTest, WholeMachineTakesAbsolutePathsButNoMagicLinks) {
    write(u"notes/a.txt"_s, "alpha\n");
    const auto workspace = Workspace::open(QUrl::fromLocalFile(u"/"_s), true, {});
    EXPECT_TRUE(workspace->isWholeMachine());
    const QString file = path(u"notes/a.txt"_s);
    EXPECT_EQ(run(*workspace, readFile(file))[u"content"], u"alpha\n"_s);
    EXPECT_EQ(names(run(*workspace, ToolOperation::ListDirectory{path(u"notes"_s), 0, 10})),
              QStringList{u"a.txt"_s});
    for (const QString& refused : QStringList{u"notes/a.txt"_s, u"a.txt"_s,
                                              u"/proc/self/root"_s + file, u"/proc/self/cwd"_s})
        EXPECT_EQ(harnessKind(*workspace, readFile(refused)), unsafe) << refused.toStdString();
    EXPECT_EQ(harnessKind(*workspace, ToolOperation::ListDirectory{QString(), 0, 10}), unsafe);
    EXPECT_EQ(
        harnessKind(*workspace, ToolOperation::EditFile{u"new.txt"_s, std::nullopt, u"x"_s, true}),
        unsafe);
}

TEST_F(WorkspaceTest, ReadsOnlyRegularFilesAndNeverBlocksOnSpecialOnes) {
    write(u"ok.txt"_s, "fine\n");
    ASSERT_EQ(::mkfifo(QFile::encodeName(path(u"fifo"_s)).constData(), 0600), 0);
    mkdir(u"folder"_s);
    const auto workspace = open();
    // A FIFO without a writer would hang a blocking open or read forever.
    EXPECT_EQ(fileErrorKind(*workspace, readFile(u"fifo"_s)),
              WorkspaceFileError::Kind::notRegularFile);
    EXPECT_EQ(fileErrorKind(*workspace,
                            ToolOperation::EditFile{u"fifo"_s, QString(64, u'0'), u"x"_s, false}),
              WorkspaceFileError::Kind::notRegularFile);
    EXPECT_EQ(fileErrorKind(*workspace, readFile(u"folder"_s)),
              WorkspaceFileError::Kind::notRegularFile);
    EXPECT_EQ(fileErrorKind(*workspace, readFile(u"missing.txt"_s)),
              WorkspaceFileError::Kind::notFound);
    const QJsonObject found = run(*workspace, ToolOperation::Search{QString(), u"fine"_s, 0, 10});
    EXPECT_EQ(found[u"hits"].toArray().size(), 1);

    const auto machine = Workspace::open(QUrl::fromLocalFile(u"/"_s), true, {});
    EXPECT_EQ(fileErrorKind(*machine, readFile(u"/dev/zero"_s)),
              WorkspaceFileError::Kind::notRegularFile);
    EXPECT_EQ(fileErrorKind(*machine, readFile(path(u"fifo"_s))),
              WorkspaceFileError::Kind::notRegularFile);
}

TEST_F(WorkspaceTest, ProtectedFoldersAreUnreachableByAnyPath) {
    write(u"ws/visible.txt"_s, "token\n");
    write(u"ws/secret/key.txt"_s, "token\n");
    write(u"ws/secret/inner/deep.txt"_s, "token\n");
    write(u"keys/id.txt"_s, "token\n");
    symlink(u"secret"_s, u"ws/alias"_s);
    symlink(path(u"keys"_s), u"link-to-keys"_s);
    const ProtectedPaths protectedPaths(
        {path(u"ws/secret"_s), path(u"keys"_s), path(u"ws/later"_s)});
    const auto workspace =
        Workspace::open(QUrl::fromLocalFile(path(u"ws"_s)), false, protectedPaths);

    for (const QString& refused :
         QStringList{u"secret/key.txt"_s, u"alias/key.txt"_s, u"secret/inner/deep.txt"_s})
        EXPECT_EQ(harnessKind(*workspace, readFile(refused)), unsafe) << refused.toStdString();
    EXPECT_EQ(harnessKind(*workspace, ToolOperation::ListDirectory{u"secret/inner"_s, 0, 10}),
              unsafe);
    EXPECT_EQ(harnessKind(*workspace, ToolOperation::Search{u"alias"_s, u"token"_s, 0, 10}),
              unsafe);
    EXPECT_EQ(harnessKind(*workspace,
                          ToolOperation::EditFile{u"secret/new.txt"_s, std::nullopt, u"x"_s, true}),
              unsafe);
    EXPECT_FALSE(QFile::exists(path(u"ws/secret/new.txt"_s)));

    // Listing and search leave the folder out and say so; the link is listed, never followed.
    const QJsonObject listing = run(*workspace, ToolOperation::ListDirectory{QString(), 0, 10});
    EXPECT_EQ(names(listing), (QStringList{u"alias"_s, u"visible.txt"_s}));
    EXPECT_EQ(listing[u"protected_omitted"], 1);
    const QJsonObject found = run(*workspace, ToolOperation::Search{QString(), u"token"_s, 0, 10});
    ASSERT_EQ(found[u"hits"].toArray().size(), 1);
    EXPECT_EQ(found[u"hits"][0][u"path"], u"visible.txt"_s);
    EXPECT_EQ(found[u"skipped_protected"], 1);

    // A protected folder made after the workspace was opened is caught as well.
    write(u"ws/later/new.txt"_s, "token\n");
    EXPECT_EQ(harnessKind(*workspace, readFile(u"later/new.txt"_s)), unsafe);

    // Full access: absolute paths, through a link or straight, and a workspace inside one.
    const auto machine = Workspace::open(QUrl::fromLocalFile(u"/"_s), true, protectedPaths);
    for (const QString& refused :
         QStringList{path(u"keys/id.txt"_s), path(u"link-to-keys/id.txt"_s),
                     path(u"ws/alias/inner/deep.txt"_s)})
        EXPECT_EQ(harnessKind(*machine, readFile(refused)), unsafe) << refused.toStdString();
    EXPECT_EQ(run(*machine, readFile(path(u"ws/visible.txt"_s)))[u"content"], u"token\n"_s);
    const auto nested =
        Workspace::open(QUrl::fromLocalFile(path(u"ws/secret/inner"_s)), false, protectedPaths);
    EXPECT_EQ(harnessKind(*nested, readFile(u"deep.txt"_s)), unsafe);
}

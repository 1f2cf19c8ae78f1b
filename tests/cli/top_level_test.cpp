#include <QProcess>
#include <gtest/gtest.h>

// kestrolan-cli without a command: version and the exit statuses every command shares.
namespace {

struct Result {
    int exitCode = -1;
    QString out;
    QString err;
};

Result cli(const QStringList& arguments) {
    QProcess process;
    process.start(QStringLiteral(KESTROLAN_CLI_PATH), arguments);
    EXPECT_TRUE(process.waitForFinished(30000)) << "kestrolan-cli did not finish";
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

TEST(CliTopLevel, VersionIsTheProjectVersion) {
    const auto version = cli({QStringLiteral("--version")});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, QStringLiteral("kestrolan-cli " KESTROLAN_VERSION "\n"));
    EXPECT_EQ(version.err, u"");
}

TEST(CliTopLevel, HelpListsEveryCommandAndTheExitStatuses) {
    const auto help = cli({QStringLiteral("--help")});
    EXPECT_EQ(help.exitCode, 0);
    for (const auto* command : {"login", "logout", "status", "account", "models", "chats", "cron"})
        EXPECT_TRUE(help.out.contains(u"\n  " + QString::fromLatin1(command).leftJustified(10)))
            << command;
    for (const auto* status :
         {"  0  success", "  1  failure", "  2  bad usage", "  4  not signed in"})
        EXPECT_TRUE(help.out.contains(QString::fromLatin1(status))) << status;

    // Without a command the same help is a usage error.
    const auto bare = cli({});
    EXPECT_EQ(bare.exitCode, 2);
    EXPECT_EQ(bare.err, help.out);
    EXPECT_EQ(cli({QStringLiteral("--versions")}).exitCode, 2);
}

} // namespace

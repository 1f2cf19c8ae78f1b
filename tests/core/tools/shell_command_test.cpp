#include "error.h"
#include "tools/harness_error.h"
#include "tools/operation_cancellation.h"
#include "tools/shell_command.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <unistd.h>

using namespace kestrolan;
using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// Every test gets its own temporary directory as $TMPDIR, so that leftovers can be counted.
class ShellCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_temp.isValid());
        m_previous = qgetenv("TMPDIR");
        qputenv("TMPDIR", QFile::encodeName(m_temp.path()));
        ASSERT_EQ(QDir::tempPath(), QDir(m_temp.path()).canonicalPath());
    }
    void TearDown() override {
        if (m_previous.isNull())
            qunsetenv("TMPDIR");
        else
            qputenv("TMPDIR", m_previous);
    }

    QStringList leftovers() const {
        return QDir(m_temp.path())
            .entryList({u".kr-scratch-*"_s},
                       QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    }

    QTemporaryDir m_temp;
    QByteArray m_previous;
};

// The executor's own deadline: commands meant to finish by themselves never come near it.
constexpr quint32 deadline = 30000;

QUrl root() {
    return QUrl::fromLocalFile(QStringLiteral("/"));
}

QJsonObject result(const ShellOutcome& outcome) {
    return QJsonDocument::fromJson(outcome.text.toUtf8()).object();
}

HarnessError::Kind refusal(ShellCommand& command, const QString& line,
                           const QUrl& cwd = QUrl::fromLocalFile(QStringLiteral("/")),
                           std::optional<QString> profile = std::nullopt) {
    try {
        command.runOutcome(line, cwd, deadline, profile);
    } catch (const HarnessError& error) {
        return error.kind();
    }
    ADD_FAILURE() << "the command ran";
    return HarnessError::Kind::invalidArguments;
}

} // namespace

TEST_F(ShellCommandTest, DeadlineGivesItsNoteAndCountsAsInterrupted) {
    ShellCommand command;
    const auto started = std::chrono::steady_clock::now();
    const ShellOutcome outcome = command.runOutcome(u"echo started; sleep 20"_s, root(), 250);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 15s); // well before the sleep's end
    const QJsonObject object = result(outcome);
    EXPECT_EQ(object.value(u"output").toString(),
              u"started\n\n[30-second command deadline; command stopped]");
    EXPECT_TRUE(object.value(u"timed_out").toBool());
    EXPECT_FALSE(object.value(u"truncated").toBool());
    EXPECT_EQ(object.value(u"exit_status").toInt(), 137);
    EXPECT_TRUE(outcome.interrupted);
}

TEST_F(ShellCommandTest, LongOutputStopsAtTheBufferWithItsNote) {
    ShellCommand command;
    const ShellOutcome outcome =
        command.runOutcome(u"head -c 100000 /dev/zero | tr '\\0' x"_s, root(), deadline);
    const QJsonObject object = result(outcome);
    EXPECT_EQ(object.value(u"output").toString(), QString(ShellCommand::outputCapacity, u'x') +
                                                      u"\n[output truncated; command stopped]");
    EXPECT_TRUE(object.value(u"truncated").toBool());
    EXPECT_FALSE(object.value(u"timed_out").toBool());
    EXPECT_TRUE(outcome.interrupted);
}

TEST_F(ShellCommandTest, SignalledShellReportsItsSignal) {
    ShellCommand command;
    const ShellOutcome outcome = command.runOutcome(u"kill -TERM $$"_s, root(), deadline);
    EXPECT_EQ(result(outcome).value(u"exit_status").toInt(), 143);
    EXPECT_TRUE(outcome.interrupted);

    ShellCommand finished;
    const ShellOutcome ok =
        finished.runOutcome(u"pwd; exit 4"_s, QUrl::fromLocalFile(m_temp.path()), deadline);
    EXPECT_EQ(result(ok).value(u"output").toString(), m_temp.path() + u'\n');
    EXPECT_EQ(result(ok).value(u"exit_status").toInt(), 4);
    EXPECT_FALSE(ok.interrupted);
}

TEST_F(ShellCommandTest, TmpdirIsFreshPrivateAndRemovedAfterwards) {
    const QString script = uR"(cd "$TMPDIR" && pwd -P && stat -c '%a %u' . && ls -A | wc -l
tr '\0' '\n' < /proc/$$/environ
mkdir -p sub/deeper && touch sub/deeper/file .hidden)"_s;
    QStringList seen;
    for (int i = 0; i < 2; ++i) {
        ShellCommand command;
        const ShellOutcome outcome = command.runOutcome(script, root(), deadline);
        const QStringList lines = result(outcome).value(u"output").toString().split(u'\n');
        ASSERT_GE(lines.size(), 6) << outcome.text.toStdString();
        const QString folder = lines[0];
        EXPECT_TRUE(QRegularExpression(
                        u"^/.+/\\.kr-scratch-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-"
                        u"[0-9A-F]{12}$"_s)
                        .match(folder)
                        .hasMatch())
            << folder.toStdString();
        EXPECT_EQ(QFileInfo(folder).dir().path(), QDir(m_temp.path()).canonicalPath());
        EXPECT_EQ(lines[1], u"700 " + QString::number(geteuid()));
        EXPECT_EQ(lines[2].trimmed(), u"0");
        EXPECT_EQ(
            lines.mid(3, 3),
            (QStringList{u"PATH=/usr/bin:/bin:/usr/sbin:/sbin"_s, u"LANG=en_US.UTF-8"_s,
                         u"TMPDIR="_s + m_temp.path() + folder.mid(folder.lastIndexOf(u'/'))}));
        EXPECT_FALSE(QFileInfo::exists(folder));
        seen << folder;
    }
    EXPECT_NE(seen[0], seen[1]);
    EXPECT_TRUE(leftovers().isEmpty()) << leftovers().join(u' ').toStdString();
}

TEST_F(ShellCommandTest, ALinkPutInPlaceOfTmpdirIsRemovedNotFollowed) {
    QTemporaryDir victim;
    ASSERT_TRUE(victim.isValid());
    QFile kept(victim.filePath(u"kept"_s));
    ASSERT_TRUE(kept.open(QIODevice::WriteOnly));
    kept.close();

    ShellCommand command;
    const ShellOutcome outcome = command.runOutcome(
        u"rmdir \"$TMPDIR\" && ln -s '"_s + victim.path() + u"' \"$TMPDIR\" && echo linked"_s,
        root(), deadline);
    EXPECT_EQ(result(outcome).value(u"output").toString(), u"linked\n");
    EXPECT_TRUE(kept.exists());
    EXPECT_TRUE(leftovers().isEmpty());
}

TEST_F(ShellCommandTest, RefusalsRunNothingAndLeaveNothing) {
    const QString marker = m_temp.filePath(u"ran"_s);
    const QString touch = u"touch '"_s + marker + u'\'';
    {
        ShellCommand command;
        command.cancel();
        EXPECT_EQ(refusal(command, touch), HarnessError::Kind::accessDenied);
    }
    {
        ShellCommand command;
        EXPECT_EQ(refusal(command, touch, QUrl::fromLocalFile(m_temp.filePath(u"missing"_s))),
                  HarnessError::Kind::accessDenied);
        EXPECT_EQ(refusal(command, touch, root(), u"(version 1)"_s),
                  HarnessError::Kind::accessDenied);
    }
    EXPECT_FALSE(QFileInfo::exists(marker));
    EXPECT_TRUE(leftovers().isEmpty()) << leftovers().join(u' ').toStdString();

    // No temporary folder, no run: the file system's own error.
    qputenv("TMPDIR", QFile::encodeName(m_temp.filePath(u"absent"_s)));
    ShellCommand command;
    try {
        command.runOutcome(touch, root(), deadline);
        ADD_FAILURE() << "ran without a temporary folder";
    } catch (const HarnessError&) {
        ADD_FAILURE() << "expected the file system's error";
    } catch (const Error& error) {
        EXPECT_TRUE(error.description().contains(u"No such file or directory")) << error.what();
    }
    EXPECT_FALSE(QFileInfo::exists(marker));
}

TEST_F(ShellCommandTest, CancellationStopsTheRunAndKeepsPartialOutput) {
    auto command = std::make_shared<ShellCommand>();
    OperationCancellation cancellation(std::chrono::steady_clock::now() + 1h);
    cancellation.attach(command);
    // Cancelled once the command has written its output, however long it took to get there.
    const QString written = m_temp.filePath(u"written"_s);
    std::thread canceller([&cancellation, written] {
        const auto until = std::chrono::steady_clock::now() + 30s;
        while (!QFileInfo::exists(written) && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(2ms);
        cancellation.cancel();
    });
    const ShellOutcome outcome =
        command->runOutcome(u"echo partial; : > '"_s + written + u"'; sleep 20"_s, root(), 10000);
    canceller.join();
    const QJsonObject object = result(outcome);
    EXPECT_EQ(object.value(u"output").toString(), u"partial\n");
    // Without the cancel the deadline would have ended the sleep, and said so.
    EXPECT_FALSE(object.value(u"timed_out").toBool());
    EXPECT_EQ(object.value(u"exit_status").toInt(), 137);
    EXPECT_TRUE(outcome.interrupted);
    EXPECT_THROW(cancellation.check(), CancellationError);

    // Cancelled before the command was even attached: it still must not start.
    OperationCancellation early;
    early.cancel();
    auto late = std::make_shared<ShellCommand>();
    early.attach(late);
    EXPECT_EQ(refusal(*late, u"true"_s), HarnessError::Kind::accessDenied);
    EXPECT_TRUE(leftovers().isEmpty());
}

TEST(OperationCancellation, CheckReportsCancelOverDeadline) {
    OperationCancellation fresh(std::chrono::steady_clock::now() + 1h);
    EXPECT_NO_THROW(fresh.check());
    EXPECT_FALSE(fresh.isCancelled());

    OperationCancellation expired(std::chrono::steady_clock::now() - 1ms);
    try {
        expired.check();
        ADD_FAILURE() << "no limit";
    } catch (const HarnessError& error) {
        EXPECT_EQ(error.kind(), HarnessError::Kind::limit);
    }
    expired.cancel();
    EXPECT_TRUE(expired.isCancelled());
    EXPECT_THROW(expired.check(), CancellationError);
}

TEST_F(ShellCommandTest, ManyRunsLeakNoDescriptors) {
    const auto count = [] {
        return QDir(u"/proc/self/fd"_s).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size();
    };
    ShellCommand warmUp;
    warmUp.runOutcome(u"true"_s, root(), deadline);
    const qsizetype before = count();
    for (int i = 0; i < 20; ++i) {
        ShellCommand command;
        EXPECT_EQ(result(command.runOutcome(u"echo $$"_s, root(), deadline)).value(u"exit_status"),
                  0);
        ShellCommand stopped;
        EXPECT_TRUE(stopped.runOutcome(u"sleep 5"_s, root(), 1).interrupted);
    }
    EXPECT_EQ(count(), before);
    EXPECT_TRUE(leftovers().isEmpty());
}

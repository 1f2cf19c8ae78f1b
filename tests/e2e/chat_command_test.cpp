// `kestrolan-cli chat` as a real process against the real development service: tool rounds,
// billing summed exactly, the round caps, approvals, stopping, saving and the account's refusals.
#include "cli_process.h"
#include "dev_service.h"
#include "secret_service.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <csignal>
#include <gtest/gtest.h>

using namespace kestrolan::test;

namespace {

const QString scripted = QStringLiteral("kestrolan/scripted");
const QString pendingLine =
    QStringLiteral("Billing confirmation pending; see Activity before continuing.");
const QString separatelyLine = QStringLiteral("Each inference round is billed separately.");

// The events of one --json run, by type.
struct Events {
    QList<QJsonObject> all;

    static Events parse(const QString& out) {
        Events events;
        for (const auto& line : out.split(u'\n', Qt::SkipEmptyParts)) {
            const auto document = QJsonDocument::fromJson(line.toUtf8());
            EXPECT_TRUE(document.isObject()) << "not an event: " << line.toStdString();
            events.all.append(document.object());
        }
        return events;
    }
    QList<QJsonObject> ofType(const QString& type) const {
        QList<QJsonObject> found;
        for (const auto& event : all)
            if (event.value(u"type").toString() == type)
                found.append(event);
        return found;
    }
    QString text() const {
        QString joined;
        for (const auto& event : ofType(QStringLiteral("text")))
            joined += event.value(u"delta").toString();
        return joined;
    }
    // "name:state" of every tool event, in order.
    QStringList toolStates() const {
        QStringList states;
        for (const auto& event : ofType(QStringLiteral("tool")))
            states.append(event.value(u"name").toString() + u':' +
                          event.value(u"state").toString());
        return states;
    }
    QJsonObject reply() const {
        const auto replies = ofType(QStringLiteral("reply"));
        EXPECT_EQ(replies.size(), 1);
        return replies.value(0);
    }
    QStringList metaTexts() const {
        QStringList texts;
        for (const auto& meta : reply().value(u"meta").toArray())
            texts.append(meta.toObject().value(u"text").toString());
        return texts;
    }
    QJsonObject done() const {
        EXPECT_FALSE(all.isEmpty());
        const auto last = all.value(all.size() - 1);
        EXPECT_EQ(last.value(u"type").toString(), u"done");
        return last;
    }
};

// Millionths of a dollar from decimal text such as "0.002125".
qint64 millionths(const QString& usd) {
    const auto parts = usd.split(u'.');
    const QString fraction = parts.value(1).leftJustified(6, u'0');
    return parts.value(0).toLongLong() * 1'000'000 + fraction.toLongLong();
}

class ChatCommandEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(SecretService::isPrivate()) << "no private Secret Service: run "
                                                   "through tests/support/with-secret-service";
        ASSERT_TRUE(workspace.isValid());
        QFile notes(workspace.filePath(QStringLiteral("notes.txt")));
        ASSERT_TRUE(notes.open(QIODevice::WriteOnly));
        notes.write("hello\n");
    }

    void signIn() {
        const auto login = signInWithCli(service.baseURL());
        ASSERT_EQ(login.exitCode, 0) << login.err.toStdString();
    }

    QStringList readOnly() const {
        return {QStringLiteral("--access"), QStringLiteral("read-only"),
                QStringLiteral("--accept-tool-billing"), QStringLiteral("--workspace"),
                workspace.path()};
    }

    CliRun chat(const QStringList& arguments, const QByteArray& input = {}) const {
        return runCli(
            service.baseURL(),
            QStringList{QStringLiteral("chat"), QStringLiteral("-m"), scripted} + arguments, input);
    }

    // The chat charges in the service's ledger, in millionths.
    QList<qint64> ledgerCharges() const {
        const auto account =
            QJsonDocument::fromJson(service.admin("GET", QStringLiteral("/admin/account")))
                .object();
        QList<qint64> charges;
        for (const auto& entry : account.value(u"ledger").toArray()) {
            const auto object = entry.toObject();
            if (object.value(u"kind").toString() == u"charge")
                charges.append(std::abs(object.value(u"amount_millionths").toInteger()));
        }
        return charges;
    }

    // A chat whose events are read while it runs, for what a test does in the middle of a turn.
    class Running {
    public:
        Running(const QString& baseURL, const QStringList& arguments) {
            auto environment = QProcessEnvironment::systemEnvironment();
            environment.insert(QStringLiteral("KESTROLAN_BASE_URL"), baseURL);
            m_process.setProcessEnvironment(environment);
            m_process.start(QStringLiteral(KESTROLAN_CLI_PATH),
                            QStringList{QStringLiteral("chat"), QStringLiteral("-m"), scripted} +
                                arguments);
        }
        ~Running() {
            if (m_process.state() != QProcess::NotRunning) {
                m_process.kill();
                m_process.waitForFinished();
            }
        }
        // Reads standard output until it holds `text`; fails the test after a generous wait.
        bool waitFor(const QString& text) {
            const QDeadlineTimer deadline(30'000);
            while (!m_out.contains(text)) {
                if (deadline.hasExpired() || m_process.state() == QProcess::NotRunning)
                    return false;
                m_process.waitForReadyRead(100);
                m_out += QString::fromUtf8(m_process.readAllStandardOutput());
            }
            return true;
        }
        void write(const QByteArray& line) { m_process.write(line); }
        void interrupt() { ::kill(pid_t(m_process.processId()), SIGINT); }
        CliRun finish() {
            m_process.closeWriteChannel();
            if (!m_process.waitForFinished(60'000))
                qFatal("kestrolan-cli did not finish");
            m_out += QString::fromUtf8(m_process.readAllStandardOutput());
            return {m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1,
                    m_out, QString::fromUtf8(m_process.readAllStandardError())};
        }
        const QString& out() const { return m_out; }

    private:
        QProcess m_process;
        QString m_out;
    };

    DevService service;
    QTemporaryDir workspace;
};

TEST_F(ChatCommandEndToEnd, ThreeRoundToolTurnTotalsExactlyWhatTheLedgerCharged) {
    signIn();
    const auto run = chat(readOnly() + QStringList{QStringLiteral("--json"),
                                                   QStringLiteral("@text Looking.\\n\n"
                                                                  "@tool read_file "
                                                                  "{\"path\":\"notes.txt\"}\n"
                                                                  "@round\n"
                                                                  "@tool list_directory "
                                                                  "{\"path\":\".\"}\n"
                                                                  "@round\n"
                                                                  "@text The notes say hello.")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const auto events = Events::parse(run.out);

    EXPECT_EQ(events.text(), u"Looking.\nThe notes say hello.");
    const QStringList toolStates = events.toolStates();
    EXPECT_TRUE(toolStates.contains(u"read_file:completed")) << toolStates.join(u' ').toStdString();
    EXPECT_TRUE(toolStates.contains(u"list_directory:completed"));
    const auto tools = events.ofType(QStringLiteral("tool"));
    ASSERT_FALSE(tools.isEmpty());
    EXPECT_TRUE(tools.first().value(u"result").isNull());
    EXPECT_TRUE(tools.last().value(u"result").toString().contains(u"notes.txt"));
    EXPECT_TRUE(tools.last().value(u"elapsed_ms").isDouble());

    // Every round billed on its own, and the total is their exact sum.
    const auto billing = events.ofType(QStringLiteral("billing"));
    ASSERT_EQ(billing.size(), 3);
    qint64 summed = 0;
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(billing[round].value(u"round").toInt(), round);
        EXPECT_EQ(billing[round].value(u"state").toString(), u"settled");
        summed += millionths(billing[round].value(u"charged_usd").toString());
    }
    const QList<qint64> ledger = ledgerCharges();
    ASSERT_EQ(ledger.size(), 3);
    EXPECT_EQ(summed, ledger[0] + ledger[1] + ledger[2]);

    const auto reply = events.reply();
    EXPECT_EQ(reply.value(u"state").toString(), u"complete");
    EXPECT_EQ(reply.value(u"text").toString(), u"The notes say hello.");
    const QStringList meta = events.metaTexts();
    ASSERT_EQ(meta.size(), 2);
    EXPECT_TRUE(meta[0].startsWith(u"Total charged $"));
    EXPECT_EQ(millionths(meta[0].mid(15)), summed);
    EXPECT_EQ(meta[1], separatelyLine);
    EXPECT_EQ(events.done().value(u"charge_summary").toString(), meta[0] + u'.');
    EXPECT_TRUE(events.done().value(u"saved_id").isNull());
}

TEST_F(ChatCommandEndToEnd, CallsPastTheEighthRoundOrBeyondFourAtOnceAreNotRun) {
    signIn();
    QStringList rounds;
    for (int round = 0; round < 8; ++round)
        rounds.append(QStringLiteral("@tool read_file {\"path\":\"notes.txt\"}"));
    const auto capped = chat(readOnly() << QStringLiteral("--json") << rounds.join(u"\n@round\n"));
    ASSERT_EQ(capped.exitCode, 0) << capped.err.toStdString();
    const auto events = Events::parse(capped.out);
    EXPECT_EQ(events.ofType(QStringLiteral("billing")).size(), 8);
    EXPECT_EQ(ledgerCharges().size(), 8);
    // Seven rounds ran their call; the eighth's never started.
    EXPECT_EQ(events.toolStates().count(QStringLiteral("read_file:completed")), 7);
    const auto meta = events.reply().value(u"meta").toArray();
    ASSERT_FALSE(meta.isEmpty());
    EXPECT_TRUE(meta[0].toObject().value(u"error").toBool());
    EXPECT_TRUE(meta[0].toObject().value(u"text").toString().contains(u"eight"));

    const QString five = QStringLiteral("@tool read_file {\"path\":\"notes.txt\"}\n").repeated(5);
    const auto wide = chat(readOnly() << QStringLiteral("--json") << five);
    ASSERT_EQ(wide.exitCode, 0) << wide.err.toStdString();
    const auto wideEvents = Events::parse(wide.out);
    EXPECT_TRUE(wideEvents.toolStates().isEmpty());
    EXPECT_EQ(wideEvents.ofType(QStringLiteral("billing")).size(), 1);
    const auto wideMeta = wideEvents.reply().value(u"meta").toArray();
    ASSERT_FALSE(wideMeta.isEmpty());
    EXPECT_TRUE(wideMeta[0].toObject().value(u"error").toBool());
    EXPECT_TRUE(wideMeta[0].toObject().value(u"text").toString().contains(u"four"));
}

TEST_F(ChatCommandEndToEnd, UnresolvedBillingLeavesTheTurnPending) {
    signIn();
    const auto run = chat(readOnly() << QStringLiteral("--json")
                                     << QStringLiteral("@tool read_file {\"path\":\"notes.txt\"}\n"
                                                       "@billing unresolved\n"
                                                       "@round\n"
                                                       "@text Done."));
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const auto events = Events::parse(run.out);
    const auto billing = events.ofType(QStringLiteral("billing"));
    ASSERT_EQ(billing.size(), 2);
    EXPECT_EQ(billing[0].value(u"state").toString(), u"unresolved");
    EXPECT_TRUE(billing[0].value(u"charged_usd").isNull());
    EXPECT_EQ(billing[1].value(u"state").toString(), u"settled");
    const auto meta = events.reply().value(u"meta").toArray();
    ASSERT_EQ(meta.size(), 2);
    EXPECT_EQ(meta[1].toObject().value(u"text").toString(), pendingLine);
    EXPECT_TRUE(meta[1].toObject().value(u"error").toBool());
    EXPECT_TRUE(events.done()
                    .value(u"charge_summary")
                    .toString()
                    .endsWith(u". Billing confirmation pending; see Activity."));
}

TEST_F(ChatCommandEndToEnd, PlainOutputKeepsTheReplyAloneOnStandardOutput) {
    // Usage errors and the missing sign-in come first: nothing is sent for them.
    const auto noConfirm = chat({QStringLiteral("--access"), QStringLiteral("full"),
                                 QStringLiteral("--accept-tool-billing"), QStringLiteral("hi")});
    EXPECT_EQ(noConfirm.exitCode, 2);
    EXPECT_TRUE(noConfirm.err.contains(u"--confirm-full-access"));
    const auto signedOut = chat({QStringLiteral("hi")});
    EXPECT_EQ(signedOut.exitCode, 4);
    EXPECT_TRUE(signedOut.err.endsWith(signInHint));

    signIn();
    const auto run = chat(readOnly() << QStringLiteral("@text Looking.\\n\n"
                                                       "@tool read_file {\"path\":\"notes.txt\"}\n"
                                                       "@round\n"
                                                       "@text Read it."));
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, u"Looking.\nRead it.\n");
    EXPECT_TRUE(run.err.contains(u"Tool read_file notes.txt: completed")) << run.err.toStdString();
    EXPECT_TRUE(run.err.contains(separatelyLine));

    // Without a terminal or --json an approval cannot be asked: it is denied at once, said so,
    // and the model gets the denial.
    const auto asked = chat({QStringLiteral("--access"), QStringLiteral("ask"),
                             QStringLiteral("--accept-tool-billing"), QStringLiteral("--workspace"),
                             workspace.path(),
                             QStringLiteral("@tool read_file {\"path\":\"notes.txt\"}\n"
                                            "@round\n@tool-results")});
    ASSERT_EQ(asked.exitCode, 0) << asked.err.toStdString();
    EXPECT_TRUE(asked.err.contains(u"Denied: approvals are asked on a terminal"));
    EXPECT_TRUE(asked.err.contains(u"Tool read_file notes.txt: denied"));
    EXPECT_TRUE(asked.out.startsWith(u"call_1 {")) << asked.out.toStdString();
    EXPECT_TRUE(asked.out.contains(u"denied"));

    // Compared columns answer in turn, each under its model's name.
    const auto compared =
        chat({QStringLiteral("--compare"), QStringLiteral("kestrolan/echo"), QStringLiteral("Hi")});
    ASSERT_EQ(compared.exitCode, 0) << compared.err.toStdString();
    EXPECT_EQ(compared.out,
              u"== kestrolan/scripted ==\nScripted reply.\n== kestrolan/echo ==\nHi\n");

    // Standard input is the message when none is given.
    const auto piped = chat({}, "@text From the pipe.\n");
    EXPECT_EQ(piped.exitCode, 0) << piped.err.toStdString();
    EXPECT_EQ(piped.out, u"From the pipe.\n");
}

TEST_F(ChatCommandEndToEnd, InterruptStopsTheStreamAndTheToolsAndTheChatContinues) {
    signIn();
    {
        Running streaming(service.baseURL(),
                          {QStringLiteral("--json"), QStringLiteral("@text Part one.\n"
                                                                    "@stall 600000\n"
                                                                    "@text never")});
        ASSERT_TRUE(streaming.waitFor(QStringLiteral("one.")));
        streaming.interrupt();
        const auto run = streaming.finish();
        EXPECT_EQ(run.exitCode, 130) << run.err.toStdString();
        const auto events = Events::parse(run.out);
        EXPECT_EQ(events.reply().value(u"state").toString(), u"stopped");
        EXPECT_EQ(events.reply().value(u"text").toString(), u"Part one.");
        EXPECT_TRUE(events.metaTexts().contains(u"Response stopped."));
    }

    // A command that has been allowed through --json is running when the stop comes.
    const QString command = QStringLiteral("{\"command\":\"sleep 30\",\"cwd\":\"") +
                            workspace.path() + QStringLiteral("\"}");
    Running tooling(
        service.baseURL(),
        {QStringLiteral("--access"), QStringLiteral("full"),
         QStringLiteral("--accept-tool-billing"), QStringLiteral("--confirm-full-access"),
         QStringLiteral("--workspace"), workspace.path(), QStringLiteral("--json"),
         QStringLiteral("--save"),
         u"@tool run_shell " + command + u"\n@tool read_file {\"path\":\"notes.txt\"}"});
    ASSERT_TRUE(tooling.waitFor(QStringLiteral("\"type\":\"approval\"")));
    const auto approval = Events::parse(tooling.out()).ofType(QStringLiteral("approval"));
    ASSERT_EQ(approval.size(), 1);
    EXPECT_EQ(approval[0].value(u"tool").toString(), u"run_shell");
    EXPECT_EQ(approval[0].value(u"target").toString(), workspace.path());
    EXPECT_TRUE(approval[0]
                    .value(u"disclosure")
                    .toString()
                    .startsWith(u"This operation's bounded result will be sent to inference."));
    tooling.write(QStringLiteral("{\"approval\":\"%1\",\"allow\":true}\n")
                      .arg(approval[0].value(u"id").toString())
                      .toUtf8());
    ASSERT_TRUE(tooling.waitFor(QStringLiteral("\"state\":\"running\"")));
    tooling.interrupt();
    const auto stopped = tooling.finish();
    EXPECT_EQ(stopped.exitCode, 130) << stopped.err.toStdString();
    const auto events = Events::parse(stopped.out);
    // The second call never started.
    EXPECT_EQ(events.toolStates().last(), u"run_shell:stopped");
    EXPECT_FALSE(events.toolStates().join(u' ').contains(u"read_file"));
    EXPECT_EQ(events.reply().value(u"state").toString(), u"stopped");
    EXPECT_EQ(events.done().value(u"error").toString(),
              u"Stopped. Inspect interrupted edits before retrying.");
    const QString savedID = events.done().value(u"saved_id").toString();
    ASSERT_FALSE(savedID.isEmpty()) << stopped.err.toStdString();

    // The next turn sends both results: the stopped command's own, and the call that never ran
    // answered as cancelled.
    const auto continued =
        chat({QStringLiteral("--continue"), savedID, QStringLiteral("@tool-results")});
    ASSERT_EQ(continued.exitCode, 0) << continued.err.toStdString();
    const QStringList results = continued.out.trimmed().split(u'\n');
    ASSERT_EQ(results.size(), 2) << continued.out.toStdString();
    EXPECT_EQ(results[0],
              u"call_1 {\"status\":\"failed\",\"message\":\"The operation was cancelled.\"}");
    EXPECT_EQ(results[1], u"call_2 {\"status\":\"cancelled\",\"message\":\"Interrupted; inspect "
                          u"mutations before retrying.\"}");
}

TEST_F(ChatCommandEndToEnd, TheAccountsRefusalsAreShownAsTheyCome) {
    signIn();
    service.admin("POST", QStringLiteral("/admin/zero-retention"), R"({"enabled":true})");
    const auto unsaved = chat({QStringLiteral("--save"), QStringLiteral("@text Kept here.")});
    EXPECT_EQ(unsaved.exitCode, 1);
    EXPECT_EQ(unsaved.out, u"Kept here.\n");
    EXPECT_TRUE(unsaved.err.contains(u"Saving is off while Zero Data Retention is on."));
    // No save was even attempted: the service saw the chat, then the listing that follows.
    const auto listing =
        runCli(service.baseURL(), {QStringLiteral("chats"), QStringLiteral("list")});
    EXPECT_EQ(listing.exitCode, 0) << listing.err.toStdString();
    const QString log = service.logUntil(QStringLiteral("GET /api/chats"));
    EXPECT_TRUE(log.contains(u"POST /api/chat"));
    EXPECT_FALSE(log.contains(u"PUT /api/chats")) << log.toStdString();

    service.admin("POST", QStringLiteral("/admin/balance"), R"({"balance_usd":"0.00"})");
    const auto broke = chat({QStringLiteral("@text Too dear.")});
    EXPECT_EQ(broke.exitCode, 1);
    EXPECT_TRUE(broke.out.isEmpty());
    EXPECT_TRUE(broke.err.contains(u"The account's available credit does not cover this request. "
                                   u"Add credit or lower max_tokens."))
        << broke.err.toStdString();
}

} // namespace

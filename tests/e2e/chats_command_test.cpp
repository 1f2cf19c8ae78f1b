#include "account/keychain_token_store.h"
#include "cli_process.h"
#include "conversation/saved_chat_summary.h"
#include "conversation/saved_conversation.h"
#include "dev_service.h"
#include "run_task.h"
#include "secret_service.h"
#include "service/api_client.h"
#include "service/api_error.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;

// `kestrolan-cli chats` against the real development service: chats are saved through the
// app's own client, then listed, shown and deleted by the CLI as separate processes.
namespace {

class ChatsEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(SecretService::isPrivate()) << "no private Secret Service: run "
                                                   "through tests/support/with-secret-service";
    }

    void TearDown() override { m_client.reset(); }

    CliRun cli(const QStringList& arguments, const QByteArray& input = {}) const {
        QProcessEnvironment utc;
        utc.insert(QStringLiteral("TZ"), QStringLiteral("UTC"));
        return runCli(m_service.baseURL(), QStringList{QStringLiteral("chats")} + arguments, input,
                      utc);
    }

    void signIn() {
        const auto login = signInWithCli(m_service.baseURL());
        ASSERT_EQ(login.exitCode, 0) << login.err.toStdString();

        // The app's client, with the token the CLI keeps.
        const Configuration configuration(m_service.baseURL());
        m_client = std::make_unique<APIClient>(configuration,
                                               KeychainTokenStore::forApp(configuration.origin()));
    }

    SavedChatSummary save(const SavedConversation& conversation) {
        return runTask(m_client->saveChat(QUuid::createUuid(), conversation, true));
    }

    // The service stamps chats with its own clock; older chats are made by editing its
    // database, as days passing would.
    void backdate(const QUuid& id, const QDateTime& when) const {
        const QString name = QStringLiteral("backdate");
        {
            auto database = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
            database.setDatabaseName(m_service.dataDirectory() + u"/devservice.sqlite3");
            database.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=10000"));
            ASSERT_TRUE(database.open());
            QSqlQuery query(database);
            query.prepare(QStringLiteral("UPDATE chats SET updated_at = ? WHERE id = ?"));
            query.addBindValue(when.toMSecsSinceEpoch());
            query.addBindValue(id.toString(QUuid::WithoutBraces));
            ASSERT_TRUE(query.exec());
            EXPECT_EQ(query.numRowsAffected(), 1);
        }
        QSqlDatabase::removeDatabase(name);
    }

    APIClient& client() { return *m_client; }

    // The chat requests the service logged so far (it logs each request it answers), waiting until
    // one naming `until` has arrived.
    QStringList chatRequestsLogged(const QString& until) {
        const QString log = m_service.logUntil(until);
        QStringList requests;
        for (const auto& line : log.split(u'\n')) {
            if (line.contains(u" /api/chats"))
                requests.append(line.section(QStringLiteral(": "), 1).trimmed());
        }
        return requests;
    }

private:
    DevService m_service;
    std::unique_ptr<APIClient> m_client;
};

SavedConversation::Reply reply(const char* model, const char* text, int slot = 0) {
    SavedConversation::Reply r;
    r.slot = slot;
    r.model = QString::fromUtf8(model);
    r.text = QString::fromUtf8(text);
    return r;
}

SavedConversation chat(const QString& title, const char* user = "Hello") {
    SavedConversation c;
    c.version = 2;
    c.title = title;
    c.slots = {QStringLiteral("kestrolan/echo")};
    c.settings = {QString(), QStringLiteral("1024"), QStringLiteral("0.7")};
    SavedConversation::Turn turn;
    turn.user = QString::fromUtf8(user);
    turn.replies = {reply("kestrolan/echo", "Hi.")};
    c.turns = {turn};
    return c;
}

// Two turns; the first stopped while a tool ran in one column and failed in the other.
SavedConversation tripPlans() {
    auto c = chat(QStringLiteral("Trip plans"), "Where should we go?");
    c.slots.append(QStringLiteral("kestrolan/scripted"));
    auto& first = c.turns[0];
    first.attachments = QList{WireAttachment{QStringLiteral("notes.txt"), QStringLiteral("Sun.")}};
    auto echo = reply("kestrolan/echo", "Somewhere warm.");
    echo.state = SavedConversation::Reply::State::stopped;
    echo.exchanges = QList<ChatMessage>{
        ChatMessage{.role = ChatMessage::Role::assistant,
                    .toolCalls = QList<ToolCall>{{QStringLiteral("c1"),
                                                  QStringLiteral("function"),
                                                  {QStringLiteral("read_file"),
                                                   QStringLiteral(R"({"path":"notes.txt"})")}},
                                                 {QStringLiteral("c2"),
                                                  QStringLiteral("function"),
                                                  {QStringLiteral("web_search"),
                                                   QStringLiteral(R"({"query":"warm places"})")}}}},
        ChatMessage{.role = ChatMessage::Role::tool,
                    .content = QStringLiteral(R"({"text":"Sun."})"),
                    .toolCallID = QStringLiteral("c1")}};
    echo.meta = {
        {QStringLiteral("Total charged $0.000014"), false},
        {QStringLiteral("Billing confirmation pending; see Activity before continuing."), true}};
    auto scripted = reply("kestrolan/scripted", "", 1);
    scripted.state = SavedConversation::Reply::State::error;
    scripted.error = SavedConversation::ReplyError{QStringLiteral("insufficient_credit"),
                                                   QStringLiteral("Add credit to continue.")};
    first.replies = {echo, scripted};
    SavedConversation::Turn second;
    second.user = QStringLiteral("Thanks");
    second.replies = {reply("kestrolan/echo", "You're welcome.")};
    c.turns.append(second);
    return c;
}

QString listed(const SavedChatSummary& summary, const QString& title) {
    return u"  " + summary.id.toString(QUuid::WithoutBraces) + u"  " +
           summary.updatedAt.toUTC().toString(QStringLiteral("yyyy-MM-dd HH:mm")) + u"  " + title;
}

} // namespace

TEST_F(ChatsEndToEnd, ListsShowsAndDeletesTheAccountsChats) {
    const auto signedOut = cli({QStringLiteral("list")});
    EXPECT_EQ(signedOut.exitCode, 4);
    EXPECT_EQ(signedOut.err, u"Sign in to continue.\n" + signInHint);
    EXPECT_EQ(signedOut.out, u"");

    signIn();
    EXPECT_EQ(cli({QStringLiteral("list")}).out, u"No saved chats.\n");
    EXPECT_EQ(cli({QStringLiteral("list"), QStringLiteral("--json")}).out, u"[]\n");

    const QDate today = QDateTime::currentDateTimeUtc().date();
    const auto older = save(chat(QStringLiteral("Old notes")));
    const auto yesterday = save(chat(QStringLiteral("Yesterday's chat")));
    const auto thisWeek = save(chat(QStringLiteral("Earlier this week")));
    // Title text from the service cannot drive the terminal or break the listing's lines.
    auto noisy = save(chat(QStringLiteral("\x1b[31mRed\x1b[0m title\nsecond line")));
    const auto trip = save(tripPlans());
    EXPECT_EQ(trip.title, u"Trip plans");

    backdate(older.id, QDateTime(today.addDays(-40), QTime(9, 30), QTimeZone::utc()));
    backdate(yesterday.id, QDateTime(today.addDays(-1), QTime(12, 0), QTimeZone::utc()));
    backdate(thisWeek.id, QDateTime(today.addDays(-3), QTime(8, 15), QTimeZone::utc()));
    noisy.updatedAt = trip.updatedAt.addSecs(-1);
    backdate(noisy.id, noisy.updatedAt);
    const auto summaries = runTask(client().chats());
    ASSERT_EQ(summaries.size(), 5);
    const auto find = [&](const QUuid& id) {
        return *std::find_if(summaries.begin(), summaries.end(),
                             [&](const auto& s) { return s.id == id; });
    };

    const auto list = cli({QStringLiteral("list")});
    EXPECT_EQ(list.exitCode, 0) << list.err.toStdString();
    EXPECT_EQ(list.err, u"");
    EXPECT_EQ(list.out,
              QStringList({
                              QStringLiteral("Today"),
                              listed(find(trip.id), QStringLiteral("Trip plans")),
                              listed(find(noisy.id), QStringLiteral("Red title second line")),
                              QString(),
                              QStringLiteral("Yesterday"),
                              listed(find(yesterday.id), QStringLiteral("Yesterday's chat")),
                              QString(),
                              QStringLiteral("Previous 7 days"),
                              listed(find(thisWeek.id), QStringLiteral("Earlier this week")),
                              QString(),
                              QStringLiteral("Older"),
                              listed(find(older.id), QStringLiteral("Old notes")),
                          })
                      .join(u'\n') +
                  u'\n');

    const auto json = cli({QStringLiteral("list"), QStringLiteral("--json")});
    EXPECT_EQ(json.out.count(u'\n'), 1); // compact, like every --json
    const auto array = QJsonDocument::fromJson(json.out.toUtf8()).array();
    ASSERT_EQ(array.size(), 5);
    const QStringList groups{QStringLiteral("Today"), QStringLiteral("Today"),
                             QStringLiteral("Yesterday"), QStringLiteral("Previous 7 days"),
                             QStringLiteral("Older")};
    const QList<QUuid> order{trip.id, noisy.id, yesterday.id, thisWeek.id, older.id};
    for (int i = 0; i < 5; ++i) {
        const auto entry = array[i].toObject();
        EXPECT_EQ(QUuid::fromString(entry.value(u"id").toString()), order[i]) << i;
        EXPECT_EQ(entry.value(u"group").toString(), groups[i]) << i;
        EXPECT_EQ(SavedChatSummary::parseDate(entry.value(u"updated_at").toString()),
                  find(order[i]).updatedAt)
            << i;
    }
    EXPECT_EQ(array[1].toObject().value(u"title").toString(),
              u"\x1b[31mRed\x1b[0m title\nsecond line"); // JSON keeps the title as stored

    const QString tripID = trip.id.toString(QUuid::WithoutBraces);
    const auto shown = cli({QStringLiteral("show"), tripID});
    EXPECT_EQ(shown.exitCode, 0) << shown.err.toStdString();
    EXPECT_EQ(shown.out,
              u"Title: Trip plans\n"
              u"\n"
              u"You:\n"
              u"Where should we go?\n"
              u"[Attached: notes.txt]\n"
              u"\n"
              u"kestrolan/echo:\n"
              u"[Tool: read_file notes.txt]\n"
              u"[Tool: web_search warm places]\n"
              u"Somewhere warm.\n"
              u"Response stopped.\n"
              u"  Total charged $0.000014\n"
              u"  Warning: Billing confirmation pending; see Activity before continuing.\n"
              u"\n"
              u"kestrolan/scripted:\n"
              u"Error: Add credit to continue.\n"
              u"\n"
              u"You:\n"
              u"Thanks\n"
              u"\n"
              u"kestrolan/echo:\n"
              u"You're welcome.\n");
    const auto shownJson =
        cli({QStringLiteral("show"), tripID.toUpper(), QStringLiteral("--json")});
    EXPECT_EQ(shownJson.exitCode, 0) << shownJson.err.toStdString();
    EXPECT_EQ(shownJson.out.count(u'\n'), 1);
    EXPECT_EQ(QJsonDocument::fromJson(shownJson.out.toUtf8()).object(), tripPlans().toJson());

    const QString olderID = older.id.toString(QUuid::WithoutBraces);
    const auto deleted = cli({QStringLiteral("delete"), olderID});
    EXPECT_EQ(deleted.exitCode, 0) << deleted.err.toStdString();
    EXPECT_EQ(deleted.out, u"Deleted chat " + olderID + u".\n");
    EXPECT_FALSE(cli({QStringLiteral("list")}).out.contains(olderID));
    EXPECT_EQ(runTask(client().chats()).size(), 4);

    // A chat that is gone: the service's own words, and the failure exit code.
    QString serviceMessage;
    try {
        runTask(client().chat(older.id));
    } catch (const APIError& error) {
        serviceMessage = error.message();
    }
    ASSERT_FALSE(serviceMessage.isEmpty());
    const auto missing = cli({QStringLiteral("show"), olderID});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err, serviceMessage + u'\n');
    EXPECT_EQ(missing.out, u"");
}

TEST_F(ChatsEndToEnd, RefusesMalformedCommandLinesBeforeAnyRequest) {
    signIn();
    const auto usage = [this](const QStringList& arguments, const char* message) {
        const auto run = cli(arguments);
        EXPECT_EQ(run.exitCode, 2) << arguments.join(u' ').toStdString();
        EXPECT_TRUE(run.err.contains(QString::fromUtf8(message)))
            << arguments.join(u' ').toStdString() << ": " << run.err.toStdString();
        EXPECT_EQ(run.out, u"");
    };
    usage({}, "Usage: kestrolan-cli chats SUBCOMMAND");
    usage({QStringLiteral("rename")}, "unknown subcommand \"rename\"");
    usage({QStringLiteral("show")}, "give the id of one chat");
    usage({QStringLiteral("show"), QStringLiteral("not-an-id")}, "\"not-an-id\" is not a chat id");
    usage({QStringLiteral("delete"), QUuid::createUuid().toString(), QStringLiteral("extra")},
          "give the id of one chat");
    usage({QStringLiteral("delete"), QUuid::createUuid().toString(), QStringLiteral("--json")},
          "Unknown option 'json'");
    usage({QStringLiteral("list"), QStringLiteral("everything")}, "unexpected argument");

    const auto help = cli({QStringLiteral("show"), QStringLiteral("--help")});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.startsWith(u"Usage: kestrolan-cli chats show ID [--json]"));

    // Of all these, only the one well-formed command reached the service.
    EXPECT_EQ(cli({QStringLiteral("list")}).exitCode, 0);
    EXPECT_EQ(chatRequestsLogged(QStringLiteral("GET /api/chats")),
              QStringList{QStringLiteral("GET /api/chats 200")});
}

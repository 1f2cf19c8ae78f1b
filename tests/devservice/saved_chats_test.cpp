#include "devservice_process.h"

#include <QJsonDocument>
#include <QRegularExpression>
#include <QThread>
#include <QUuid>
#include <gtest/gtest.h>

using namespace kestrolan::test;

namespace {

QJsonObject conversation(const QString& system = {},
                         const QJsonValue& title = QStringLiteral("Trip plans")) {
    QJsonObject document{
        {QStringLiteral("version"), 2},
        {QStringLiteral("slots"), QJsonArray{QStringLiteral("kestrolan/echo")}},
        {QStringLiteral("settings"),
         QJsonObject{{QStringLiteral("system"), system},
                     {QStringLiteral("maxTokens"), QString()},
                     {QStringLiteral("temperature"), QStringLiteral("0.7")}}},
        {QStringLiteral("turns"),
         QJsonArray{QJsonObject{
             {QStringLiteral("user"), QStringLiteral("Where should we go?\nSomewhere warm.")},
             {QStringLiteral("replies"),
              QJsonArray{
                  QJsonObject{{QStringLiteral("slot"), 0},
                              {QStringLiteral("model"), QStringLiteral("kestrolan/echo")},
                              {QStringLiteral("text"), QStringLiteral("Where should we go?")},
                              {QStringLiteral("state"), QStringLiteral("complete")},
                              {QStringLiteral("finish_reason"), QStringLiteral("stop")},
                              {QStringLiteral("meta"),
                               QJsonArray{QJsonObject{
                                   {QStringLiteral("text"), QStringLiteral("Charged $0.000007")},
                                   {QStringLiteral("error"), false}}}}}}}}}},
    };
    if (!title.isUndefined())
        document.insert(QStringLiteral("title"), title);
    return document;
}

QByteArray encoded(const QJsonObject& document) {
    return QJsonDocument(document).toJson(QJsonDocument::Compact);
}

// A valid document of exactly `size` bytes.
QByteArray documentOfSize(qsizetype size) {
    const auto base = encoded(conversation()).size();
    return encoded(conversation(QString(size - base, u'x')));
}

QString chatPath(const QUuid& id) {
    return QStringLiteral("/api/chats/") + id.toString(QUuid::WithoutBraces);
}

} // namespace

TEST(DevServiceSavedChats, SaveListLoadAndDelete) {
    const DevServiceProcess service;
    const auto token = service.signIn();
    const auto id = QUuid::createUuid();
    const auto body = encoded(conversation());

    // Upper-case text names the same chat; the service answers in lower case.
    const QString upper =
        QStringLiteral("/api/chats/") + id.toString(QUuid::WithoutBraces).toUpper();
    const auto saved = service.put(upper, body, token);
    ASSERT_EQ(saved.status, 200) << saved.body.constData();
    const auto summary = saved.json();
    EXPECT_EQ(summary.value(QStringLiteral("id")).toString(), id.toString(QUuid::WithoutBraces));
    EXPECT_EQ(summary.value(QStringLiteral("title")).toString(), u"Trip plans");
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ$"))
                    .match(summary.value(QStringLiteral("updated_at")).toString())
                    .hasMatch());

    const auto loaded = service.get(chatPath(id), token);
    EXPECT_EQ(loaded.status, 200);
    EXPECT_EQ(loaded.body, body);

    QThread::msleep(5);
    const auto other = QUuid::createUuid();
    const auto untitled =
        service.put(chatPath(other), encoded(conversation({}, QJsonValue())), token);
    EXPECT_EQ(untitled.json().value(QStringLiteral("title")).toString(), u"Where should we go?");

    const auto list = service.get(QStringLiteral("/api/chats"), token).array();
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(list[0].toObject().value(QStringLiteral("id")).toString(),
              other.toString(QUuid::WithoutBraces));
    EXPECT_EQ(list[1].toObject(), summary);

    // Saving again replaces.
    EXPECT_EQ(service.put(chatPath(id), encoded(conversation({}, QStringLiteral("Renamed"))), token)
                  .status,
              200);
    EXPECT_EQ(service.get(QStringLiteral("/api/chats"), token).array().size(), 2);

    EXPECT_EQ(service.remove(chatPath(id), token).status, 200);
    const auto gone = service.get(chatPath(id), token);
    EXPECT_EQ(gone.status, 404);
    EXPECT_EQ(gone.error().value(QStringLiteral("code")).toString(), u"chat_not_found");
    EXPECT_EQ(service.remove(chatPath(id), token).status, 404);
    EXPECT_EQ(service.get(QStringLiteral("/api/chats/not-a-uuid"), token).status, 400);
    EXPECT_EQ(service.get(QStringLiteral("/api/chats")).status, 401);
}

TEST(DevServiceSavedChats, SizeLimitIsExact) {
    const DevServiceProcess service;
    const auto token = service.signIn();
    const auto atLimit = documentOfSize(1'048'576);
    ASSERT_EQ(atLimit.size(), 1'048'576);
    const auto id = QUuid::createUuid();
    EXPECT_EQ(service.put(chatPath(id), atLimit, token).status, 200);

    const auto over = documentOfSize(1'048'577);
    const auto refused = service.put(chatPath(QUuid::createUuid()), over, token);
    EXPECT_EQ(refused.status, 413);
    EXPECT_EQ(refused.error().value(QStringLiteral("code")).toString(), u"chat_too_large");
    EXPECT_EQ(service.get(QStringLiteral("/api/chats"), token).array().size(), 1);
    EXPECT_EQ(service.get(chatPath(id), token).body, atLimit);
}

TEST(DevServiceSavedChats, ZeroRetentionRefusesSaving) {
    const DevServiceProcess service;
    const auto token = service.signIn();
    const auto kept = QUuid::createUuid();
    ASSERT_EQ(service.put(chatPath(kept), encoded(conversation()), token).status, 200);

    ASSERT_EQ(service
                  .post(QStringLiteral("/admin/zero-retention"),
                        QJsonObject{{QStringLiteral("enabled"), true}})
                  .status,
              200);
    EXPECT_EQ(service.get(QStringLiteral("/api/account"), token)
                  .json()
                  .value(QStringLiteral("zero_retention")),
              QJsonObject({{QStringLiteral("enabled"), true}}));
    const auto refused = service.put(chatPath(QUuid::createUuid()), encoded(conversation()), token);
    EXPECT_EQ(refused.status, 403);
    EXPECT_EQ(refused.error().value(QStringLiteral("code")).toString(), u"zero_retention");
    EXPECT_EQ(refused.error().value(QStringLiteral("message")).toString(),
              u"Saving is off while Zero Data Retention is on.");
    // Overwriting a stored chat is saving too.
    EXPECT_EQ(
        service.put(chatPath(kept), encoded(conversation({}, QStringLiteral("New"))), token).status,
        403);
    const auto list = service.get(QStringLiteral("/api/chats"), token).array();
    ASSERT_EQ(list.size(), 1);
    EXPECT_EQ(list[0].toObject().value(QStringLiteral("title")).toString(), u"Trip plans");

    ASSERT_EQ(service
                  .post(QStringLiteral("/admin/zero-retention"),
                        QJsonObject{{QStringLiteral("enabled"), false}})
                  .status,
              200);
    EXPECT_EQ(service.put(chatPath(QUuid::createUuid()), encoded(conversation()), token).status,
              200);
}

TEST(DevServiceSavedChats, MalformedDocumentsAreRefused) {
    const DevServiceProcess service;
    const auto token = service.signIn();
    const auto refuse = [&](const QJsonObject& document, const QString& param) {
        const auto reply = service.put(chatPath(QUuid::createUuid()), encoded(document), token);
        EXPECT_EQ(reply.status, 400) << reply.body.constData();
        EXPECT_EQ(reply.error().value(QStringLiteral("param")).toString(), param);
    };
    auto document = conversation();
    QJsonArray turns;
    const QJsonValue turn = conversation().value(QStringLiteral("turns")).toArray().at(0);
    for (int i = 0; i < 1'001; ++i)
        turns.append(turn);
    document.insert(QStringLiteral("turns"), turns);
    refuse(document, QStringLiteral("turns"));
    turns.removeLast();
    document.insert(QStringLiteral("turns"), turns);
    EXPECT_EQ(service.put(chatPath(QUuid::createUuid()), encoded(document), token).status, 200);

    document = conversation();
    document.insert(QStringLiteral("version"), 3);
    refuse(document, QStringLiteral("version"));
    document = conversation();
    document.insert(QStringLiteral("version"), 1);
    auto firstTurn = turn.toObject();
    firstTurn.insert(QStringLiteral("attachments"), QJsonArray{});
    document.insert(QStringLiteral("turns"), QJsonArray{firstTurn});
    refuse(document, QStringLiteral("turns[0].attachments"));
    document = conversation();
    document.insert(QStringLiteral("extra"), 1);
    refuse(document, QStringLiteral("extra"));
    document = conversation();
    document.insert(QStringLiteral("slots"), QJsonArray{});
    refuse(document, QStringLiteral("turns[0].replies[0].slot"));
    EXPECT_TRUE(service.get(QStringLiteral("/api/chats"), token).array().size() == 1);
}

TEST(DevServiceSavedChats, BugReportsAreStoredUpTo28MiB) {
    const DevServiceProcess service;
    const auto token = service.signIn();
    const auto first =
        service.post(QStringLiteral("/api/bug-reports"),
                     QJsonObject{{QStringLiteral("summary"), QStringLiteral("Crash")}}, token);
    ASSERT_EQ(first.status, 200);
    EXPECT_FALSE(QUuid::fromString(first.json().value(QStringLiteral("id")).toString()).isNull());

    const auto id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    const auto report = QJsonObject{{QStringLiteral("id"), id}, {QStringLiteral("log"), QString()}};
    EXPECT_EQ(service.post(QStringLiteral("/api/bug-reports"), report, token)
                  .json()
                  .value(QStringLiteral("id")),
              id);
    EXPECT_EQ(service.post(QStringLiteral("/api/bug-reports"), report, token)
                  .json()
                  .value(QStringLiteral("id")),
              id);
    EXPECT_EQ(service.post(QStringLiteral("/api/bug-reports"), report).status, 401);

    const auto sized = [](qsizetype size) {
        const auto base = encoded(QJsonObject{{QStringLiteral("log"), QString()}}).size();
        return encoded(QJsonObject{{QStringLiteral("log"), QString(size - base, u'y')}});
    };
    const auto atLimit = sized(29'360'128);
    ASSERT_EQ(atLimit.size(), 29'360'128);
    EXPECT_EQ(service.post(QStringLiteral("/api/bug-reports"), atLimit, token).status, 200);
    const auto over = service.post(QStringLiteral("/api/bug-reports"), sized(29'360'129), token);
    EXPECT_EQ(over.status, 413);
    EXPECT_EQ(over.error().value(QStringLiteral("code")).toString(), u"request_too_large");
}

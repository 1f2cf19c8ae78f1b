#pragma once

#include "manual_approval_clock.h"
#include "run_task.h"
#include "service/api_client.h"
#include "tools/tool_executor.h"
#include "web/web_fetcher.h"
#include "workspace/workspace.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace kestrolan::test {

// An executor on a real folder, with a clock the test drives and a fetcher that may reach
// loopback servers.
class ToolExecutorTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_temp.isValid());
        ASSERT_TRUE(QDir().mkdir(m_folder));
        writeFile(m_folder + u"/notes.txt", "tide tables for the week\n");
    }

    static void writeFile(const QString& path, const QByteArray& bytes) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(bytes), bytes.size());
    }

    static std::shared_ptr<Workspace> open(const QString& path, bool wholeMachine = false) {
        return Workspace::open(QUrl::fromLocalFile(path), wholeMachine, ProtectedPaths());
    }

    void grant(LocalAccessMode mode, std::shared_ptr<Workspace> workspace) {
        m_executor.selectAccess(mode, std::move(workspace), m_origin, m_account, m_chat, true,
                                true);
    }

    ToolCall call(const QString& name, const QJsonObject& arguments) {
        return ToolCall{
            QStringLiteral("call-%1").arg(++m_calls),
            QStringLiteral("function"),
            {name, QString::fromUtf8(QJsonDocument(arguments).toJson(QJsonDocument::Compact))}};
    }

    // Full access takes absolute paths, the other modes paths inside the folder.
    ToolCall readNotes() {
        const QString path = m_executor.mode() == LocalAccessMode::fullAccess
                                 ? m_folder + u"/notes.txt"
                                 : QStringLiteral("notes.txt");
        return call(QStringLiteral("read_file"), {{QStringLiteral("path"), path}});
    }

    QCoro::Task<ChatMessage> execute(const ToolCall& toolCall) {
        return m_executor.execute(toolCall, m_origin, m_account, m_chat, m_offered, m_webClient,
                                  m_onWebBilling);
    }

    // An allowed command that is still running, its output begun, when this returns.
    QCoro::Task<ChatMessage> startSlowCommand() {
        auto task = execute(call(
            QStringLiteral("run_shell"),
            {{QStringLiteral("command"), QStringLiteral("echo started; touch started; sleep 20")},
             {QStringLiteral("cwd"), m_folder}}));
        if (!m_executor.pendingApproval()) {
            ADD_FAILURE() << "the command was not asked for";
            return task;
        }
        m_executor.resolveApproval(true, m_executor.pendingApproval()->id);
        const QString marker = m_folder + u"/started";
        runUntil([&] { return QFile::exists(marker); });
        return task;
    }

    static QJsonObject json(const ChatMessage& message) {
        return QJsonDocument::fromJson(message.content.toUtf8()).object();
    }

    // The status and message of a refused call.
    static std::pair<QString, QString> failure(const ChatMessage& message) {
        const QJsonObject object = json(message);
        return {object.value(u"status").toString(), object.value(u"message").toString()};
    }

    QTemporaryDir m_temp;
    QString m_folder = m_temp.filePath(QStringLiteral("work"));
    std::shared_ptr<ManualApprovalClock> m_clock = std::make_shared<ManualApprovalClock>();
    ToolExecutor m_executor{
        std::make_shared<const WebFetcher>(WebAddressPolicy::allowingLoopbackForTests()), m_clock};
    ServerOrigin m_origin{QStringLiteral("https"), QStringLiteral("api.example.com"), 443};
    QUuid m_account = QUuid::createUuid();
    QUuid m_chat = QUuid::createUuid();
    std::optional<QList<ToolDefinition>> m_offered =
        ToolDefinition::available(LocalAccessMode::fullAccess, WebToolSettings{true, true}, true);
    QPointer<APIClient> m_webClient;
    ToolExecutor::WebBillingCallback m_onWebBilling;
    int m_calls = 0;
};

} // namespace kestrolan::test

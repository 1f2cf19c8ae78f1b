#include "storage/local_privacy_error.h"
#include "tool_executor_fixture.h"
#include "tools/harness_error.h"

#include <QDir>
#include <QFile>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

using State = ToolActivity::State;

TEST_F(ToolExecutorTest, SelectingAccessNeedsEveryConsentAndAFittingFolder) {
    const auto folder = open(m_folder);
    const auto machine = open(m_folder, true);
    const auto refused = [&](LocalAccessMode mode, std::shared_ptr<Workspace> workspace,
                             bool billing, bool full) {
        try {
            m_executor.selectAccess(mode, std::move(workspace), m_origin, m_account, m_chat,
                                    billing, full);
        } catch (const HarnessError& error) {
            return error.kind() == HarnessError::Kind::accessDenied;
        }
        return false;
    };
    EXPECT_TRUE(refused(LocalAccessMode::readOnlyWorkspace, folder, false, true));
    EXPECT_TRUE(refused(LocalAccessMode::readOnlyWorkspace, nullptr, true, true));
    EXPECT_TRUE(refused(LocalAccessMode::fullAccess, machine, true, false));
    EXPECT_TRUE(refused(LocalAccessMode::fullAccess, folder, true, true));
    EXPECT_TRUE(refused(LocalAccessMode::askEveryTime, machine, true, true));
    EXPECT_FALSE(m_executor.grant());

    int changes = 0;
    QObject::connect(&m_executor, &ToolExecutor::grantChanged, [&] { ++changes; });
    grant(LocalAccessMode::readOnlyWorkspace, folder);
    ASSERT_TRUE(m_executor.grant());
    const LocalAccessGrant first = *m_executor.grant();
    EXPECT_EQ(first.rootIdentity, folder->identity());
    EXPECT_EQ(first.chatID, m_chat);
    EXPECT_EQ(first.context.origin(), u"https://api.example.com:443");
    EXPECT_EQ(first.context.accountID(), m_account);

    // A refused change keeps the grant as it was; every accepted one gets its own revision.
    EXPECT_TRUE(refused(LocalAccessMode::fullAccess, folder, true, true));
    EXPECT_EQ(m_executor.grant(), first);
    grant(LocalAccessMode::readOnlyWorkspace, folder);
    EXPECT_NE(m_executor.grant()->policyRevision, first.policyRevision);
    grant(LocalAccessMode::fullAccess, machine);
    EXPECT_EQ(m_executor.mode(), LocalAccessMode::fullAccess);

    ServerOrigin foreign{u"ftp"_s, u"example.com"_s, 21};
    EXPECT_THROW(m_executor.selectAccess(LocalAccessMode::readOnlyWorkspace, folder, foreign,
                                         m_account, m_chat, true, true),
                 LocalPrivacyError);
    m_executor.selectAccess(LocalAccessMode::off, nullptr, m_origin, m_account, m_chat, false,
                            false);
    EXPECT_FALSE(m_executor.grant());
    EXPECT_EQ(changes, 4);

    // A folder replaced on disk since it was opened cannot be granted.
    ASSERT_TRUE(QDir().rename(m_folder, m_folder + u"-moved"));
    ASSERT_TRUE(QDir().mkdir(m_folder));
    try {
        grant(LocalAccessMode::readOnlyWorkspace, folder);
        ADD_FAILURE() << "granted a replaced folder";
    } catch (const HarnessError& error) {
        EXPECT_EQ(error.kind(), HarnessError::Kind::staleWorkspace);
    }
    EXPECT_FALSE(m_executor.grant());
}

TEST_F(ToolExecutorTest, AnApprovalExpiresAfterTwoMinutes) {
    grant(LocalAccessMode::askEveryTime, open(m_folder));

    auto late = execute(readNotes());
    ASSERT_TRUE(m_executor.pendingApproval());
    const ToolApproval asked = *m_executor.pendingApproval();
    EXPECT_EQ(asked.disclosure(), u"This operation's bounded result will be sent to inference. "
                                  u"Scope: selected workspace. Allow once or Deny.");
    EXPECT_EQ(asked.expiresAt, m_clock->now().addSecs(120));
    EXPECT_EQ(m_executor.activities().last().state, State::awaitingApproval);
    m_executor.resolveApproval(true, QUuid::createUuid()); // not the question asked
    EXPECT_TRUE(m_executor.pendingApproval());
    m_clock->advance(121s);
    m_executor.resolveApproval(true, asked.id);
    EXPECT_EQ(failure(runTask(std::move(late))),
              std::pair(u"denied"_s, u"Local access was denied or revoked."_s));
    EXPECT_EQ(m_executor.activities().last().state, State::denied);
    EXPECT_FALSE(m_executor.pendingApproval());
    EXPECT_EQ(m_clock->alarmCount(), 0);

    auto inTime = execute(readNotes());
    m_clock->advance(119s);
    m_executor.resolveApproval(true, m_executor.pendingApproval()->id);
    EXPECT_TRUE(runTask(std::move(inTime)).content.contains(u"tide tables"));
    EXPECT_EQ(m_executor.activities().last().state, State::completed);

    // Nobody answers: the timer denies it.
    auto unanswered = execute(readNotes());
    m_clock->advance(119s);
    m_clock->fireDue();
    EXPECT_TRUE(m_executor.pendingApproval());
    m_clock->advance(1s);
    m_clock->fireDue();
    EXPECT_FALSE(m_executor.pendingApproval());
    EXPECT_EQ(failure(runTask(std::move(unanswered))).first, u"denied");
}

TEST_F(ToolExecutorTest, AnApprovalAskedUnderAnEarlierGrantIsDenied) {
    const auto folder = open(m_folder);
    grant(LocalAccessMode::askEveryTime, folder);

    // The mode changed while the question was open.
    auto afterModeChange = execute(readNotes());
    const QUuid first = m_executor.pendingApproval()->id;
    grant(LocalAccessMode::readOnlyWorkspace, folder);
    m_executor.resolveApproval(true, first);
    EXPECT_EQ(failure(runTask(std::move(afterModeChange))).first, u"denied");

    // The folder changed while the question was open.
    grant(LocalAccessMode::askEveryTime, folder);
    auto afterFolderChange = execute(readNotes());
    const QUuid second = m_executor.pendingApproval()->id;
    ASSERT_TRUE(QDir().mkdir(m_temp.filePath(u"other"_s)));
    grant(LocalAccessMode::askEveryTime, open(m_temp.filePath(u"other"_s)));
    m_executor.resolveApproval(true, second);
    EXPECT_EQ(failure(runTask(std::move(afterFolderChange))).first, u"denied");

    // Revoking denies the open question at once.
    grant(LocalAccessMode::askEveryTime, folder);
    auto revoked = execute(readNotes());
    m_executor.revoke();
    EXPECT_FALSE(m_executor.pendingApproval());
    EXPECT_EQ(failure(runTask(std::move(revoked))).first, u"denied");
    EXPECT_EQ(m_executor.activities().last().state, State::denied);
}

TEST_F(ToolExecutorTest, OnlyToolsOfferedInThatRequestRun) {
    grant(LocalAccessMode::readOnlyWorkspace, open(m_folder));
    const auto notOffered = std::pair(
        u"failed"_s,
        u"The tool call is invalid. Use only tools explicitly offered in this request."_s);

    m_offered = ToolDefinition::available(LocalAccessMode::off, WebToolSettings{true, true}, true);
    EXPECT_EQ(failure(runTask(execute(readNotes()))), notOffered);
    m_offered = std::nullopt;
    EXPECT_EQ(failure(runTask(execute(readNotes()))), notOffered);
    EXPECT_EQ(m_executor.activities().last().state, State::failed);

    m_offered = ToolDefinition::available(LocalAccessMode::readOnlyWorkspace, {}, true);
    EXPECT_EQ(failure(runTask(execute(
                  call(u"read_file"_s, {{u"path"_s, u"notes.txt"_s}, {u"mode"_s, u"r"_s}})))),
              std::pair(u"failed"_s, u"The tool call is invalid."_s));
    EXPECT_FALSE(m_executor.hasExecutedLocalRead());
    EXPECT_TRUE(runTask(execute(readNotes())).content.contains(u"tide tables"));
    EXPECT_TRUE(m_executor.hasExecutedLocalRead());
}

TEST_F(ToolExecutorTest, TheSeventeenthCallOfATurnDoesNotRun) {
    grant(LocalAccessMode::readOnlyWorkspace, open(m_folder));
    for (int i = 0; i < 16; ++i) {
        const ChatMessage answer = runTask(execute(readNotes()));
        ASSERT_TRUE(answer.content.contains(u"tide tables")) << answer.content.toStdString();
    }
    ToolCall seventeenth = readNotes();
    seventeenth.id = u"call-17"_s;
    const ChatMessage refused = runTask(execute(seventeenth));
    EXPECT_EQ(refused.toolCallID, u"call-17");
    EXPECT_EQ(failure(refused),
              std::pair(u"failed"_s, u"The turn reached its limit. Remove context, use an "
                                     u"excerpt, or start a new chat."_s));
    EXPECT_EQ(m_executor.activities().size(), 16);
    EXPECT_NE(m_executor.activities().last().id, u"call-17");

    m_executor.beginTurn();
    EXPECT_TRUE(m_executor.activities().isEmpty());
    EXPECT_TRUE(runTask(execute(readNotes())).content.contains(u"tide tables"));
}

TEST_F(ToolExecutorTest, ModesDecideWhatMayRunAndWhatIsAsked) {
    const QJsonObject create{
        {u"path"_s, u"new.txt"_s}, {u"content"_s, u"fresh"_s}, {u"create"_s, true}};
    const QJsonObject shell{{u"command"_s, u"touch ran"_s}, {u"cwd"_s, m_folder}};

    grant(LocalAccessMode::readOnlyWorkspace, open(m_folder));
    EXPECT_EQ(failure(runTask(execute(call(u"edit_file"_s, create)))).first, u"denied");
    EXPECT_EQ(failure(runTask(execute(call(u"run_shell"_s, shell)))).first, u"denied");

    grant(LocalAccessMode::askEveryTime, open(m_folder));
    EXPECT_EQ(failure(runTask(execute(call(u"run_shell"_s, shell)))),
              std::pair(u"failed"_s, HarnessError::describe(HarnessError::Kind::shellDisabled)));
    EXPECT_FALSE(QFile::exists(m_folder + u"/new.txt"));
    EXPECT_FALSE(QFile::exists(m_folder + u"/ran"));

    // An edit in Ask mode goes through every state once allowed.
    QList<State> states;
    QObject::connect(&m_executor, &ToolExecutor::activitiesChanged, [&] {
        if (!m_executor.activities().isEmpty() &&
            (states.isEmpty() || states.last() != m_executor.activities().last().state))
            states.append(m_executor.activities().last().state);
    });
    m_executor.beginTurn();
    auto edit = execute(call(u"edit_file"_s, create));
    m_executor.resolveApproval(true, m_executor.pendingApproval()->id);
    const ChatMessage edited = runTask(std::move(edit));
    EXPECT_FALSE(edited.content.contains(u"\"status\"")) << edited.content.toStdString();
    EXPECT_EQ(states, (QList<State>{State::preparing, State::awaitingApproval, State::editing,
                                    State::completed}));
    QFile created(m_folder + u"/new.txt");
    ASSERT_TRUE(created.open(QIODevice::ReadOnly));
    EXPECT_EQ(created.readAll(), "fresh");

    // Full access runs commands after approval, but only in an absolute working directory.
    grant(LocalAccessMode::fullAccess, open(m_folder, true));
    EXPECT_TRUE(runTask(execute(readNotes())).content.contains(u"tide tables")); // not asked
    auto relative =
        execute(call(u"run_shell"_s, {{u"command"_s, u"true"_s}, {u"cwd"_s, u"work"_s}}));
    m_executor.resolveApproval(true, m_executor.pendingApproval()->id);
    EXPECT_EQ(failure(runTask(std::move(relative))),
              std::pair(u"failed"_s, HarnessError::describe(HarnessError::Kind::unsafePath)));
    auto command = execute(call(u"run_shell"_s, shell));
    m_executor.resolveApproval(true, m_executor.pendingApproval()->id);
    const QJsonObject ran = json(runTask(std::move(command)));
    EXPECT_EQ(ran.value(u"exit_status").toInt(-2), 0);
    EXPECT_TRUE(QFile::exists(m_folder + u"/ran"));
}

TEST_F(ToolExecutorTest, CancellingStopsARunningCommand) {
    grant(LocalAccessMode::fullAccess, open(m_folder, true));
    auto running = startSlowCommand();
    m_executor.cancel();
    const ChatMessage answer = runTask(std::move(running));
    const QJsonObject result = json(answer);
    EXPECT_EQ(result.value(u"exit_status").toInt(), 128 + 9) << answer.content.toStdString();
    EXPECT_TRUE(result.value(u"output").toString().startsWith(u"started"));
    EXPECT_EQ(m_executor.activities().last().state, State::stopped);
    EXPECT_TRUE(m_executor.activities().last().elapsed.has_value());
    EXPECT_FALSE(m_executor.isExecuting());
    EXPECT_TRUE(m_executor.grant()); // cancel stops work, not access
}

TEST_F(ToolExecutorTest, ClearingWhileACallRunsEmptiesTheTimelineOnceItEnds) {
    // A read that ends after a revoke still put local text into the chat; one that ends after
    // the chat was cleared leaves no trace.
    grant(LocalAccessMode::readOnlyWorkspace, open(m_folder));
    auto revoked = execute(readNotes());
    m_executor.revoke();
    runTask(std::move(revoked));
    EXPECT_TRUE(m_executor.hasExecutedLocalRead());
    m_executor.clear();
    grant(LocalAccessMode::readOnlyWorkspace, open(m_folder));
    auto cleared = execute(readNotes());
    m_executor.clear();
    EXPECT_EQ(m_executor.activities().size(), 1);
    runTask(std::move(cleared));
    EXPECT_FALSE(m_executor.hasExecutedLocalRead());
    EXPECT_TRUE(m_executor.activities().isEmpty());

    grant(LocalAccessMode::fullAccess, open(m_folder, true));
    runTask(execute(readNotes()));
    ASSERT_TRUE(m_executor.hasExecutedLocalRead());

    bool idle = false;
    auto waiting = [](ToolExecutor* executor, bool* flag) -> QCoro::Task<void> {
        co_await executor->waitUntilIdle();
        *flag = true;
    }(&m_executor, &idle);
    EXPECT_TRUE(idle); // nothing was running

    auto running = startSlowCommand();
    idle = false;
    auto waitingForCommand = [](ToolExecutor* executor, bool* flag) -> QCoro::Task<void> {
        co_await executor->waitUntilIdle();
        *flag = true;
    }(&m_executor, &idle);
    m_executor.clear();
    EXPECT_FALSE(m_executor.grant());
    EXPECT_FALSE(m_executor.hasExecutedLocalRead());
    EXPECT_TRUE(m_executor.isExecuting());
    EXPECT_EQ(m_executor.activities().size(), 2);
    EXPECT_FALSE(idle);

    runTask(std::move(running));
    runTask(std::move(waitingForCommand));
    EXPECT_TRUE(idle);
    EXPECT_TRUE(m_executor.activities().isEmpty());
    EXPECT_FALSE(m_executor.isExecuting());
    EXPECT_FALSE(m_executor.hasExecutedLocalRead());
}

TEST_F(ToolExecutorTest, AFolderReplacedOnDiskEndsAccess) {
    grant(LocalAccessMode::readOnlyWorkspace, open(m_folder));

    // A grant is this chat's and this account's only.
    EXPECT_EQ(failure(runTask(m_executor.execute(readNotes(), m_origin, m_account,
                                                 QUuid::createUuid(), m_offered, nullptr, {})))
                  .first,
              u"denied");
    EXPECT_EQ(failure(runTask(m_executor.execute(readNotes(), m_origin, QUuid::createUuid(), m_chat,
                                                 m_offered, nullptr, {})))
                  .first,
              u"denied");

    ASSERT_TRUE(QDir().rename(m_folder, m_folder + u"-moved"));
    ASSERT_TRUE(QDir().mkdir(m_folder));
    writeFile(m_folder + u"/notes.txt", "planted");
    EXPECT_EQ(failure(runTask(execute(readNotes()))),
              std::pair(u"failed"_s, u"The workspace changed. Select it again."_s));
    EXPECT_FALSE(m_executor.grant());
    EXPECT_EQ(failure(runTask(execute(readNotes()))).first, u"denied");
}

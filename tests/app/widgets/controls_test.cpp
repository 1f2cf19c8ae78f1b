#include "approval_sheet.h"
#include "chat_service.h"
#include "composer.h"
#include "model_picker.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "tools/approval_clock.h"
#include "tools/attachment_error.h"
#include "tools/text_attachments.h"
#include "tools/tool_executor.h"
#include "workspace/workspace.h"

#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QTest>
#include <QTimeZone>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

namespace {

// An approval clock the test moves by hand; its alarms fire when the time passes them.
class ManualClock : public ApprovalClock {
public:
    class Alarm : public ApprovalAlarm {
    public:
        Alarm(ManualClock* owner, QDateTime at, std::function<void()> fire)
            : ApprovalAlarm(std::move(fire))
            , clock(owner)
            , when(std::move(at)) {
            clock->m_alarms.append(this);
        }
        ~Alarm() override { clock->m_alarms.removeAll(this); }
        ManualClock* clock;
        QDateTime when;
    };

    QDateTime now() const override { return m_now; }
    std::unique_ptr<ApprovalAlarm> alarm(const QDateTime& when,
                                         std::function<void()> fire) override {
        return std::make_unique<Alarm>(this, when, std::move(fire));
    }
    void advance(int seconds) {
        m_now = m_now.addSecs(seconds);
        for (Alarm* alarm : QList<Alarm*>(m_alarms)) {
            if (m_alarms.contains(alarm) && alarm->when <= m_now)
                alarm->fire();
        }
    }

private:
    QDateTime m_now = QDateTime::fromSecsSinceEpoch(1'700'000'000, Qt::UTC);
    QList<Alarm*> m_alarms;
};

QString writeFile(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(bytes);
    return path;
}

ToolCall readCall(const QString& path) {
    return {.id = u"call_1"_s,
            .type = u"function"_s,
            .function = {.name = u"read_file"_s, .arguments = u"{\"path\":\"" + path + u"\"}"}};
}

} // namespace

TEST(Composer, EnterSendsShiftEnterAddsALineAndAFailedSendKeepsTheDraft) {
    ChatService service;
    Composer composer;
    composer.setSession(&service.session);
    composer.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&composer));
    composer.editor()->setFocus();

    QTest::keyClicks(composer.editor(), u"first line"_s);
    QTest::keyClick(composer.editor(), Qt::Key_Return, Qt::ShiftModifier);
    QTest::keyClicks(composer.editor(), u"second"_s);
    EXPECT_EQ(composer.draft(), u"first line\nsecond");
    EXPECT_TRUE(service.session.conversation().turns.isEmpty());

    service.enqueue(ChatService::answer(u"Noted."_s));
    QTest::keyClick(composer.editor(), Qt::Key_Return);
    runUntil([&] {
        return !service.session.conversation().turns.isEmpty() && !service.session.isStreaming();
    });
    EXPECT_EQ(service.session.conversation().turns.first().user, u"first line\nsecond");
    EXPECT_TRUE(composer.draft().isEmpty());

    // Nothing queued: the service answers the next request with an error.
    const QString attached = writeFile(service.folder() + u"/notes.txt", "tide tables\n");
    runTask(composer.attach({QUrl::fromLocalFile(attached)}));
    ASSERT_EQ(composer.attachments().size(), 1);
    QTest::keyClicks(composer.editor(), u"will fail"_s);
    QTest::keyClick(composer.editor(), Qt::Key_Enter);
    runUntil([&] {
        return service.session.conversation().turns.size() == 2 && !service.session.isStreaming() &&
               !composer.draft().isEmpty();
    });
    EXPECT_EQ(composer.draft(), u"will fail");
    ASSERT_EQ(composer.attachments().size(), 1);
    EXPECT_EQ(composer.attachments().first().name, u"notes.txt");
    EXPECT_TRUE(service.session.errorMessage());
    EXPECT_FALSE(composer.notice().isEmpty());
}

TEST(Composer, RefusedFilesAreExplainedAndNothingOfThemIsAttached) {
    ChatService service;
    Composer composer;
    composer.setSession(&service.session);
    const QString folder = service.folder();
    const QString exact =
        writeFile(folder + u"/exact.txt", QByteArray(TextAttachments::maxFileBytes, 'a'));
    const QString over =
        writeFile(folder + u"/over.txt", QByteArray(TextAttachments::maxFileBytes + 1, 'a'));
    const QString binary = writeFile(folder + u"/image.bin", QByteArray("\x89PNG\0\0\x01", 7));

    // A file of exactly 64 KiB is taken; one byte more is refused with the rule it broke.
    runTask(composer.attach({QUrl::fromLocalFile(exact)}));
    EXPECT_EQ(composer.attachments().size(), 1);
    EXPECT_TRUE(composer.notice().isEmpty());
    runTask(composer.attach({QUrl::fromLocalFile(over)}));
    EXPECT_EQ(composer.notice(),
              AttachmentError::describe(AttachmentError::Kind::fileTooLarge, u"over.txt"_s));
    runTask(composer.attach({QUrl::fromLocalFile(binary)}));
    EXPECT_EQ(composer.notice(),
              AttachmentError::describe(AttachmentError::Kind::notText, u"image.bin"_s));
    EXPECT_EQ(composer.attachments().size(), 1);

    // The total counts what is attached already: a second full file passes 128 KiB only with a
    // third.
    const QString second =
        writeFile(folder + u"/second.txt", QByteArray(TextAttachments::maxFileBytes, 'b'));
    const QString third = writeFile(folder + u"/third.txt", "c");
    runTask(composer.attach({QUrl::fromLocalFile(second)}));
    EXPECT_EQ(composer.attachments().size(), 2);
    runTask(composer.attach({QUrl::fromLocalFile(third)}));
    EXPECT_EQ(composer.notice(),
              AttachmentError::describe(AttachmentError::Kind::totalTooLarge, u"third.txt"_s));
    EXPECT_EQ(composer.attachments().size(), 2);
}

TEST(ApprovalSheet, CountsDownOnTheExecutorsClockAndEscapeDenies) {
    auto clock = std::make_shared<ManualClock>();
    ToolExecutor executor(nullptr, clock);
    QTemporaryDir folder;
    writeFile(folder.filePath(u"notes.txt"_s), "high tide at 06:12\n");
    const ServerOrigin origin = ServerOrigin::of(QUrl(u"https://chat.example.com"_s));
    const QUuid account = QUuid::createUuid();
    const QUuid chat = QUuid::createUuid();
    executor.selectAccess(
        LocalAccessMode::askEveryTime,
        Workspace::open(QUrl::fromLocalFile(folder.path()), false, ProtectedPaths()), origin,
        account, chat, true, false);
    const auto offered = ToolDefinition::available(LocalAccessMode::askEveryTime, {}, true);

    QWidget window;
    window.resize(600, 400);
    window.show();
    ApprovalSheet sheet(clock, &window);
    sheet.setExecutor(&executor);
    EXPECT_FALSE(sheet.isVisible());

    std::optional<ChatMessage> answer;
    auto run = [&]() -> QCoro::Task<void> {
        answer = co_await executor.execute(readCall(u"notes.txt"_s), origin, account, chat, offered,
                                           nullptr, {});
    };
    auto first = run();
    runUntil([&] { return sheet.isVisible(); });
    EXPECT_EQ(sheet.countdownText(), u"Denied automatically in 2:00.");
    clock->advance(61);
    sheet.tick();
    EXPECT_EQ(sheet.secondsLeft(), 59);
    EXPECT_EQ(sheet.countdownText(), u"Denied automatically in 0:59.");
    QStringList texts;
    for (const auto* label : sheet.findChildren<QLabel*>())
        texts.append(label->text());
    EXPECT_TRUE(texts.contains(executor.pendingApproval()->disclosure()));
    EXPECT_TRUE(texts.contains(u"Closing or waiting two minutes denies this operation. File text "
                               u"cannot grant permission."_s));
    EXPECT_TRUE(texts.contains(u"notes.txt"_s));

    QTest::keyClick(&sheet, Qt::Key_Escape);
    runUntil([&] { return answer.has_value(); });
    EXPECT_TRUE(answer->content.contains(u"\"denied\"")) << answer->content.toStdString();
    EXPECT_EQ(executor.activities().last().state, ToolActivity::State::denied);
    EXPECT_FALSE(sheet.isVisible());

    // Allow once runs the operation; the sheet leaves when the question is answered.
    answer.reset();
    auto second = run();
    runUntil([&] { return sheet.isVisible(); });
    EXPECT_EQ(sheet.countdownText(), u"Denied automatically in 2:00.");
    for (auto* button : sheet.findChildren<QPushButton*>()) {
        if (button->text() == u"Allow once")
            QTest::mouseClick(button, Qt::LeftButton);
    }
    runUntil([&] { return answer.has_value(); });
    EXPECT_TRUE(answer->content.contains(u"high tide")) << answer->content.toStdString();
    EXPECT_FALSE(sheet.isVisible());

    // Left unanswered, the question is denied when its two minutes pass, and the sheet goes.
    answer.reset();
    auto third = run();
    runUntil([&] { return sheet.isVisible(); });
    clock->advance(120);
    runUntil([&] { return answer.has_value(); });
    EXPECT_TRUE(answer->content.contains(u"\"denied\"")) << answer->content.toStdString();
    EXPECT_FALSE(sheet.isVisible());
}

TEST(ModelPicker, FiltersAndNeverChoosesAnUnavailableModel) {
    ChatService service;
    ModelPicker picker;
    picker.setCatalog(&service.catalog);
    picker.setSession(&service.session);
    picker.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&picker));
    auto* list = picker.list();

    auto names = [&] {
        QStringList shown;
        for (int i = 0; i < list->count(); ++i)
            shown.append(list->item(i)->data(Qt::AccessibleTextRole).toString());
        return shown;
    };
    // Available models first, then the unavailable ones, each in catalog order.
    EXPECT_EQ(names(), (QStringList{u"Swift"_s, u"Deep"_s, u"Archive"_s, u"Fast Old"_s}));
    EXPECT_TRUE(list->item(0)->text().contains(
        u"$0.15 in · $0.60 out per 1M tokens · 128K context · tools"));
    EXPECT_TRUE(list->item(1)->text().contains(
        u"$2.50 in · $10.00 out per 1M tokens · 1.5M context · no tools"));
    EXPECT_FALSE(list->item(2)->flags() & Qt::ItemIsEnabled);

    // Description matches too, without regard to case.
    QTest::keyClicks(picker.searchField(), u"FAST"_s);
    EXPECT_EQ(names(), (QStringList{u"Swift"_s, u"Fast Old"_s}));

    // The keyboard skips unavailable models and wraps.
    picker.searchField()->clear();
    picker.searchField()->setFocus();
    EXPECT_EQ(picker.state().highlightedID, u"lab/swift"_s);
    QTest::keyClick(picker.searchField(), Qt::Key_Down);
    EXPECT_EQ(picker.state().highlightedID, u"lab/deep"_s);
    QTest::keyClick(picker.searchField(), Qt::Key_Down);
    EXPECT_EQ(picker.state().highlightedID, u"lab/swift"_s);

    // Clicking an unavailable model changes nothing; choosing an available one is remembered.
    const QRect archive = list->visualItemRect(list->item(2));
    QTest::mouseDClick(list->viewport(), Qt::LeftButton, {}, archive.center());
    EXPECT_FALSE(picker.choose(u"lab/archive"_s));
    EXPECT_EQ(service.catalog.selectedModelID(), u"lab/swift"_s);
    EXPECT_EQ(service.defaults.string(u"lastUsedModel"_s), u"lab/swift"_s);
    QTest::keyClick(picker.searchField(), Qt::Key_Down);
    QTest::keyClick(picker.searchField(), Qt::Key_Return);
    EXPECT_EQ(service.catalog.selectedModelID(), u"lab/deep"_s);
    EXPECT_EQ(service.defaults.string(u"lastUsedModel"_s), u"lab/deep"_s);
    EXPECT_EQ(service.session.slotModels().value(0), u"lab/deep"_s);
}

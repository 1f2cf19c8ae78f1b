#include "qstring_printer.h"
#include "scheduling/task_draft.h"
#include "scheduling/task_filter.h"

#include <date/tz.h>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace kestrolan {
namespace {

using Field = EditorValidationError::Field;

class TaskDraftValidation : public ::testing::Test {
protected:
    TaskDraftValidation() {
        catalog.append(CatalogModel{.id = u"kestrolan/echo"_s, .available = true});
        catalog.append(CatalogModel{.id = u"kestrolan/retired"_s, .available = false});
        agents.append(
            Agent{.id = QUuid::createUuid(), .name = u"Writer"_s, .model = u"kestrolan/echo"_s});
        agents.append(
            Agent{.id = QUuid::createUuid(), .name = u"Old"_s, .model = u"kestrolan/retired"_s});
        draft.name = u"Digest"_s;
        draft.prompt = u"Summarise my day."_s;
        draft.model = u"kestrolan/echo"_s;
    }

    // The field and message of the first broken rule; nothing when the draft is valid.
    std::optional<std::pair<Field, QString>> failure(const TaskDraft& checked) const {
        const auto error = checked.validate(agents, catalog, now, date::locate_zone("UTC"));
        if (!error)
            return std::nullopt;
        return std::pair{error->field(), error->message()};
    }

    static std::pair<Field, QString> broken(Field field, QString message) {
        return {field, std::move(message)};
    }

    QList<CatalogModel> catalog;
    QList<Agent> agents;
    TaskDraft draft;
    std::chrono::sys_seconds now{std::chrono::seconds(1'767'225'600)}; // 2026-01-01
};

TEST_F(TaskDraftValidation, NamesAreTrimmedAndBoundedInCharactersAndBytes) {
    EXPECT_EQ(failure(draft), std::nullopt);
    TaskDraft d = draft;
    d.name = u" \n\t "_s;
    EXPECT_EQ(failure(d), broken(Field::name, u"Enter a name."_s));
    d.name = u"  "_s + QString(200, u'n') + u"\n"_s;
    EXPECT_EQ(failure(d), std::nullopt);
    d.name = QString(201, u'n');
    EXPECT_EQ(failure(d), broken(Field::name, u"Keep the name under 201 characters."_s));
    // 200 characters of two bytes each pass; of five bytes each (an "e" with two combining
    // accents is one character) they take 1,000 bytes and fail.
    d.name.clear();
    for (int i = 0; i < 200; ++i)
        d.name += u"\u00e9"_s;
    EXPECT_EQ(failure(d), std::nullopt);
    d.name.clear();
    for (int i = 0; i < 200; ++i)
        d.name += u"e\u0301\u0301"_s;
    EXPECT_EQ(failure(d), broken(Field::name, u"Keep the name under 201 characters."_s));
}

TEST_F(TaskDraftValidation, PromptsMustSaySomethingWithin128KiB) {
    TaskDraft d = draft;
    d.prompt = u"     "_s;
    EXPECT_EQ(failure(d), broken(Field::prompt, u"Enter a prompt."_s));
    d.prompt = QString(131'070, u'p') + u"\u00e9"_s; // exactly 131,072 bytes
    EXPECT_EQ(failure(d), std::nullopt);
    d.prompt += u'p';
    EXPECT_EQ(failure(d), broken(Field::prompt, u"Keep task prompts within 128 KiB."_s));
    // Earlier rules win: an empty name is reported before the prompt.
    d.name.clear();
    EXPECT_EQ(failure(d)->first, Field::name);
}

TEST_F(TaskDraftValidation, AgentsAndModelsMustBeAvailable) {
    TaskDraft d = draft;
    d.model = u"kestrolan/retired"_s;
    EXPECT_EQ(failure(d), broken(Field::model, u"Choose an available model."_s));
    d.model = u"unknown/model"_s;
    EXPECT_EQ(failure(d), broken(Field::model, u"Choose an available model."_s));

    d.usesAgent = true;
    EXPECT_EQ(failure(d), broken(Field::agent, u"Choose an agent."_s));
    d.agentID = QUuid::createUuid(); // deleted meanwhile
    EXPECT_EQ(failure(d), broken(Field::agent, u"Choose an agent."_s));
    d.agentID = agents.at(1).id;
    EXPECT_EQ(failure(d), broken(Field::model, u"This agent’s model is unavailable."_s));
    // With an agent the draft's own model does not matter.
    d.agentID = agents.at(0).id;
    EXPECT_EQ(failure(d), std::nullopt);
    const ScheduledTask task = d.task(agents, catalog, now, date::locate_zone("UTC"));
    EXPECT_EQ(task.agentID, agents.at(0).id);
    EXPECT_EQ(task.model, std::nullopt);
}

TEST_F(TaskDraftValidation, SchedulesMustParseAndHaveAnUpcomingDate) {
    TaskDraft d = draft;
    d.cadence = TaskDraft::Cadence::custom;
    d.customCron = u"0 0 31 2 *"_s;
    EXPECT_EQ(failure(d), broken(Field::schedule, u"This schedule has no upcoming date."_s));
    d.customCron = u"0 9 * *"_s;
    EXPECT_EQ(failure(d),
              broken(Field::schedule, u"Enter five fields: minute, hour, day, month, weekday."_s));
    d.cadence = TaskDraft::Cadence::daily;
    d.hour = 24;
    EXPECT_EQ(failure(d), broken(Field::schedule, u"Invalid hour field in schedule."_s));
    EXPECT_THROW(d.task(agents, catalog, now, date::locate_zone("UTC")), EditorValidationError);
}

TEST_F(TaskDraftValidation, CadencesMapOntoPresetsBothWays) {
    TaskDraft d = draft;
    d.name = u"  Weekly review \n"_s;
    d.cadence = TaskDraft::Cadence::weekly;
    d.weekday = 5;
    d.hour = 17;
    d.minute = 30;
    d.notify = true;
    d.projectID = QUuid::createUuid();
    const ScheduledTask task = d.task(agents, catalog, now, date::locate_zone("UTC"));
    EXPECT_EQ(task.name, u"Weekly review"_s);
    EXPECT_EQ(task.cron.expression(), u"30 17 * * 5"_s);
    EXPECT_EQ(task.model, u"kestrolan/echo"_s);
    TaskDraft reopened = TaskDraft::fromTask(task);
    EXPECT_EQ(reopened.cadence, TaskDraft::Cadence::weekly);
    EXPECT_EQ(std::tuple(reopened.weekday, reopened.hour, reopened.minute), std::tuple(5, 17, 30));
    EXPECT_EQ(reopened.projectID, d.projectID);
    EXPECT_TRUE(reopened.notify);

    ScheduledTask custom = task;
    custom.cron = CronExpression(u"*/15 9-17 * * 1-5");
    reopened = TaskDraft::fromTask(custom);
    EXPECT_EQ(reopened.cadence, TaskDraft::Cadence::custom);
    EXPECT_EQ(reopened.customCron, u"*/15 9-17 * * 1-5"_s);
    custom.cron = CronExpression(u"0 8 * * mon-fri");
    EXPECT_EQ(TaskDraft::fromTask(custom).cadence, TaskDraft::Cadence::weekdays);
}

ScheduledTask named(const QString& name, bool enabled, const QString& prompt = {}) {
    return ScheduledTask{.id = QUuid::createUuid(),
                         .name = name,
                         .prompt = prompt,
                         .cron = CronExpression(u"0 9 * * *"),
                         .enabled = enabled};
}

QStringList names(const QList<ScheduledTask>& tasks) {
    QStringList result;
    for (const auto& task : tasks)
        result << task.name;
    return result;
}

TEST(TaskFilter, KeepsStateAndMatchesNamesWithoutCaseOrDiacritics) {
    const QList<ScheduledTask> tasks{
        named(u"Café report"_s, true),  named(u"Paused one"_s, false),
        named(u"Über digest"_s, false), named(u"Inbox"_s, true, u"cafe in the prompt"_s),
        named(u"ﬁnance"_s, false), // the "fi" ligature
    };
    EXPECT_EQ(names(apply(TaskFilter::paused, tasks, QString())),
              (QStringList{u"Paused one"_s, u"Über digest"_s, u"ﬁnance"_s}));
    EXPECT_EQ(names(apply(TaskFilter::active, tasks, u"  \n"_s)),
              (QStringList{u"Café report"_s, u"Inbox"_s}));
    EXPECT_EQ(names(apply(TaskFilter::all, tasks, u" CAFE "_s)), QStringList{u"Café report"_s});
    EXPECT_EQ(names(apply(TaskFilter::all, tasks, u"uber"_s)), QStringList{u"Über digest"_s});
    EXPECT_EQ(names(apply(TaskFilter::paused, tasks, u"FIN"_s)), QStringList{u"ﬁnance"_s});
    EXPECT_EQ(names(apply(TaskFilter::active, tasks, u"über"_s)), QStringList());

    QStringList labels;
    for (const auto filter : allTaskFilters)
        labels << toString(filter);
    EXPECT_EQ(labels, (QStringList{u"All"_s, u"Active"_s, u"Paused"_s}));
    EXPECT_EQ(taskFilterFromString(u"Paused"), TaskFilter::paused);
}

} // namespace
} // namespace kestrolan

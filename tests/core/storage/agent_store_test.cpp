#include "memory_local_key_store.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "storage/agent_store.h"
#include "storage/editor_validation_error.h"
#include "storage/encrypted_local_storage.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

namespace {

CatalogModel model(const QString& id, bool available) {
    CatalogModel entry;
    entry.id = id;
    entry.available = available;
    return entry;
}

Agent draft(const QString& name, const QString& modelID, const QString& temperature = {}) {
    Agent agent;
    agent.name = name;
    agent.instructions = u"Review the code."_s;
    agent.model = modelID;
    agent.temperature = temperature;
    return agent;
}

std::optional<EditorValidationError> validationFailure(QCoro::Task<Agent> task) {
    try {
        runTask(std::move(task));
    } catch (const EditorValidationError& error) {
        return error;
    }
    return std::nullopt;
}

} // namespace

TEST(AgentStore, AgentsReadBackAndRefusedEditsWriteNothing) {
    QTemporaryDir folder;
    const EncryptedLocalStorage storage(
        folder.filePath(u"Kestrolan/Local"_s),
        LocalAccountContext::make(QUrl(u"http://127.0.0.1:8787"_s), QUuid::createUuid()),
        std::make_shared<MemoryLocalKeyStore>());
    const QList<CatalogModel> catalog = {model(u"small"_s, true), model(u"large"_s, true),
                                         model(u"retired"_s, false)};
    QDateTime now = QDateTime::fromString(u"2025-03-01T10:00:00.000Z"_s, Qt::ISODateWithMs);
    AgentStore store(storage, [&] { return now; });

    // Nothing reaches the disk before an agent passes validation.
    EXPECT_EQ(validationFailure(store.create(draft(u"Old"_s, u"retired"_s), catalog)),
              EditorValidationError(EditorValidationError::Field::model,
                                    u"Choose an available model."_s));
    EXPECT_EQ(
        validationFailure(store.create(draft(u"Hot"_s, u"small"_s, u"2.5"_s), catalog))->field(),
        EditorValidationError::Field::temperature);
    EXPECT_FALSE(storage.hasSealedRecords());

    const Agent reviewer =
        runTask(store.create(draft(u" Reviewer "_s, u"small"_s, u" 0.2 "_s), catalog));
    EXPECT_EQ(reviewer.name, u"Reviewer");
    EXPECT_EQ(reviewer.temperature, u"0.2");
    EXPECT_EQ(reviewer.createdAt, now);
    const Agent writer = runTask(store.create(draft(u"Writer"_s, u"large"_s), catalog));

    now = now.addDays(1);
    Agent edited = reviewer;
    edited.model = u"large"_s;
    edited.temperature = QString();
    edited.createdAt = now; // the created date stays the first one
    const auto updated = runTask(store.update(edited, catalog));
    ASSERT_TRUE(updated);
    EXPECT_EQ(updated->createdAt, reviewer.createdAt);
    EXPECT_EQ(updated->model, u"large");
    EXPECT_EQ(updated->temperatureValue(), std::nullopt);

    Agent broken = *updated;
    broken.model = u"retired"_s;
    EXPECT_THROW(runTask(store.update(broken, catalog)), EditorValidationError);
    EXPECT_FALSE(runTask(store.update(draft(u"Nobody"_s, u"small"_s), catalog)));

    AgentStore reopened(storage);
    EXPECT_EQ(runTask(reopened.list()), (QList<Agent>{*updated, writer}));
    EXPECT_TRUE(runTask(reopened.remove(writer.id)));
    EXPECT_FALSE(runTask(reopened.remove(writer.id)));
    EXPECT_EQ(runTask(store.list()), QList<Agent>{*updated});
}

TEST(AgentStore, ImportAddsOnlyAgentsNotThereYet) {
    AgentStore store(std::nullopt);
    const QList<CatalogModel> catalog = {model(u"small"_s, true)};
    const Agent kept = runTask(store.create(draft(u"Kept"_s, u"small"_s), catalog));

    Agent sameID = kept;
    sameID.name = u"From the old file"_s;
    Agent added = draft(u"Added"_s, u"gone-from-catalog"_s);
    added.id = QUuid::createUuid();
    added.createdAt = QDateTime::fromString(u"2024-01-01T00:00:00.000Z"_s, Qt::ISODateWithMs);
    runTask(store.importLegacy({sameID, added}));
    runTask(store.importLegacy({added}));
    EXPECT_EQ(runTask(store.list()), (QList<Agent>{kept, added}));
}

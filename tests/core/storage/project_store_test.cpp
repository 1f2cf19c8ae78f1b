#include "memory_local_key_store.h"
#include "qstring_printer.h"
#include "run_task.h"
#include "storage/agent_store.h"
#include "storage/editor_validation_error.h"
#include "storage/encrypted_local_storage.h"
#include "storage/local_privacy_error.h"
#include "storage/project_store.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

namespace {

// Projects on real sealed files in a temporary data folder (…/Kestrolan/Local), with keys in
// memory: the keyring is not the subject here.
class ProjectStoreTest : public ::testing::Test {
protected:
    ProjectStoreTest()
        : m_keys(std::make_shared<MemoryLocalKeyStore>())
        , m_storage(m_folder.filePath(u"Kestrolan/Local"_s),
                    LocalAccountContext::make(
                        QUrl(u"https://example.com"_s),
                        QUuid::fromString(u"3F2504E0-4F89-41D3-9A0C-0305E82C3301"_s)),
                    m_keys) {}

    // A clock the test moves.
    std::function<QDateTime()> clock() {
        return [this] { return m_now; };
    }

    QByteArray sealedBytes(const QString& record) const {
        QFile file(m_storage.url(record));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    static Project draft(const QString& name, const QString& instructions = {}) {
        Project project;
        project.name = name;
        project.instructions = instructions;
        return project;
    }

    QTemporaryDir m_folder;
    std::shared_ptr<MemoryLocalKeyStore> m_keys;
    EncryptedLocalStorage m_storage;
    QDateTime m_now = QDateTime::fromString(u"2025-03-01T10:00:00.000Z"_s, Qt::ISODateWithMs);
};

template <class T>
std::optional<LocalPrivacyError::Kind> privacyFailure(QCoro::Task<T> task) {
    try {
        runTask(std::move(task));
    } catch (const LocalPrivacyError& error) {
        return error.kind();
    }
    return std::nullopt;
}

template <class T>
std::optional<EditorValidationError> validationFailure(QCoro::Task<T> task) {
    try {
        runTask(std::move(task));
    } catch (const EditorValidationError& error) {
        return error;
    }
    return std::nullopt;
}

} // namespace

TEST_F(ProjectStoreTest, ProjectsAndFilesReadBackThroughAnyStoreOfTheAccount) {
    ProjectStore store(m_storage, clock());
    const QDateTime created = m_now;
    const Project alpha = runTask(store.create(draft(u"  Alpha \n"_s, u"Be brief."_s)));
    const Project beta = runTask(store.create(draft(u"Beta"_s)));
    EXPECT_EQ(alpha.name, u"Alpha");
    EXPECT_EQ(alpha.createdAt, created);
    EXPECT_EQ(alpha.updatedAt, created);
    EXPECT_NE(alpha.id, beta.id);

    const ProjectFile plan{u"plan.md"_s, u"Ship on Monday."_s};
    const ProjectFile notes{u"notes.txt"_s, u"caf\u00e9"_s};
    const ProjectFile spec{u"spec.txt"_s, u"Beta only"_s};
    EXPECT_TRUE(runTask(store.addFile(alpha.id, plan)));
    EXPECT_TRUE(runTask(store.addFile(alpha.id, notes)));
    EXPECT_TRUE(runTask(store.addFile(beta.id, spec)));

    m_now = m_now.addSecs(60);
    Project renamed = alpha;
    renamed.name = u"Alpha 2"_s;
    renamed.instructions = u"Be thorough."_s;
    renamed.createdAt = QDateTime(); // not the caller's to change
    const auto updated = runTask(store.update(renamed));
    ASSERT_TRUE(updated);
    EXPECT_EQ(updated->createdAt, created);
    EXPECT_EQ(updated->updatedAt, m_now);
    EXPECT_EQ(updated->instructions, u"Be thorough.");

    // Another store over the same account, as another process would have, sees all of it.
    ProjectStore other(m_storage);
    EXPECT_EQ(runTask(other.list()), (QList<Project>{*updated, beta}));
    EXPECT_EQ(runTask(other.projectFiles(alpha.id)), (QList<ProjectFile>{plan, notes}));
    EXPECT_EQ(runTask(other.projectFiles(beta.id)), QList<ProjectFile>{spec});

    // A file of the same name replaces the old one in its place.
    const ProjectFile newPlan{u"plan.md"_s, u"Ship on Tuesday."_s};
    EXPECT_TRUE(runTask(other.addFile(alpha.id, newPlan)));
    EXPECT_EQ(runTask(store.projectFiles(alpha.id)), (QList<ProjectFile>{newPlan, notes}));
    EXPECT_TRUE(runTask(store.removeFile(alpha.id, u"notes.txt"_s)));
    EXPECT_FALSE(runTask(store.removeFile(alpha.id, u"notes.txt"_s)));
    EXPECT_EQ(runTask(other.projectFiles(alpha.id)), QList<ProjectFile>{newPlan});

    // Deleting a project deletes its files' record too.
    const QString betaFiles = m_storage.url(ProjectStore::filesRecord(beta.id));
    ASSERT_TRUE(QFile::exists(betaFiles));
    EXPECT_TRUE(runTask(store.remove(beta.id)));
    EXPECT_FALSE(QFile::exists(betaFiles));
    EXPECT_EQ(runTask(other.list()), QList<Project>{*updated});

    // An id that is not there changes nothing.
    const QUuid unknown = QUuid::createUuid();
    EXPECT_FALSE(runTask(store.update(Project{unknown, u"X"_s, {}, {}, {}})));
    EXPECT_FALSE(runTask(store.addFile(unknown, plan)));
    EXPECT_FALSE(runTask(store.addFile(beta.id, plan)));
    EXPECT_FALSE(runTask(store.removeFile(unknown, u"plan.md"_s)));
    EXPECT_FALSE(runTask(store.remove(beta.id)));
    EXPECT_TRUE(runTask(store.projectFiles(unknown)).isEmpty());
    EXPECT_FALSE(QFile::exists(m_storage.url(ProjectStore::filesRecord(unknown))));
    EXPECT_EQ(runTask(other.list()), QList<Project>{*updated});
}

TEST_F(ProjectStoreTest, FileChangesLeaveTheProjectListRecordUntouched) {
    ProjectStore store(m_storage, clock());
    const Project project = runTask(store.create(draft(u"Big files"_s)));
    const QByteArray list = sealedBytes(ProjectStore::listRecord.toString());
    ASSERT_FALSE(list.isEmpty());

    EXPECT_TRUE(runTask(store.addFile(project.id, ProjectFile{u"a.txt"_s, QString(4096, u'a')})));
    EXPECT_TRUE(runTask(store.addFile(project.id, ProjectFile{u"b.txt"_s, u"b"_s})));
    EXPECT_TRUE(runTask(store.removeFile(project.id, u"a.txt"_s)));
    EXPECT_FALSE(sealedBytes(ProjectStore::filesRecord(project.id)).isEmpty());
    // Every write seals under a fresh nonce, so a rewrite would change the bytes.
    EXPECT_EQ(sealedBytes(ProjectStore::listRecord.toString()), list);

    runTask(store.update(Project{project.id, u"Renamed"_s, {}, {}, {}}));
    EXPECT_NE(sealedBytes(ProjectStore::listRecord.toString()), list);
}

TEST_F(ProjectStoreTest, RefusedChangesWriteNothing) {
    ProjectStore store(m_storage, clock());
    EXPECT_EQ(validationFailure(store.create(draft(u" "_s)))->field(),
              EditorValidationError::Field::name);
    EXPECT_EQ(validationFailure(store.create(draft(u"P"_s, QString(32 * 1024 + 1, u'x'))))->field(),
              EditorValidationError::Field::instructions);
    EXPECT_FALSE(m_storage.hasSealedRecords());

    const Project project = runTask(store.create(draft(QString(200, u'p'))));
    EXPECT_EQ(validationFailure(store.update(Project{project.id, QString(201, u'p'), {}, {}, {}}))
                  ->message(),
              u"Keep the name under 201 characters.");
    EXPECT_EQ(runTask(store.list()), QList<Project>{project});

    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(runTask(
            store.addFile(project.id, ProjectFile{u"f"_s + QString::number(i), u"text"_s})));
    }
    const auto fifty = runTask(store.projectFiles(project.id));
    EXPECT_EQ(fifty.size(), 50);
    const auto fiftyFirst = validationFailure(store.addFile(project.id, {u"f50"_s, u"text"_s}));
    ASSERT_TRUE(fiftyFirst);
    EXPECT_EQ(fiftyFirst->message(), u"Keep a project to 50 files or fewer.");
    // Replacing one of the fifty is no fifty-first.
    EXPECT_TRUE(runTask(store.addFile(project.id, {u"f7"_s, u"new text"_s})));
    EXPECT_EQ(
        validationFailure(store.addFile(project.id, {u"big"_s, QString(1024 * 1024 + 1, u'b')}))
            ->message(),
        u"Keep each file within 1 MiB.");
    const auto kept = runTask(store.projectFiles(project.id));
    EXPECT_EQ(kept.size(), 50);
    EXPECT_EQ(kept.at(7).text, u"new text");
}

TEST_F(ProjectStoreTest, RecordsThatDoNotDecodeReadAsCorrupt) {
    ProjectStore projects(m_storage);
    AgentStore agents(m_storage);
    const QJsonArray notAProject{QJsonObject{{u"id"_s, u"x"_s}}};
    m_storage.writeDocument(QJsonDocument(notAProject), ProjectStore::listRecord);
    m_storage.writeDocument(QJsonDocument(QJsonObject{{u"agents"_s, QJsonArray()}}),
                            AgentStore::record);
    EXPECT_EQ(privacyFailure(projects.list()), LocalPrivacyError::Kind::corrupt);
    EXPECT_EQ(privacyFailure(projects.create(draft(u"P"_s))), LocalPrivacyError::Kind::corrupt);
    EXPECT_EQ(privacyFailure(agents.list()), LocalPrivacyError::Kind::corrupt);

    // A files record copied over another project's name does not open.
    m_storage.writeDocument(QJsonDocument(QJsonArray()), ProjectStore::listRecord);
    const Project a = runTask(projects.create(draft(u"A"_s)));
    const Project b = runTask(projects.create(draft(u"B"_s)));
    ASSERT_TRUE(runTask(projects.addFile(a.id, {u"a.txt"_s, u"a"_s})));
    ASSERT_TRUE(runTask(projects.addFile(b.id, {u"b.txt"_s, u"b"_s})));
    const QString bFile = m_storage.url(ProjectStore::filesRecord(b.id));
    ASSERT_TRUE(QFile::remove(bFile));
    ASSERT_TRUE(QFile::copy(m_storage.url(ProjectStore::filesRecord(a.id)), bFile));
    EXPECT_EQ(privacyFailure(projects.projectFiles(b.id)), LocalPrivacyError::Kind::corrupt);
}

TEST_F(ProjectStoreTest, PlaintextFilesOfTheOlderLayoutWaitForAnExplicitImport) {
    const QString dataFolder = m_folder.filePath(u"Kestrolan"_s);
    ASSERT_TRUE(QDir().mkpath(dataFolder));
    QFile legacy(dataFolder + u"/task-runs.json"_s);
    ASSERT_TRUE(legacy.open(QIODevice::WriteOnly));
    legacy.write("[]");
    legacy.close();

    ProjectStore projects(m_storage);
    AgentStore agents(m_storage);
    const auto required = LocalPrivacyError::Kind::legacyImportRequired;
    EXPECT_EQ(privacyFailure(projects.list()), required);
    EXPECT_EQ(privacyFailure(projects.create(draft(u"P"_s))), required);
    EXPECT_EQ(privacyFailure(agents.list()), required);
    EXPECT_FALSE(m_storage.hasSealedRecords());
    EXPECT_EQ(LocalPrivacyError(required).description(),
              u"Import legacy local data explicitly into the signed-in account.");

    // An account that already keeps sealed data is past the import.
    m_storage.writeDocument(QJsonDocument(QJsonArray()), AgentStore::record);
    EXPECT_TRUE(runTask(projects.list()).isEmpty());
    EXPECT_TRUE(runTask(agents.list()).isEmpty());

    // A store without storage never looks at the disk.
    ProjectStore memory(std::nullopt);
    EXPECT_TRUE(runTask(memory.list()).isEmpty());
}

TEST_F(ProjectStoreTest, InMemoryStoreWorksAloneAndForgets) {
    ProjectStore store(std::nullopt, clock());
    const Project project = runTask(store.create(draft(u"Scratch"_s)));
    EXPECT_TRUE(runTask(store.addFile(project.id, {u"a.txt"_s, u"a"_s})));
    EXPECT_EQ(runTask(store.list()), QList<Project>{project});
    EXPECT_EQ(runTask(store.projectFiles(project.id)).size(), 1);
    EXPECT_FALSE(QDir(m_folder.path()).exists(u"Kestrolan"_s));
    runTask(store.forgetLocalData());
    EXPECT_TRUE(runTask(store.list()).isEmpty());
    EXPECT_TRUE(runTask(store.projectFiles(project.id)).isEmpty());
}

TEST_F(ProjectStoreTest, ForgettingRemovesEveryRecordAndTheKeyAndClosingRefusesWork) {
    ProjectStore projects(m_storage);
    AgentStore agents(m_storage);
    const Project project = runTask(projects.create(draft(u"P"_s)));
    ASSERT_TRUE(runTask(projects.addFile(project.id, {u"a.txt"_s, u"a"_s})));
    ASSERT_TRUE(m_keys->hasKey(m_storage.context()));

    runTask(projects.forgetLocalData());
    EXPECT_FALSE(QDir(m_storage.accountDirectory()).exists());
    EXPECT_FALSE(m_keys->hasKey(m_storage.context()));
    EXPECT_TRUE(runTask(agents.list()).isEmpty());

    runTask(projects.close());
    EXPECT_TRUE(projects.isClosed());
    EXPECT_EQ(privacyFailure(projects.list()), LocalPrivacyError::Kind::unavailable);
    EXPECT_EQ(privacyFailure(projects.create(draft(u"Q"_s))), LocalPrivacyError::Kind::unavailable);
    EXPECT_FALSE(m_storage.hasSealedRecords());
}

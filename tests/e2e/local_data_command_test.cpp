#include "cli_process.h"
#include "dev_service.h"
#include "secret_service.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QUuid>
#include <gtest/gtest.h>

using namespace kestrolan;
using namespace kestrolan::test;
using namespace Qt::StringLiterals;

// `kestrolan-cli projects`, `agents` and `local` against the development service, each run a
// process of its own over one data folder with the keyring of a private Secret Service.
namespace {

class LocalDataEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(SecretService::isPrivate()) << "no private Secret Service: run "
                                                   "through tests/support/with-secret-service";
        m_environment.insert(u"XDG_DATA_HOME"_s, m_data.path());
    }

    CliRun cli(const QStringList& arguments, const QByteArray& input = {}) const {
        return runCli(m_service.baseURL(), arguments, input, m_environment);
    }

    // Runs a command that must succeed and returns its standard output.
    QString ok(const QStringList& arguments) const {
        const auto run = cli(arguments);
        EXPECT_EQ(run.exitCode, 0)
            << arguments.join(u' ').toStdString() << ": " << run.err.toStdString();
        return run.out;
    }

    QJsonDocument json(const QStringList& arguments) const {
        const QString out = ok(arguments + QStringList{u"--json"_s});
        EXPECT_EQ(out.count(u'\n'), 1) << out.toStdString();
        return QJsonDocument::fromJson(out.toUtf8());
    }

    void signIn() {
        const auto login = signInWithCli(m_service.baseURL());
        ASSERT_EQ(login.exitCode, 0) << login.err.toStdString();
    }

    QString dataFolder() const { return m_data.filePath(u"Kestrolan"_s); }

    QString writeFile(const QString& name, const QByteArray& bytes) const {
        const QString path = m_files.filePath(name);
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(bytes);
        return path;
    }

    DevService m_service;
    QTemporaryDir m_data;
    QTemporaryDir m_files;
    QProcessEnvironment m_environment;
};

QString failed(const QString& description) {
    return description + u'\n';
}

} // namespace

TEST_F(LocalDataEndToEnd, ProjectsAndAgentsAreKeptFromTheTerminal) {
    const auto signedOut = cli({u"projects"_s, u"list"_s});
    EXPECT_EQ(signedOut.exitCode, 4);
    EXPECT_TRUE(signedOut.err.endsWith(signInHint)) << signedOut.err.toStdString();
    signIn();
    EXPECT_EQ(json({u"projects"_s, u"list"_s}).array(), QJsonArray());

    // Refused input exits 1 with the rule's message and leaves nothing behind.
    const auto unnamed = cli({u"projects"_s, u"create"_s, u"--name"_s, u"  "_s});
    EXPECT_EQ(unnamed.exitCode, 1);
    EXPECT_EQ(unnamed.err, failed(u"Enter a name."_s));
    const auto longName = cli({u"projects"_s, u"create"_s, u"--name"_s, QString(201, u'n')});
    EXPECT_EQ(longName.exitCode, 1);
    EXPECT_EQ(longName.err, failed(u"Keep the name under 201 characters."_s));
    EXPECT_EQ(json({u"local"_s, u"status"_s})[u"records"_s].toArray(), QJsonArray());

    const QString id = ok({u"projects"_s, u"create"_s, u"--name"_s, u"Launch"_s,
                           u"--instructions"_s, u"Answer in French."_s})
                           .trimmed();
    ASSERT_FALSE(QUuid::fromString(id).isNull()) << id.toStdString();

    const QString plan = writeFile(u"plan.md"_s, "Ship on Monday.\n");
    EXPECT_EQ(ok({u"projects"_s, u"add-file"_s, id, plan}),
              u"Added \"plan.md\" to project "_s + id + u".\n");
    const auto binary =
        cli({u"projects"_s, u"add-file"_s, id, writeFile(u"blob.bin"_s, QByteArray("a\0b", 3))});
    EXPECT_EQ(binary.exitCode, 1);
    EXPECT_EQ(binary.err, failed(u"Import only UTF-8 text files without NUL bytes."_s));
    const auto large = cli({u"projects"_s, u"add-file"_s, id,
                            writeFile(u"large.txt"_s, QByteArray(1024 * 1024 + 1, 'x'))});
    EXPECT_EQ(large.exitCode, 1);
    EXPECT_EQ(large.err, failed(u"Keep each file within 1 MiB."_s));
    ok({u"projects"_s, u"add-file"_s, id, writeFile(u"full.txt"_s, QByteArray(1024 * 1024, 'x'))});

    ok({u"projects"_s, u"edit"_s, id, u"--name"_s, u"Launch 2"_s});
    const QJsonObject shown = json({u"projects"_s, u"show"_s, id}).object();
    EXPECT_EQ(shown.value(u"id"_s).toString(), id);
    EXPECT_EQ(shown.value(u"name"_s).toString(), u"Launch 2");
    EXPECT_EQ(shown.value(u"instructions"_s).toString(), u"Answer in French.");
    EXPECT_EQ(shown.value(u"files"_s).toArray(),
              (QJsonArray{QJsonObject{{u"name"_s, u"plan.md"_s}, {u"bytes"_s, 16}},
                          QJsonObject{{u"name"_s, u"full.txt"_s}, {u"bytes"_s, 1024 * 1024}}}));
    const QJsonArray projects = json({u"projects"_s, u"list"_s}).array();
    ASSERT_EQ(projects.size(), 1);
    EXPECT_EQ(projects.first()[u"id"_s].toString(), id);
    EXPECT_EQ(projects.first()[u"name"_s].toString(), u"Launch 2");

    ok({u"projects"_s, u"remove-file"_s, id, u"plan.md"_s});
    const auto gone = cli({u"projects"_s, u"remove-file"_s, id, u"plan.md"_s});
    EXPECT_EQ(gone.exitCode, 1);
    EXPECT_EQ(gone.err, failed(u"Project "_s + id + u" has no file named \"plan.md\"."_s));

    // Agents take an available model of the service's catalog.
    const auto retired = cli(
        {u"agents"_s, u"create"_s, u"--name"_s, u"Old"_s, u"--model"_s, u"kestrolan/retired"_s});
    EXPECT_EQ(retired.exitCode, 1);
    EXPECT_EQ(retired.err, failed(u"Choose an available model."_s));
    const auto hot = cli({u"agents"_s, u"create"_s, u"--name"_s, u"Hot"_s, u"--model"_s,
                          u"kestrolan/echo"_s, u"--temperature"_s, u"2.5"_s});
    EXPECT_EQ(hot.exitCode, 1);
    EXPECT_EQ(hot.err, failed(u"Enter a temperature from 0 to 2."_s));
    const QString agent =
        ok({u"agents"_s, u"create"_s, u"--name"_s, u"Reviewer"_s, u"--model"_s, u"kestrolan/echo"_s,
            u"--temperature"_s, u"0.3"_s, u"--instructions"_s, u"Review."_s})
            .trimmed();
    ok({u"agents"_s, u"edit"_s, agent, u"--temperature"_s, u""_s});
    const QJsonArray agents = json({u"agents"_s, u"list"_s}).array();
    ASSERT_EQ(agents.size(), 1);
    EXPECT_EQ(agents.first()[u"id"_s].toString(), agent);
    EXPECT_EQ(agents.first()[u"name"_s].toString(), u"Reviewer");
    EXPECT_EQ(agents.first()[u"model"_s].toString(), u"kestrolan/echo");
    EXPECT_EQ(agents.first()[u"temperature"_s].toString(), u"");

    // Everything is sealed on disk: no record shows its text.
    const QJsonObject status = json({u"local"_s, u"status"_s}).object();
    const QString directory = status.value(u"account_directory"_s).toString();
    EXPECT_TRUE(directory.startsWith(dataFolder() + u"/Local/"_s)) << directory.toStdString();
    QStringList names;
    qint64 total = 0;
    for (const auto& record : status.value(u"records"_s).toArray()) {
        names << record[u"name"_s].toString();
        total += record[u"bytes"_s].toInteger();
        QFile file(directory + u'/' + record[u"name"_s].toString() + u".krenc"_s);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray sealed = file.readAll();
        EXPECT_EQ(sealed.size(), record[u"bytes"_s].toInteger());
        EXPECT_FALSE(sealed.contains("Launch") || sealed.contains("Reviewer") ||
                     sealed.contains("xxxxxxxx"));
    }
    names.sort();
    EXPECT_EQ(names, (QStringList{u"agents"_s, u"project-files-"_s + id, u"projects"_s}));
    EXPECT_EQ(status.value(u"quota_used"_s).toInteger(), total);
    EXPECT_EQ(status.value(u"quota"_s).toInteger(), 52'428'800);
    EXPECT_FALSE(status.value(u"legacy_import_required"_s).toBool());

    ok({u"projects"_s, u"delete"_s, id});
    ok({u"agents"_s, u"delete"_s, agent});
    EXPECT_EQ(json({u"projects"_s, u"list"_s}).array(), QJsonArray());
    EXPECT_EQ(json({u"agents"_s, u"list"_s}).array(), QJsonArray());
    const auto missing = cli({u"projects"_s, u"show"_s, id});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err, failed(u"No project has the id "_s + id + u"."_s));
    EXPECT_FALSE(QFile::exists(directory + u"/project-files-"_s + id + u".krenc"_s));
}

TEST_F(LocalDataEndToEnd, OlderPlaintextFilesAreImportedExplicitlyAndDataCanBeForgotten) {
    signIn();
    ASSERT_TRUE(QDir().mkpath(dataFolder()));
    const QString created = u"2024-05-01T08:30:00.000Z"_s;
    const QJsonObject project{
        {u"id"_s, QUuid::createUuid().toString(QUuid::WithoutBraces)},
        {u"name"_s, u"Old project"_s},
        {u"instructions"_s, u""_s},
        {u"createdAt"_s, created},
        {u"updatedAt"_s, created},
        {u"files"_s, QJsonArray{QJsonObject{{u"name"_s, u"a.txt"_s}, {u"text"_s, u"a"_s}}}}};
    QJsonObject badProject = project;
    badProject.insert(u"name"_s, u""_s);
    const auto put = [&](const QString& name, const QJsonArray& content) {
        QFile file(dataFolder() + u'/' + name);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(QJsonDocument(content).toJson());
    };
    put(u"projects.json"_s, {badProject});
    put(u"agents.json"_s,
        {QJsonObject{{u"id"_s, QUuid::createUuid().toString(QUuid::WithoutBraces)},
                     {u"name"_s, u"Old agent"_s},
                     {u"instructions"_s, u""_s},
                     {u"model"_s, u"kestrolan/echo"_s},
                     {u"temperature"_s, u""_s},
                     {u"createdAt"_s, created}}});

    // The plaintext files are never read on their own: the stores wait for an import.
    const auto waiting = cli({u"projects"_s, u"list"_s});
    EXPECT_EQ(waiting.exitCode, 1);
    EXPECT_EQ(waiting.err,
              failed(u"Import legacy local data explicitly into the signed-in account."_s));
    EXPECT_TRUE(json({u"local"_s, u"status"_s}).object()[u"legacy_import_required"_s].toBool());

    const auto refused = cli({u"local"_s, u"import-legacy"_s, dataFolder()});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err,
              failed(u"Nothing was imported: \"projects.json\" is not valid: Enter a name."_s));
    EXPECT_TRUE(QFile::exists(dataFolder() + u"/projects.json"_s));
    EXPECT_TRUE(QFile::exists(dataFolder() + u"/agents.json"_s));

    put(u"projects.json"_s, {project});
    EXPECT_EQ(ok({u"local"_s, u"import-legacy"_s, dataFolder()}),
              u"Imported 1 project (1 file), 1 agent, 0 scheduled tasks and 0 task runs.\n");
    EXPECT_FALSE(QFile::exists(dataFolder() + u"/projects.json"_s));
    EXPECT_FALSE(QFile::exists(dataFolder() + u"/agents.json"_s));
    const QJsonArray projects = json({u"projects"_s, u"list"_s}).array();
    ASSERT_EQ(projects.size(), 1);
    EXPECT_EQ(projects.first()[u"name"_s].toString(), u"Old project");
    EXPECT_EQ(json({u"agents"_s, u"list"_s}).array().size(), 1);

    // A record moved under another name does not open.
    const QString directory = json({u"local"_s, u"status"_s})[u"account_directory"_s].toString();
    ASSERT_TRUE(QFile::rename(directory + u"/projects.krenc"_s, directory + u"/saved.krenc"_s));
    ASSERT_TRUE(QFile::copy(directory + u"/agents.krenc"_s, directory + u"/projects.krenc"_s));
    const auto corrupt = cli({u"projects"_s, u"list"_s});
    EXPECT_EQ(corrupt.exitCode, 1);
    EXPECT_EQ(
        corrupt.err,
        failed(u"Local encrypted data could not be verified. Restore it before continuing."_s));
    ASSERT_TRUE(QFile::remove(directory + u"/projects.krenc"_s));
    ASSERT_TRUE(QFile::rename(directory + u"/saved.krenc"_s, directory + u"/projects.krenc"_s));

    // Without a terminal, forgetting needs --yes.
    const auto unconfirmed = cli({u"local"_s, u"forget"_s}, "yes\n");
    EXPECT_EQ(unconfirmed.exitCode, 2);
    EXPECT_EQ(json({u"projects"_s, u"list"_s}).array().size(), 1);

    EXPECT_EQ(ok({u"local"_s, u"forget"_s, u"--yes"_s}), u"Forgot this account's local data.\n");
    EXPECT_FALSE(QDir(directory).exists());
    EXPECT_EQ(json({u"projects"_s, u"list"_s}).array(), QJsonArray());
    EXPECT_EQ(json({u"local"_s, u"status"_s})[u"records"_s].toArray(), QJsonArray());
}

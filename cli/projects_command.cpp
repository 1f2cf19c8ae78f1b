#include "projects_command.h"

#include "command_line.h"
#include "local_command.h"
#include "service_connection.h"
#include "storage/project_store.h"
#include "support/uuid_text.h"
#include "tools/tool_text.h"

#include <QCommandLineParser>
#include <QCoroFuture>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QLocale>
#include <QtConcurrent>
#include <memory>

namespace kestrolan::cli {
namespace {

const QString groupHelp = QStringLiteral(
    "Usage: kestrolan-cli projects SUBCOMMAND\n"
    "\n"
    "Projects keep instructions and imported text files that a chat in the project sends to\n"
    "the model; they are stored encrypted on this computer for the signed-in account.\n"
    "\n"
    "Subcommands:\n"
    "  list          List the projects\n"
    "  show          Show one project with its files\n"
    "  create        Create a project and print its id\n"
    "  edit          Change a project's name or instructions\n"
    "  delete        Delete a project and its files\n"
    "  add-file      Import a text file into a project\n"
    "  remove-file   Remove an imported file from a project\n"
    "\n"
    "Run \"kestrolan-cli projects SUBCOMMAND --help\" for its options.");

const QString listHelp = QStringLiteral(
    "Usage: kestrolan-cli projects list [--json]\n"
    "\n"
    "Lists the projects, one line each: id and name.\n"
    "\n"
    "Options:\n"
    "  --json       print one line of JSON: an array of {id, name, instructions, createdAt,\n"
    "               updatedAt}\n"
    "  -h, --help   show this help");

const QString showHelp = QStringLiteral(
    "Usage: kestrolan-cli projects show ID [--json]\n"
    "\n"
    "Shows the project's name, dates, instructions and imported files with their sizes.\n"
    "\n"
    "Options:\n"
    "  --json       print one line of JSON: the project with \"files\", each {name, bytes}\n"
    "  -h, --help   show this help");

const QString createHelp = QStringLiteral(
    "Usage: kestrolan-cli projects create --name NAME [--instructions TEXT]\n"
    "\n"
    "Creates a project and prints its id. The name has 1 to 200 characters; instructions\n"
    "take at most 32 KiB.\n"
    "\n"
    "Options:\n"
    "  --name NAME           the project's name\n"
    "  --instructions TEXT   what a chat in the project tells the model\n"
    "  -h, --help            show this help");

const QString editHelp =
    QStringLiteral("Usage: kestrolan-cli projects edit ID [--name NAME] [--instructions TEXT]\n"
                   "\n"
                   "Changes the project's name, its instructions or both.\n"
                   "\n"
                   "Options:\n"
                   "  --name NAME           the new name\n"
                   "  --instructions TEXT   the new instructions (\"\" removes them)\n"
                   "  -h, --help            show this help");

const QString deleteHelp = QStringLiteral("Usage: kestrolan-cli projects delete ID\n"
                                          "\n"
                                          "Deletes the project and its imported files.\n"
                                          "\n"
                                          "Options:\n"
                                          "  -h, --help   show this help");

const QString addFileHelp = QStringLiteral(
    "Usage: kestrolan-cli projects add-file ID FILE\n"
    "\n"
    "Imports FILE, a UTF-8 text file without NUL bytes of at most 1 MiB, into the project under\n"
    "its file name, replacing an imported file of that name. A project holds up to 50 files.\n"
    "Chats in the project send the files to the model as untrusted data.\n"
    "\n"
    "Options:\n"
    "  -h, --help   show this help");

const QString removeFileHelp = QStringLiteral("Usage: kestrolan-cli projects remove-file ID NAME\n"
                                              "\n"
                                              "Removes the imported file NAME from the project.\n"
                                              "\n"
                                              "Options:\n"
                                              "  -h, --help   show this help");

QString command(const QString& subcommand) {
    return u"projects " + subcommand;
}

// Stored text reaches a terminal: no escape sequences, no controls.
QString oneLine(const QString& text) {
    QString line = ToolText::escaped(text);
    line.replace(u'\n', u' ').replace(u'\t', u' ');
    return line;
}

QString localTime(const QDateTime& instant) {
    return instant.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm"));
}

QString notFound(const QUuid& id) {
    return u"No project has the id " + uuidText(id) + u'.';
}

std::optional<QUuid> projectID(const Console& console, const QString& subcommand,
                               const QString& text) {
    return LocalCommand::idArgument(console, command(subcommand), text,
                                    QStringLiteral("a project id"));
}

const Project* find(const QList<Project>& projects, const QUuid& id) {
    const auto found = std::find_if(projects.begin(), projects.end(),
                                    [&](const Project& project) { return project.id == id; });
    return found == projects.end() ? nullptr : &*found;
}

QCoro::Task<std::unique_ptr<ProjectStore>> openProjects(ServiceConnection* connection) {
    auto store = std::make_unique<ProjectStore>(co_await LocalCommand::openStorage(connection));
    co_return store;
}

// At most one byte past the limit is read, so a huge file is refused without reading it whole.
std::optional<QByteArray> readFile(const QString& path) {
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return file.read(ProjectFile::maximumBytes + 1);
}

QJsonObject showJson(const Project& project, const QList<ProjectFile>& files) {
    QJsonObject object = project.toJson();
    QJsonArray list;
    for (const auto& file : files)
        list.append(QJsonObject{{QStringLiteral("name"), file.name},
                                {QStringLiteral("bytes"), qint64(file.text.toUtf8().size())}});
    object.insert(QStringLiteral("files"), list);
    return object;
}

QString showText(const Project& project, const QList<ProjectFile>& files) {
    const QLocale english(QLocale::English, QLocale::UnitedStates);
    QStringList lines;
    lines << u"Project: " + oneLine(project.name) << u"Id: " + uuidText(project.id)
          << u"Created: " + localTime(project.createdAt)
          << u"Updated: " + localTime(project.updatedAt);
    if (project.instructions.trimmed().isEmpty())
        lines << QStringLiteral("Instructions: none");
    else
        lines << QStringLiteral("Instructions:") << ToolText::escaped(project.instructions);
    if (files.isEmpty())
        lines << QStringLiteral("Files: none");
    else
        lines << u"Files (" + QString::number(files.size()) + u"):";
    for (const auto& file : files)
        lines << u"  " + oneLine(file.name) + u"  " +
                     english.toString(qint64(file.text.toUtf8().size())) + u" bytes";
    return lines.join(u'\n');
}

} // namespace

QString ProjectsCommand::name() const {
    return QStringLiteral("projects");
}

QString ProjectsCommand::summary() const {
    return QStringLiteral("Keep projects: instructions and files for chats");
}

QCoro::Task<int> ProjectsCommand::run(QStringList arguments) {
    return runSubcommand(
        std::move(arguments), groupHelp,
        {{QLatin1StringView("list"), [this](QStringList rest) { return list(std::move(rest)); }},
         {QLatin1StringView("show"), [this](QStringList rest) { return show(std::move(rest)); }},
         {QLatin1StringView("create"),
          [this](QStringList rest) { return create(std::move(rest)); }},
         {QLatin1StringView("edit"), [this](QStringList rest) { return edit(std::move(rest)); }},
         {QLatin1StringView("delete"),
          [this](QStringList rest) { return remove(std::move(rest)); }},
         {QLatin1StringView("add-file"),
          [this](QStringList rest) { return addFile(std::move(rest)); }},
         {QLatin1StringView("remove-file"),
          [this](QStringList rest) { return removeFile(std::move(rest)); }}});
}

QCoro::Task<int> ProjectsCommand::list(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption jsonOption(QStringLiteral("json"), QStringLiteral("Print JSON."));
    parser.addOption(jsonOption);
    const auto parsed = LocalCommand::parse(console(), parser, command(QStringLiteral("list")),
                                            listHelp, arguments, 0);
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;

    QList<Project> projects;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const auto store = co_await openProjects(connection.get());
        projects = co_await store->list();
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    if (parser.isSet(jsonOption)) {
        QJsonArray array;
        for (const auto& project : projects)
            array.append(project.toJson());
        console().out(compactJson(array));
    } else if (projects.isEmpty()) {
        console().out(QStringLiteral("No projects."));
    } else {
        QStringList lines;
        for (const auto& project : projects)
            lines << uuidText(project.id) + u"  " + oneLine(project.name);
        console().out(lines.join(u'\n'));
    }
    co_return exitSuccess;
}

QCoro::Task<int> ProjectsCommand::show(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption jsonOption(QStringLiteral("json"), QStringLiteral("Print JSON."));
    parser.addOption(jsonOption);
    const auto parsed =
        LocalCommand::parse(console(), parser, command(QStringLiteral("show")), showHelp, arguments,
                            1, QStringLiteral("the id of one project"));
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const auto id =
        projectID(console(), QStringLiteral("show"), std::get<QStringList>(parsed).first());
    if (!id)
        co_return exitUsage;

    std::optional<Project> project;
    QList<ProjectFile> files;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const auto store = co_await openProjects(connection.get());
        const QList<Project> projects = co_await store->list();
        if (const Project* found = find(projects, *id)) {
            project = *found;
            files = co_await store->projectFiles(*id);
        }
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    if (!project) {
        console().err(notFound(*id));
        co_return exitFailure;
    }
    console().out(parser.isSet(jsonOption) ? compactJson(showJson(*project, files))
                                           : showText(*project, files));
    co_return exitSuccess;
}

QCoro::Task<int> ProjectsCommand::create(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption nameOption(QStringLiteral("name"), QStringLiteral("The name."),
                                        QStringLiteral("NAME"));
    const QCommandLineOption instructionsOption(QStringLiteral("instructions"),
                                                QStringLiteral("The instructions."),
                                                QStringLiteral("TEXT"));
    parser.addOptions({nameOption, instructionsOption});
    const auto parsed = LocalCommand::parse(console(), parser, command(QStringLiteral("create")),
                                            createHelp, arguments, 0);
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    if (!parser.isSet(nameOption)) {
        console().err(QStringLiteral("kestrolan-cli projects create: give --name\nRun "
                                     "\"kestrolan-cli projects create --help\" for usage."));
        co_return exitUsage;
    }
    Project draft;
    draft.name = parser.value(nameOption);
    draft.instructions = parser.value(instructionsOption);

    Project created;
    std::unique_ptr<ServiceConnection> connection;
    try {
        // Checked before the service is asked for the account.
        draft.validate();
        connection = std::make_unique<ServiceConnection>();
        const auto store = co_await openProjects(connection.get());
        created = co_await store->create(draft);
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    console().out(uuidText(created.id));
    co_return exitSuccess;
}

QCoro::Task<int> ProjectsCommand::edit(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption nameOption(QStringLiteral("name"), QStringLiteral("The name."),
                                        QStringLiteral("NAME"));
    const QCommandLineOption instructionsOption(QStringLiteral("instructions"),
                                                QStringLiteral("The instructions."),
                                                QStringLiteral("TEXT"));
    parser.addOptions({nameOption, instructionsOption});
    const auto parsed =
        LocalCommand::parse(console(), parser, command(QStringLiteral("edit")), editHelp, arguments,
                            1, QStringLiteral("the id of one project"));
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const auto id =
        projectID(console(), QStringLiteral("edit"), std::get<QStringList>(parsed).first());
    if (!id)
        co_return exitUsage;
    if (!parser.isSet(nameOption) && !parser.isSet(instructionsOption)) {
        console().err(QStringLiteral("kestrolan-cli projects edit: give --name or --instructions"
                                     "\nRun \"kestrolan-cli projects edit --help\" for usage."));
        co_return exitUsage;
    }

    std::optional<Project> updated;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const auto store = co_await openProjects(connection.get());
        const QList<Project> projects = co_await store->list();
        if (const Project* found = find(projects, *id)) {
            Project edited = *found;
            if (parser.isSet(nameOption))
                edited.name = parser.value(nameOption);
            if (parser.isSet(instructionsOption))
                edited.instructions = parser.value(instructionsOption);
            updated = co_await store->update(edited);
        }
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    if (!updated) {
        console().err(notFound(*id));
        co_return exitFailure;
    }
    console().out(u"Updated project " + uuidText(*id) + u'.');
    co_return exitSuccess;
}

QCoro::Task<int> ProjectsCommand::remove(QStringList arguments) {
    QCommandLineParser parser;
    const auto parsed =
        LocalCommand::parse(console(), parser, command(QStringLiteral("delete")), deleteHelp,
                            arguments, 1, QStringLiteral("the id of one project"));
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const auto id =
        projectID(console(), QStringLiteral("delete"), std::get<QStringList>(parsed).first());
    if (!id)
        co_return exitUsage;

    bool removed = false;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const auto store = co_await openProjects(connection.get());
        removed = co_await store->remove(*id);
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    if (!removed) {
        console().err(notFound(*id));
        co_return exitFailure;
    }
    console().out(u"Deleted project " + uuidText(*id) + u'.');
    co_return exitSuccess;
}

QCoro::Task<int> ProjectsCommand::addFile(QStringList arguments) {
    QCommandLineParser parser;
    const auto parsed = LocalCommand::parse(
        console(), parser, command(QStringLiteral("add-file")), addFileHelp, arguments, 2,
        QStringLiteral("the project's id and the file to import"));
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const QStringList given = std::get<QStringList>(parsed);
    const auto id = projectID(console(), QStringLiteral("add-file"), given.at(0));
    if (!id)
        co_return exitUsage;
    const QString path = given.at(1);
    const QString fileName = QFileInfo(path).fileName();

    bool added = false;
    std::unique_ptr<ServiceConnection> connection;
    try {
        // The file is checked before the service is asked for the account.
        const auto bytes = co_await QtConcurrent::run(readFile, path);
        if (!bytes) {
            console().err(u"\"" + path + u"\" could not be read as a file.");
            co_return exitFailure;
        }
        const ProjectFile file = ProjectFile::fromBytes(fileName, *bytes);
        connection = std::make_unique<ServiceConnection>();
        const auto store = co_await openProjects(connection.get());
        added = co_await store->addFile(*id, file);
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    if (!added) {
        console().err(notFound(*id));
        co_return exitFailure;
    }
    console().out(u"Added \"" + oneLine(fileName) + u"\" to project " + uuidText(*id) + u'.');
    co_return exitSuccess;
}

QCoro::Task<int> ProjectsCommand::removeFile(QStringList arguments) {
    QCommandLineParser parser;
    const auto parsed = LocalCommand::parse(
        console(), parser, command(QStringLiteral("remove-file")), removeFileHelp, arguments, 2,
        QStringLiteral("the project's id and the file's name"));
    if (const int* code = std::get_if<int>(&parsed))
        co_return *code;
    const QStringList given = std::get<QStringList>(parsed);
    const auto id = projectID(console(), QStringLiteral("remove-file"), given.at(0));
    if (!id)
        co_return exitUsage;
    const QString fileName = given.at(1);

    bool removed = false;
    bool projectExists = true;
    std::unique_ptr<ServiceConnection> connection;
    try {
        connection = std::make_unique<ServiceConnection>();
        const auto store = co_await openProjects(connection.get());
        removed = co_await store->removeFile(*id, fileName);
        if (!removed) {
            const QList<Project> projects = co_await store->list();
            projectExists = find(projects, *id) != nullptr;
        }
    } catch (...) {
        co_return reportFailure(console(), std::current_exception(), connection.get());
    }
    if (!removed) {
        console().err(projectExists ? u"Project " + uuidText(*id) + u" has no file named \"" +
                                          oneLine(fileName) + u"\"."
                                    : notFound(*id));
        co_return exitFailure;
    }
    console().out(u"Removed \"" + oneLine(fileName) + u"\" from project " + uuidText(*id) + u'.');
    co_return exitSuccess;
}

} // namespace kestrolan::cli

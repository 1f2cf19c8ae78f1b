#include "models_command.h"

#include "account/catalog.h"
#include "account/catalog_formatting.h"
#include "account/catalog_store.h"
#include "command_line.h"
#include "platform/settings_defaults.h"
#include "service_connection.h"

#include <QJsonArray>
#include <QJsonObject>

namespace kestrolan::cli {
namespace {

const QString help = QStringLiteral(
    "Usage: kestrolan-cli models [--json]\n"
    "\n"
    "Lists the models of the service's catalog in its order: the selected model marked with\n"
    "\"*\" (the last one chosen in the app, else the first available), then its id, its name,\n"
    "\"unavailable\" where it cannot be chosen, and its prices per million tokens and context\n"
    "size. The catalog is public: no sign-in is needed.\n"
    "\n"
    "Options:\n"
    "  --json      print the catalog as one line of JSON, each model with \"selected\"\n"
    "  -h, --help  show this help");

// One row per model; every column starts at the same place on every row.
QString listing(const QList<CatalogModel>& models, const std::optional<QString>& selected) {
    const QString unavailable = QStringLiteral("unavailable");
    qsizetype idWidth = 0;
    qsizetype nameWidth = 0;
    bool anyUnavailable = false;
    for (const auto& model : models) {
        idWidth = std::max(idWidth, model.id.size());
        nameWidth = std::max(nameWidth, model.displayName.size());
        anyUnavailable = anyUnavailable || !model.available;
    }
    QStringList lines;
    for (const auto& model : models) {
        QString line = (selected == model.id ? u"* " : u"  ") + model.id.leftJustified(idWidth) +
                       u"  " + model.displayName.leftJustified(nameWidth) + u"  ";
        if (anyUnavailable)
            line += (model.available ? QString() : unavailable).leftJustified(unavailable.size()) +
                    u"  ";
        lines << line + CatalogFormatting::metadata(model);
    }
    return lines.join(u'\n');
}

// The catalog as the service sends it, each model marked with whether it is the selected one.
QJsonObject catalogJson(const QList<CatalogModel>& models, const std::optional<QString>& selected) {
    QJsonObject catalog = Catalog{models}.toJson();
    QJsonArray marked;
    for (const auto& model : catalog.value(u"models").toArray()) {
        QJsonObject object = model.toObject();
        object.insert(QStringLiteral("selected"), object.value(u"id").toString() == selected);
        marked.append(object);
    }
    catalog.insert(QStringLiteral("models"), marked);
    return catalog;
}

} // namespace

QString ModelsCommand::name() const {
    return QStringLiteral("models");
}

QString ModelsCommand::summary() const {
    return QStringLiteral("List the models of the catalog with their prices");
}

QCoro::Task<int> ModelsCommand::run(QStringList arguments) {
    QCommandLineParser parser;
    const QCommandLineOption json(QStringLiteral("json"), QStringLiteral("Print JSON."));
    parser.addOption(json);
    if (const auto stop = parseCommandLine(console(), parser, name(), help, arguments))
        co_return *stop;

    try {
        ServiceConnection connection;
        SettingsDefaults defaults;
        CatalogStore store(connection.client(), defaults);
        co_await store.refresh();
        if (const auto failure = store.errorMessage()) {
            console().err(*failure);
            co_return exitFailure;
        }
        const auto& models = store.models();
        const auto selected = store.selectedModelID();
        if (parser.isSet(json)) {
            console().out(compactJson(catalogJson(models, selected)));
            co_return exitSuccess;
        }
        console().out(models.isEmpty() ? QStringLiteral("The catalog has no models.")
                                       : listing(models, selected));
        co_return exitSuccess;
    } catch (...) {
        co_return reportFailure(console(), std::current_exception());
    }
}

} // namespace kestrolan::cli

#include "models_command.h"

#include "account/catalog.h"
#include "account/catalog_formatting.h"
#include "account/catalog_store.h"
#include "command_line.h"
#include "platform/settings_defaults.h"
#include "service_connection.h"

#include <QJsonDocument>

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
    "  --json      print the catalog as JSON\n"
    "  -h, --help  show this help");

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
        if (parser.isSet(json)) {
            console().out(QString::fromUtf8(
                QJsonDocument(Catalog{models}.toJson()).toJson(QJsonDocument::Compact)));
            co_return exitSuccess;
        }

        qsizetype idWidth = 0;
        qsizetype nameWidth = 0;
        for (const auto& model : models) {
            idWidth = std::max(idWidth, model.id.size());
            nameWidth = std::max(nameWidth, model.displayName.size());
        }
        for (const auto& model : models) {
            const bool selected = store.selectedModelID() == model.id;
            QString line = (selected ? u"* " : u"  ") + model.id.leftJustified(idWidth) + u"  " +
                           model.displayName.leftJustified(nameWidth) + u"  ";
            if (!model.available)
                line += u"unavailable  ";
            console().out(line + CatalogFormatting::metadata(model));
        }
        co_return exitSuccess;
    } catch (...) {
        co_return reportFailure(console(), std::current_exception());
    }
}

} // namespace kestrolan::cli

#include "command_line.h"

#include "command.h"
#include "error.h"
#include "service/client_error.h"
#include "service_connection.h"

#include <QJsonDocument>

namespace kestrolan::cli {

std::optional<int> parseCommandLine(const Console& console, QCommandLineParser& parser,
                                    const QString& command, const QString& help,
                                    const QStringList& arguments) {
    const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")},
                                        QStringLiteral("Show this help."));
    parser.addOption(helpOption);
    const auto usageError = [&](const QString& message) {
        console.err(u"kestrolan-cli " + command + u": " + message + u"\nRun \"kestrolan-cli " +
                    command + u" --help\" for usage.");
        return exitUsage;
    };
    if (!parser.parse(QStringList{QStringLiteral("kestrolan-cli")} + arguments))
        return usageError(parser.errorText());
    if (parser.isSet(helpOption)) {
        console.out(help);
        return exitSuccess;
    }
    if (!parser.positionalArguments().isEmpty())
        return usageError(u"unexpected argument \"" + parser.positionalArguments().first() + u'"');
    return std::nullopt;
}

QString signInHint() {
    return QStringLiteral("Run \"kestrolan-cli login\" to sign in.");
}

int reportFailure(const Console& console, std::exception_ptr failure,
                  const ServiceConnection* connection) {
    bool notSignedIn = connection && connection->wasSignedOut();
    try {
        std::rethrow_exception(failure);
    } catch (const ClientError& error) {
        notSignedIn = notSignedIn || error.kind() == ClientError::Kind::noAuthorization;
        console.err(error.description());
    } catch (const Error& error) {
        console.err(error.description());
    } catch (const std::exception& error) {
        console.err(QString::fromLocal8Bit(error.what()));
    } catch (...) {
        console.err(QStringLiteral("An unexpected error occurred."));
    }
    if (!notSignedIn)
        return exitFailure;
    console.err(signInHint());
    return exitNotSignedIn;
}

QString compactJson(const QJsonObject& object) {
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QString compactJson(const QJsonArray& array) {
    return QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact));
}

} // namespace kestrolan::cli

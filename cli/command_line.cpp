#include "command_line.h"

#include "command.h"
#include "error.h"

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

int reportFailure(const Console& console, std::exception_ptr failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const Error& error) {
        console.err(error.description());
    } catch (const std::exception& error) {
        console.err(QString::fromLocal8Bit(error.what()));
    } catch (...) {
        console.err(QStringLiteral("An unexpected error occurred."));
    }
    return exitFailure;
}

} // namespace kestrolan::cli

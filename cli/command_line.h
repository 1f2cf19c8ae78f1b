#pragma once

#include "console.h"

#include <QCommandLineParser>
#include <QStringList>
#include <exception>
#include <optional>

namespace kestrolan::cli {

// Parses the arguments of `command` ("login", "models") with `parser`, which already holds the
// command's options; -h/--help is added here. Returns the exit code when the command must stop:
// after printing its help, or after a usage error on standard error. Positional arguments are
// refused.
std::optional<int> parseCommandLine(const Console& console, QCommandLineParser& parser,
                                    const QString& command, const QString& help,
                                    const QStringList& arguments);

// Prints the description of a failure (the current exception) on standard error and returns
// the failure exit code.
int reportFailure(const Console& console, std::exception_ptr failure);

} // namespace kestrolan::cli

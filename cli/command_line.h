#pragma once

#include "console.h"

#include <QCommandLineParser>
#include <QJsonArray>
#include <QJsonObject>
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

class ServiceConnection;

// Printed under every failure for want of a sign-in.
QString signInHint();

// Prints the description of a failure on standard error and returns the exit code. A missing
// sign-in, or a token the service refused while `connection` used it (it is gone from the
// keyring then), adds the sign-in hint and gives exitNotSignedIn; anything else exitFailure.
int reportFailure(const Console& console, std::exception_ptr failure,
                  const ServiceConnection* connection = nullptr);

// Every --json output: one compact document on one line (streams: one object per line).
QString compactJson(const QJsonObject& object);
QString compactJson(const QJsonArray& array);

} // namespace kestrolan::cli

#pragma once

#include "qstring_printer.h"

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <ostream>

namespace kestrolan::test {

struct CliRun {
    int exitCode = -1; // -1 when the process crashed
    QString out;
    QString err;
};

// kestrolan-cli as a real process, pointed at `baseURL` through KESTROLAN_BASE_URL; `extra`
// adds or overrides environment variables.
CliRun runCli(const QString& baseURL, const QStringList& arguments, const QByteArray& input = {},
              const QProcessEnvironment& extra = {});

// `kestrolan-cli login --no-browser` with the authorize address followed as a browser would
// and the callback typed in as a user would; `extra` adds arguments such as --force.
CliRun signInWithCli(const QString& baseURL, const QStringList& extra = {});

// The line every "not signed in" failure ends with.
inline const QString signInHint = QStringLiteral("Run \"kestrolan-cli login\" to sign in.\n");

} // namespace kestrolan::test

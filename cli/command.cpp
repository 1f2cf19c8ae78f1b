#include "command.h"

namespace kestrolan::cli {

QCoro::Task<int> Command::runSubcommand(QStringList arguments, QString groupHelp,
                                        QList<Subcommand> subcommands) const {
    if (arguments.isEmpty()) {
        console().err(groupHelp);
        co_return exitUsage;
    }
    const QString word = arguments.takeFirst();
    if (word == u"--help" || word == u"-h") {
        console().out(groupHelp);
        co_return exitSuccess;
    }
    for (const Subcommand& subcommand : subcommands) {
        if (word == subcommand.word)
            co_return co_await subcommand.run(arguments);
    }
    console().err(u"kestrolan-cli " + name() + u": unknown subcommand \"" + word + u"\"\n" +
                  groupHelp);
    co_return exitUsage;
}

} // namespace kestrolan::cli

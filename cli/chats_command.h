#pragma once

#include "command.h"

#include <QUuid>
#include <optional>
#include <variant>

namespace kestrolan::cli {

// `kestrolan-cli chats list|show|delete`: the chats saved on the signed-in account.
class ChatsCommand : public Command {
public:
    using Command::Command;

    QString name() const override;
    QString summary() const override;
    QCoro::Task<int> run(QStringList arguments) override;

private:
    QCoro::Task<int> list(QStringList arguments);
    QCoro::Task<int> show(QStringList arguments);
    QCoro::Task<int> remove(QStringList arguments);

    // Parses `--json` (where `allowsJson`) and the one chat id a subcommand takes, if it takes
    // one. Returns the exit code when the command must stop.
    struct Parsed {
        bool json = false;
        std::optional<QUuid> id;
    };
    std::variant<Parsed, int> parse(const QString& subcommand, const QString& help,
                                    const QStringList& arguments, bool takesID,
                                    bool allowsJson) const;
};

} // namespace kestrolan::cli

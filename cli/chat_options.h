#pragma once

#include "console.h"
#include "tools/local_access_mode.h"

#include <QString>
#include <QStringList>
#include <QUuid>
#include <optional>
#include <variant>

namespace kestrolan::cli {

// The command line of `kestrolan-cli chat`, checked.
struct ChatOptions {
    static constexpr int maxCompared = 2; // three reply columns in all

    std::optional<QString> message;
    std::optional<QString> model;
    QStringList compare;
    LocalAccessMode access = LocalAccessMode::off;
    QString workspace; // absolute; the current folder unless given
    bool acceptToolBilling = false;
    bool confirmFullAccess = false;
    bool webSearch = false;
    bool webFetch = false;
    QStringList attachments; // absolute paths
    std::optional<QString> system;
    std::optional<QString> maxTokens;
    std::optional<QString> temperature;
    std::optional<QUuid> continueID;
    std::optional<QUuid> projectID; // a local project's instructions and files go with each turn
    std::optional<QUuid> agentID;   // a local agent's model, instructions and temperature
    bool save = false;
    bool json = false;

    // Returns the exit code instead when the command must stop: after --help, or after a usage
    // error written to standard error.
    static std::variant<ChatOptions, int> parse(const Console& console,
                                                const QStringList& arguments);
    static QString help();
    // The names --access and /access take: off, ask, read-only, full.
    static std::optional<LocalAccessMode> accessFromName(const QString& name);
};

} // namespace kestrolan::cli

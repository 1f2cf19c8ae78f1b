#pragma once

#include <QJsonObject>
#include <QString>
#include <cstdint>

namespace kestrolan::devservice {

// One account as stored: prepaid balance and the part of it held for requests in progress.
struct Account {
    QString id; // UUID, lower-case text
    QString email;
    std::uint64_t balance = 0; // millionths of a dollar
    std::uint64_t held = 0;
    bool zeroRetention = false;

    std::uint64_t available() const { return balance > held ? balance - held : 0; }
    // The client's account record: amounts as decimal text.
    QJsonObject toJson() const;
};

} // namespace kestrolan::devservice

#pragma once

#include "service/server_origin.h"

#include <QCoroTask>
#include <QString>
#include <optional>

namespace kestrolan {

// Keeps the bearer token of one server origin. Every operation may fail (a keychain error).
class TokenStore {
public:
    virtual ~TokenStore() = default;

    virtual ServerOrigin origin() const = 0;
    virtual QCoro::Task<std::optional<QString>> read() = 0;
    virtual QCoro::Task<void> write(QString token) = 0;
    // A missing entry is no error.
    virtual QCoro::Task<void> remove() = 0;
    // Removes the entry only when it still holds `token`; true when it did. A 401 answer to a
    // request made with an old token must never remove a newer one.
    virtual QCoro::Task<bool> removeIfMatching(QString token) = 0;
};

} // namespace kestrolan

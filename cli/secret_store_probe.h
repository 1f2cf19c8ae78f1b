#pragma once

#include <QCoroTask>
#include <QString>
#include <memory>

namespace kestrolan {
class KeychainAccess;
}

namespace kestrolan::cli {

// Whether the secret store can keep a sign-in token, found out by writing and removing an entry
// of its own (never the token's). A locked keyring reads as empty, so only a write tells; doing
// it before a sign-in keeps a one-time sign-in code from being spent on a token that could not
// be kept.
class SecretStoreProbe {
public:
    enum class State { available, locked, noSecretService, notAnswering, failed };

    struct Result {
        State state = State::available;
        qint32 status = 0; // the keychain status of a failure
    };

    // The probe entry: the app's keychain service, an account name no token ever uses.
    static const QString account;

    static QCoro::Task<Result> run(std::shared_ptr<KeychainAccess> access);

    // "available", "locked", "no Secret Service running", ... for `status`.
    static QString summary(const Result& result);
    // Why a token cannot be kept, and what to do about it; for a failed `login`.
    static QString explanation(const Result& result);
    // The JSON name of the state: "available", "locked", "no-secret-service", ...
    static QString name(State state);
};

} // namespace kestrolan::cli

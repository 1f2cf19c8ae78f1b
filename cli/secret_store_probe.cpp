#include "secret_store_probe.h"

#include "account/keychain_token_store.h"
#include "platform/keychain_access.h"
#include "platform/system_keychain_access.h"
#include "service/client_error.h"
#include "support/enum_names.h"

#include <qt6keychain/keychain.h>

namespace kestrolan::cli {

namespace {

SecretStoreProbe::Result classify(const ClientError& error) {
    using State = SecretStoreProbe::State;
    const auto status = static_cast<qint32>(error.status());
    switch (status) {
    case SystemKeychainAccess::timedOutStatus:
        return {State::notAnswering, status};
    // A locked collection refuses writes; a declined unlock prompt is the same to the user.
    case QKeychain::AccessDenied:
    case QKeychain::AccessDeniedByUser:
        return {State::locked, status};
    // QtKeychain reports a session bus without org.freedesktop.secrets (or no bus at all) as
    // OtherError, at once.
    case QKeychain::NoBackendAvailable:
    case QKeychain::OtherError:
        return {State::noSecretService, status};
    default:
        return {State::failed, status};
    }
}

} // namespace

const QString SecretStoreProbe::account = QStringLiteral("kestrolan-cli|write-check");

QCoro::Task<SecretStoreProbe::Result>
SecretStoreProbe::run(std::shared_ptr<KeychainAccess> access) {
    const QString service(KeychainTokenStore::appService);
    try {
        co_await access->write(QByteArrayLiteral("probe"), service, account);
        co_await access->remove(service, account);
    } catch (const ClientError& error) {
        co_return classify(error);
    }
    co_return Result{};
}

QString SecretStoreProbe::summary(const Result& result) {
    switch (result.state) {
    case State::available:
        return QStringLiteral("available");
    case State::locked:
        return QStringLiteral("locked");
    case State::noSecretService:
        return QStringLiteral("no Secret Service running");
    case State::notAnswering:
        return QStringLiteral("not answering");
    case State::failed:
        break;
    }
    return u"error " + QString::number(result.status);
}

QString SecretStoreProbe::explanation(const Result& result) {
    const QString lead = QStringLiteral("The sign-in token cannot be kept: ");
    switch (result.state) {
    case State::available:
        return {};
    case State::locked:
        return lead + QStringLiteral("the keyring is locked. Unlock it, then sign in again.");
    case State::noSecretService:
        return lead + QStringLiteral("no Secret Service running. Start one (gnome-keyring or "
                                     "KWallet) in this session, then sign in again.");
    case State::notAnswering:
        return lead + QStringLiteral("the keyring did not answer. It may be waiting for an "
                                     "unlock prompt; unlock it, then sign in again.");
    case State::failed:
        break;
    }
    return lead + u"the keyring refused to store it (error " + QString::number(result.status) +
           u"). Sign in again once the keyring works.";
}

QString SecretStoreProbe::name(State state) {
    static constexpr EnumNames names{std::array{
        std::pair{State::available, u"available"},
        std::pair{State::locked, u"locked"},
        std::pair{State::noSecretService, u"no-secret-service"},
        std::pair{State::notAnswering, u"not-answering"},
        std::pair{State::failed, u"error"},
    }};
    return names.name(state);
}

} // namespace kestrolan::cli

#pragma once

#include <QByteArray>
#include <QCoroTask>
#include <QString>
#include <optional>

namespace kestrolan {

// Small secrets in the platform's secret store, by service and account. An absent entry is not
// a failure; every other failure throws ClientError::keychain.
class KeychainAccess {
public:
    virtual ~KeychainAccess() = default;

    virtual QCoro::Task<std::optional<QByteArray>> read(QString service, QString account) = 0;
    // Replaces an existing entry or adds a new one.
    virtual QCoro::Task<void> write(QByteArray data, QString service, QString account) = 0;
    // A missing entry is no error.
    virtual QCoro::Task<void> remove(QString service, QString account) = 0;
};

} // namespace kestrolan

#pragma once

#include "storage/local_key_store.h"

#include <QByteArray>

namespace kestrolan::test {

// One data key for every account, so that separate test processes open the same records
// without sharing a secret store.
class FixedLocalKeyStore final : public LocalKeyStore {
public:
    explicit FixedLocalKeyStore(QByteArray key)
        : m_key(std::move(key)) {}

    QByteArray key(const LocalAccountContext&, bool) const override { return m_key; }
    void deleteKey(const LocalAccountContext&) const override {}

private:
    QByteArray m_key;
};

} // namespace kestrolan::test

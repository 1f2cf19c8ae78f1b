#pragma once

#include <QByteArray>

namespace kestrolan {

class LocalAccountContext;

// Where the 32-byte data key of one account's local records lives. Blocking: callers run it on a
// store's serial queue. Every failure throws LocalPrivacyError.
class LocalKeyStore {
public:
    static constexpr qsizetype keyLength = 32;

    virtual ~LocalKeyStore() = default;

    // The account's key. When there is none, `create` makes and keeps a fresh random one;
    // otherwise the answer is LocalPrivacyError(unavailable).
    virtual QByteArray key(const LocalAccountContext& context, bool create) const = 0;
    // Forgets the key; a key that is already gone is no error.
    virtual void deleteKey(const LocalAccountContext& context) const = 0;
};

} // namespace kestrolan

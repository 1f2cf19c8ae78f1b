#pragma once

#include "storage/local_account_context.h"

#include <QCoroTask>
#include <functional>
#include <memory>

namespace kestrolan {

// What the app holds of one account's open encrypted local data (its stores, and the scheduler
// attached to it). Made by the opener the app is given, so this model does not depend on how the
// stores are put together.
class LocalAccountLink {
public:
    virtual ~LocalAccountLink() = default;

    virtual const LocalAccountContext& context() const = 0;
    // Detaches the scheduler and closes the stores; waits for work under way.
    virtual QCoro::Task<void> close() = 0;
    // Removes the account's local records and its data key; the link is closed afterwards.
    virtual QCoro::Task<void> forget() = 0;
};

// Opens an account's local data; throws LocalPrivacyError when it cannot.
using LocalAccountOpener =
    std::function<QCoro::Task<std::shared_ptr<LocalAccountLink>>(LocalAccountContext)>;

} // namespace kestrolan

#include "tools/reject_unknown_fields.h"

#include "tools/harness_error.h"

namespace kestrolan {

void rejectUnknownFields(const QJsonObject& object, const QSet<QString>& allowed) {
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (!allowed.contains(it.key()))
            throw HarnessError(HarnessError::Kind::invalidArguments);
    }
}

} // namespace kestrolan

#include "storage/local_retention_policy.h"

namespace kestrolan {

QString LocalRetentionPolicy::projectDisclosure() {
    return QStringLiteral("Projects and explicitly imported files are stored encrypted on this "
                          "computer, including while Zero Data Retention is on. Joining a project "
                          "does not save your chat.");
}

QString LocalRetentionPolicy::attachmentDisclosure() const {
    if (m_zeroDataRetention)
        return QStringLiteral("Included text leaves this computer for inference. Zero Data "
                              "Retention prevents operator content storage.");
    return QStringLiteral("Included text leaves this computer for inference and enters bounded "
                          "encrypted operator request logs.");
}

} // namespace kestrolan

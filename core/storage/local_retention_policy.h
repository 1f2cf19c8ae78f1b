#pragma once

#include <QString>

namespace kestrolan {

// The account's Zero Data Retention setting and what it allows.
class LocalRetentionPolicy {
public:
    explicit LocalRetentionPolicy(bool zeroDataRetention)
        : m_zeroDataRetention(zeroDataRetention) {}

    bool zeroDataRetention() const { return m_zeroDataRetention; }
    bool canSaveTranscript() const { return !m_zeroDataRetention; }
    bool canRunScheduledTask() const { return canSaveTranscript(); }

    static QString projectDisclosure();
    QString attachmentDisclosure() const;

    bool operator==(const LocalRetentionPolicy&) const = default;

private:
    bool m_zeroDataRetention;
};

} // namespace kestrolan

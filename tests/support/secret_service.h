#pragma once

#include <QString>
#include <sys/types.h>

namespace kestrolan::test {

// The private Secret Service that tests/support/with-secret-service starts (gnome-keyring on a
// session bus of its own). Blocking D-Bus calls: for test set-up only.
class SecretService {
public:
    // True when org.freedesktop.secrets is on the session bus.
    static bool isRunning();
    // True inside with-secret-service with its keyring up: tests that write secrets check this
    // first, so that they never touch the keyring of the user running them.
    static bool isPrivate();
    // The object path of the collection behind the "default" alias.
    static QString defaultCollection();
    static bool isLocked();
    // Locks the default collection as a screen lock would.
    static void lock();
    // Unlocks it with the password the wrapper gave the keyring, without any prompt.
    static void unlock();
    // The process that owns org.freedesktop.secrets.
    static pid_t daemonPid();
};

// Stops the keyring daemon (SIGSTOP) so that calls hang as they do behind an unanswered
// unlock prompt; continues it when resumed or destroyed.
class FrozenSecretService {
public:
    FrozenSecretService();
    ~FrozenSecretService();
    FrozenSecretService(const FrozenSecretService&) = delete;
    FrozenSecretService& operator=(const FrozenSecretService&) = delete;

    void resume();

private:
    pid_t m_pid;
    bool m_frozen = true;
};

} // namespace kestrolan::test

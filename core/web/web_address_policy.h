#pragma once

#include <QHostAddress>
#include <functional>

namespace kestrolan {

// Decides which peer addresses a page fetch may connect to. Checked on the resolved address of
// every connection, so no host name, numeric host form or redirect gets around it.
class WebAddressPolicy {
public:
    // Admits only public unicast addresses: the one policy the app uses.
    static WebAddressPolicy publicOnly();
    // Also admits loopback, so tests can reach their own server on 127.0.0.1 or ::1.
    static WebAddressPolicy allowingLoopbackForTests();
    // Also admits the addresses `extra` accepts (tests that need finer control over loopback).
    static WebAddressPolicy allowingForTests(std::function<bool(const QHostAddress&)> extra);

    bool admits(const QHostAddress& address) const;

    // True for a globally routable unicast address, also looking through the IPv4-mapped,
    // IPv4-compatible, NAT64, 6to4 and Teredo forms to the IPv4 address they carry.
    static bool isPublic(const QHostAddress& address);

private:
    explicit WebAddressPolicy(std::function<bool(const QHostAddress&)> extra);

    std::function<bool(const QHostAddress&)> m_extra;
};

} // namespace kestrolan

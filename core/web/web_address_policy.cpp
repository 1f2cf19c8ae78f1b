#include "web/web_address_policy.h"

#include <QtEndian>
#include <array>
#include <cstring>

namespace kestrolan {

namespace {

struct Range4 {
    quint32 base;
    int prefix;
};

constexpr quint32 ip4(quint32 a, quint32 b, quint32 c, quint32 d) {
    return a << 24 | b << 16 | c << 8 | d;
}

// Everything in the special-purpose registry that is not reachable as an ordinary public host.
constexpr std::array<Range4, 15> refused4{{
    {ip4(0, 0, 0, 0), 8},       // "this network", unspecified
    {ip4(10, 0, 0, 0), 8},      // private
    {ip4(100, 64, 0, 0), 10},   // carrier-grade NAT
    {ip4(127, 0, 0, 0), 8},     // loopback
    {ip4(169, 254, 0, 0), 16},  // link-local, cloud metadata
    {ip4(172, 16, 0, 0), 12},   // private
    {ip4(192, 0, 0, 0), 24},    // protocol assignments
    {ip4(192, 0, 2, 0), 24},    // documentation
    {ip4(192, 88, 99, 0), 24},  // 6to4 relay anycast
    {ip4(192, 168, 0, 0), 16},  // private
    {ip4(198, 18, 0, 0), 15},   // benchmarking
    {ip4(198, 51, 100, 0), 24}, // documentation
    {ip4(203, 0, 113, 0), 24},  // documentation
    {ip4(224, 0, 0, 0), 4},     // multicast
    {ip4(240, 0, 0, 0), 4},     // reserved, and the broadcast address
}};

bool isPublic4(quint32 address) {
    for (const auto& range : refused4) {
        const quint32 mask = range.prefix == 0 ? 0 : ~quint32(0) << (32 - range.prefix);
        if ((address & mask) == range.base)
            return false;
    }
    return true;
}

using Bytes16 = std::array<quint8, 16>;

bool hasPrefix(const Bytes16& bytes, std::initializer_list<quint8> prefix, int bits) {
    int index = 0;
    for (const auto byte : prefix) {
        const int remaining = bits - index * 8;
        if (remaining <= 0)
            break;
        const quint8 mask = remaining >= 8 ? 0xff : quint8(0xff << (8 - remaining));
        if ((bytes[index] & mask) != (byte & mask))
            return false;
        ++index;
    }
    return true;
}

quint32 embedded4(const Bytes16& bytes, int offset) {
    return qFromBigEndian<quint32>(bytes.data() + offset);
}

bool isPublic6(const Bytes16& bytes) {
    // IPv4-mapped (::ffff:a.b.c.d) and well-known NAT64 (64:ff9b::a.b.c.d) reach the IPv4
    // address they carry.
    if (hasPrefix(bytes, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff}, 96) ||
        hasPrefix(bytes, {0x00, 0x64, 0xff, 0x9b, 0, 0, 0, 0, 0, 0, 0, 0}, 96))
        return isPublic4(embedded4(bytes, 12));
    // Only global unicast (2000::/3) remains; this also refuses ::/96 (unspecified, loopback,
    // IPv4-compatible), 64:ff9b:1::/48 (local NAT64), unique-local, link-local, site-local and
    // multicast.
    if ((bytes[0] & 0xe0) != 0x20)
        return false;
    // 6to4 carries an IPv4 address in its next 32 bits.
    if (hasPrefix(bytes, {0x20, 0x02}, 16))
        return isPublic4(embedded4(bytes, 2));
    // Protocol assignments: Teredo (2001::/32), benchmarking, ORCHID; and documentation.
    if (hasPrefix(bytes, {0x20, 0x01, 0x00}, 23) ||
        hasPrefix(bytes, {0x20, 0x01, 0x0d, 0xb8}, 32) || hasPrefix(bytes, {0x3f, 0xff}, 20))
        return false;
    return true;
}

} // namespace

WebAddressPolicy::WebAddressPolicy(std::function<bool(const QHostAddress&)> extra)
    : m_extra(std::move(extra)) {}

WebAddressPolicy WebAddressPolicy::publicOnly() {
    return WebAddressPolicy({});
}

WebAddressPolicy WebAddressPolicy::allowingLoopbackForTests() {
    return WebAddressPolicy([](const QHostAddress& address) { return address.isLoopback(); });
}

WebAddressPolicy
WebAddressPolicy::allowingForTests(std::function<bool(const QHostAddress&)> extra) {
    return WebAddressPolicy(std::move(extra));
}

bool WebAddressPolicy::admits(const QHostAddress& address) const {
    return isPublic(address) || (m_extra && m_extra(address));
}

bool WebAddressPolicy::isPublic(const QHostAddress& address) {
    switch (address.protocol()) {
    case QAbstractSocket::IPv4Protocol:
        return isPublic4(address.toIPv4Address());
    case QAbstractSocket::IPv6Protocol: {
        const auto raw = address.toIPv6Address();
        Bytes16 bytes;
        std::memcpy(bytes.data(), raw.c, bytes.size());
        return isPublic6(bytes);
    }
    default:
        return false;
    }
}

} // namespace kestrolan

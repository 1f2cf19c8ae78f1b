#include "web/web_address_policy.h"

#include <gtest/gtest.h>

using namespace kestrolan;

namespace {

QHostAddress address(const char* text) {
    const QHostAddress parsed(QString::fromLatin1(text));
    EXPECT_FALSE(parsed.isNull()) << text;
    return parsed;
}

} // namespace

TEST(WebAddressPolicy, RefusesEveryNonPublicIPv4Range) {
    for (const char* text : {
             "0.0.0.0",     "0.1.2.3",         "10.0.0.1",     "10.255.255.255",
             "100.64.0.1",  "100.127.255.254", "127.0.0.1",    "127.255.0.2",
             "169.254.0.1", "169.254.169.254", "172.16.0.1",   "172.31.255.255",
             "192.0.0.1",   "192.0.2.7",       "192.88.99.1",  "192.168.1.1",
             "198.18.0.1",  "198.19.255.255",  "198.51.100.3", "203.0.113.9",
             "224.0.0.1",   "239.255.255.250", "240.0.0.1",    "255.255.255.255",
         })
        EXPECT_FALSE(WebAddressPolicy::isPublic(address(text))) << text;

    // The neighbours of those ranges are ordinary hosts.
    for (const char* text :
         {"1.1.1.1", "8.8.8.8", "9.255.255.255", "11.0.0.0", "100.63.255.255", "100.128.0.0",
          "126.255.255.255", "128.0.0.0", "169.253.255.255", "172.15.255.255", "172.32.0.0",
          "192.0.1.1", "192.167.255.255", "198.17.255.255", "198.20.0.0", "223.255.255.255"})
        EXPECT_TRUE(WebAddressPolicy::isPublic(address(text))) << text;
}

TEST(WebAddressPolicy, SeesThroughIPv6FormsThatCarryAnIPv4Address) {
    for (const char* text : {
             "::ffff:127.0.0.1", "::ffff:10.1.2.3", "::ffff:169.254.169.254",    // IPv4-mapped
             "64:ff9b::127.0.0.1", "64:ff9b::a9fe:a9fe", "64:ff9b::192.168.0.1", // NAT64
             "64:ff9b:1::8.8.8.8",                                               // local NAT64
             "2002:7f00:1::", "2002:a9fe:a9fe::1", "2002:c0a8:101::",            // 6to4
             "::127.0.0.1", "::8.8.8.8",                                         // IPv4-compatible
             "2001:0:4136:e378:8000:63bf:3fff:fdd2",                             // Teredo
         })
        EXPECT_FALSE(WebAddressPolicy::isPublic(address(text))) << text;

    for (const char* text : {"::ffff:8.8.8.8", "64:ff9b::8.8.8.8", "2002:808:808::1"})
        EXPECT_TRUE(WebAddressPolicy::isPublic(address(text))) << text;
}

TEST(WebAddressPolicy, AdmitsOnlyGlobalUnicastIPv6) {
    for (const char* text :
         {"::", "::1", "fe80::1", "febf::1", "fec0::1", "fc00::1", "fd12::1", "ff02::1", "ff0e::1",
          "100::1", "2001:db8::1", "2001:2::1", "2001:10::1", "3fff::1", "4000::1", "e000::1"})
        EXPECT_FALSE(WebAddressPolicy::isPublic(address(text))) << text;

    for (const char* text :
         {"2606:4700:4700::1111", "2a00:1450:4001:80b::200e", "2001:4860::1", "2c0f:fb50::1"})
        EXPECT_TRUE(WebAddressPolicy::isPublic(address(text))) << text;
}

TEST(WebAddressPolicy, OnlyTestPoliciesWidenWhatIsAdmitted) {
    const auto production = WebAddressPolicy::publicOnly();
    EXPECT_FALSE(production.admits(address("127.0.0.1")));
    EXPECT_FALSE(production.admits(address("::1")));
    EXPECT_TRUE(production.admits(address("93.184.216.34")));

    const auto loopback = WebAddressPolicy::allowingLoopbackForTests();
    EXPECT_TRUE(loopback.admits(address("127.0.0.1")));
    EXPECT_TRUE(loopback.admits(address("::1")));
    EXPECT_FALSE(loopback.admits(address("10.0.0.1")));
    EXPECT_FALSE(loopback.admits(address("169.254.169.254")));

    const auto one = WebAddressPolicy::allowingForTests(
        [](const QHostAddress& peer) { return peer == QHostAddress(QHostAddress::LocalHost); });
    EXPECT_TRUE(one.admits(address("127.0.0.1")));
    EXPECT_FALSE(one.admits(address("127.0.0.2")));
    EXPECT_TRUE(one.admits(address("93.184.216.34")));
}

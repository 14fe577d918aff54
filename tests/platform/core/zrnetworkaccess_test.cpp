#include <gtest/gtest.h>
#include <zr/zrnetworkaccess.h>

namespace ZR {
namespace {

TEST(ZRNetworkAccess, LoopbackAddressesAreRecognised) {
  EXPECT_TRUE(isLoopbackAddress("127.0.0.1"));
  EXPECT_TRUE(isLoopbackAddress("127.8.9.10"));
  EXPECT_TRUE(isLoopbackAddress("::1"));
  EXPECT_TRUE(isLoopbackAddress("::ffff:127.0.0.1"));
  EXPECT_TRUE(isLoopbackAddress("localhost"));
}

TEST(ZRNetworkAccess, WildcardAndNetworkAddressesAreNotLoopback) {
  EXPECT_FALSE(isLoopbackAddress("0.0.0.0"));
  EXPECT_FALSE(isLoopbackAddress("::"));
  EXPECT_FALSE(isLoopbackAddress("192.168.1.20"));
  EXPECT_FALSE(isLoopbackAddress("::ffff:10.0.0.1"));
  EXPECT_FALSE(isLoopbackAddress("not an address"));
  EXPECT_FALSE(isLoopbackAddress(""));
}

TEST(ZRNetworkAccess, TheDefaultListensOnLoopbackAndAsksForCredentialsThere) {
  const ZRNetworkAccess access;
  EXPECT_EQ("127.0.0.1", access.bindAddress);
  EXPECT_FALSE(access.listensBeyondLoopback());
  EXPECT_FALSE(access.trustLoopback);
  EXPECT_TRUE(access.requiresCredentials());
}

TEST(ZRNetworkAccess, ATrustedLoopbackAsksForNoCredentials) {
  ZRNetworkAccess access;
  access.trustLoopback = true;
  EXPECT_FALSE(access.requiresCredentials());
}

TEST(ZRNetworkAccess, ListeningOnEveryInterfaceRequiresCredentialsEvenWithLoopbackTrusted) {
  ZRNetworkAccess access;
  access.bindAddress = "0.0.0.0";
  EXPECT_TRUE(access.requiresCredentials());
  access.trustLoopback = true;
  EXPECT_TRUE(access.requiresCredentials());
}

TEST(ZRNetworkAccess, OnlyTheExactSecretIsAccepted) {
  ZRNetworkAccess access;
  access.secret = "s3cret";
  EXPECT_TRUE(access.acceptsSecret("s3cret"));
  EXPECT_FALSE(access.acceptsSecret("s3cre"));
  EXPECT_FALSE(access.acceptsSecret("s3cret!"));
  EXPECT_FALSE(access.acceptsSecret("S3cret"));
  EXPECT_FALSE(access.acceptsSecret(""));
}

TEST(ZRNetworkAccess, NothingIsAcceptedWithoutASecret) {
  const ZRNetworkAccess access;
  EXPECT_FALSE(access.acceptsSecret(""));
  EXPECT_FALSE(access.acceptsSecret("anything"));
}

TEST(ZRNetworkAccess, TheProcessWideSettingsAreWhatWasLastSet) {
  const ZRNetworkAccess before = networkAccess();
  ZRNetworkAccess access;
  access.bindAddress = "10.1.2.3";
  access.secret = "abc";
  access.hostNames = {"robot.local"};
  setNetworkAccess(access);
  const ZRNetworkAccess now = networkAccess();
  EXPECT_EQ("10.1.2.3", now.bindAddress);
  EXPECT_EQ("abc", now.secret);
  ASSERT_EQ(1u, now.hostNames.size());
  EXPECT_EQ("robot.local", now.hostNames[0]);
  setNetworkAccess(before);
}

}  // namespace
}  // namespace ZR

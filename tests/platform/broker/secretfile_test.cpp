#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tuqvu/broker/secretfile.h>
#include <unistd.h>

#include <fstream>

#include "support/tuqvuprocess.h"

using namespace tuqvu::broker;

TEST(SecretFile, TheFirstStartMakesAPrivateSecretAndLaterStartsReadTheSame) {
  brokertest::TempDir home;
  const std::string path = home.path() + "/data/tuqvu/secret";
  const std::string secret = loadOrCreateSecret(path);
  EXPECT_EQ(32u, secret.size());
  EXPECT_EQ(std::string::npos, secret.find_first_not_of("0123456789abcdef"));
  struct stat status {};
  ASSERT_EQ(0, ::stat(path.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
  EXPECT_EQ(secret, loadOrCreateSecret(path));
  EXPECT_EQ(secret, readSecret(path));
  EXPECT_NE(secret, loadOrCreateSecret(home.path() + "/other/secret"));
}

TEST(SecretFile, AMissingFileReadsAsNoSecret) {
  brokertest::TempDir home;
  EXPECT_EQ("", readSecret(home.path() + "/none"));
}

namespace {

const std::string kStrong = "0123456789abcdef0123456789ABCDEF";

std::string privateFile(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
  EXPECT_EQ(0, ::chmod(path.c_str(), 0600));
  return path;
}

std::string refusalOf(const std::string& path) {
  try {
    readSecret(path);
  } catch (const SecretFileError& error) {
    return error.what();
  }
  return "";
}

}  // namespace

TEST(SecretFile, AFileOthersMayReadIsRefused) {
  brokertest::TempDir home;
  const std::string path = home.path() + "/secret";
  std::ofstream(path) << kStrong << "\n";
  ASSERT_EQ(0, ::chmod(path.c_str(), 0644));
  EXPECT_THROW(readSecret(path), SecretFileError);
  EXPECT_THROW(loadOrCreateSecret(path), SecretFileError);
  ASSERT_EQ(0, ::chmod(path.c_str(), 0600));
  EXPECT_EQ(kStrong, readSecret(path));
}

TEST(SecretFile, AShortOrNonHexadecimalSecretIsRefusedAsTooWeak) {
  brokertest::TempDir home;
  for (const std::string& weak :
       {std::string("a"), std::string("abc"), kStrong.substr(1), kStrong.substr(0, 31) + "g",
        kStrong.substr(0, 16) + " " + kStrong.substr(16)}) {
    const std::string path = privateFile(home.path() + "/weak", weak + "\n");
    EXPECT_NE(std::string::npos, refusalOf(path).find("too weak")) << weak;
    EXPECT_THROW(loadOrCreateSecret(path), SecretFileError) << weak;
  }
  const std::string longer = kStrong + kStrong;
  EXPECT_EQ(longer, readSecret(privateFile(home.path() + "/long", longer + "\n")));
  EXPECT_TRUE(isStrongSecret(kStrong));
  EXPECT_FALSE(isStrongSecret(""));
}

TEST(SecretFile, AFifoInItsPlaceIsRefusedWithoutWaitingForAWriter) {
  brokertest::TempDir home;
  const std::string path = home.path() + "/secret";
  ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
  // Without a writer, a blocking open would never return.
  EXPECT_NE(std::string::npos, refusalOf(path).find("not a regular file")) << refusalOf(path);
  EXPECT_THROW(loadOrCreateSecret(path), SecretFileError);
}

TEST(SecretFile, AFileOfAnotherUserIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "giving a file away needs root";
  brokertest::TempDir home;
  const std::string path = privateFile(home.path() + "/secret", kStrong + "\n");
  ASSERT_EQ(0, ::chown(path.c_str(), 65534, 65534));
  EXPECT_NE(std::string::npos, refusalOf(path).find("another user")) << refusalOf(path);
  ASSERT_EQ(0, ::chown(path.c_str(), ::geteuid(), ::getegid()));
  EXPECT_EQ(kStrong, readSecret(path));
}

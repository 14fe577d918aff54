#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tuqvu/broker/secretfile.h>

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

TEST(SecretFile, AFileOthersMayReadIsRefused) {
  brokertest::TempDir home;
  const std::string path = home.path() + "/secret";
  std::ofstream(path) << "abc\n";
  ASSERT_EQ(0, ::chmod(path.c_str(), 0644));
  EXPECT_THROW(readSecret(path), SecretFileError);
  EXPECT_THROW(loadOrCreateSecret(path), SecretFileError);
  ASSERT_EQ(0, ::chmod(path.c_str(), 0600));
  EXPECT_EQ("abc", readSecret(path));
}

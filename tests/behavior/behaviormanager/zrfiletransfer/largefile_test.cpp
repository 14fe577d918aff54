// A 100 MB file goes up with PUT and comes back with GET on the same connection, byte
// for byte. The test streams from and to files in 64 KiB blocks and never holds the
// file in memory.
#include <gtest/gtest.h>

#include <boost/filesystem/operations.hpp>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <vector>

#include "support/rawclient.h"
#include "support/testenvironment.h"

namespace fs = boost::filesystem;
using namespace std::chrono_literals;
using zrft_test::paths;
using zrft_test::RawConnection;
using zrft_test::Reply;

namespace {

constexpr std::uint64_t kFileSize = 100ull * 1000 * 1000;
constexpr std::size_t kBlock = 65536;

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File open(const fs::path& path, const char* mode) {
  File file(std::fopen(path.c_str(), mode), &std::fclose);
  if (!file) {
    throw std::runtime_error("cannot open " + path.string());
  }
  return file;
}

// Pseudo-random bytes, so that a shifted or repeated block cannot pass for the right one.
void writePattern(const fs::path& path, std::uint64_t size) {
  File file = open(path, "wb");
  std::vector<std::uint64_t> block(kBlock / sizeof(std::uint64_t));
  std::uint64_t state = 0x9E3779B97F4A7C15ull;
  for (std::uint64_t written = 0; written < size;) {
    for (std::uint64_t& word : block) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      word = state;
    }
    const std::size_t count =
        static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, size - written));
    ASSERT_EQ(std::fwrite(block.data(), 1, count, file.get()), count);
    written += count;
  }
}

// The offset of the first difference between two files, or -1 when they are equal.
long long firstDifference(const fs::path& a, const fs::path& b) {
  File left = open(a, "rb");
  File right = open(b, "rb");
  std::vector<char> x(kBlock), y(kBlock);
  long long offset = 0;
  for (;;) {
    const std::size_t n = std::fread(x.data(), 1, kBlock, left.get());
    const std::size_t m = std::fread(y.data(), 1, kBlock, right.get());
    for (std::size_t i = 0; i < std::min(n, m); ++i) {
      if (x[i] != y[i]) {
        return offset + static_cast<long long>(i);
      }
    }
    if (n != m) {
      return offset + static_cast<long long>(std::min(n, m));
    }
    if (n == 0) {
      return -1;
    }
    offset += static_cast<long long>(n);
  }
}

}  // namespace

TEST(LargeFile, HundredMegabytesUpAndDownByteExact) {
  const int port = zrft_test::sharedServerPort();
  const fs::path source = paths().scratch / "large-source.bin";
  writePattern(source, kFileSize);
  ASSERT_EQ(fs::file_size(source), kFileSize);

  RawConnection connection(port);
  connection.send("PUT /behaviors/User/large/data.bin HTTP/1.1\nHost: robot\nContent-Length: " +
                  std::to_string(kFileSize) + "\n\n");
  {
    File file = open(source, "rb");
    std::vector<char> block(kBlock);
    while (const std::size_t n = std::fread(block.data(), 1, kBlock, file.get())) {
      connection.send(block.data(), n);
    }
  }
  const Reply stored = connection.readReply(60s);
  ASSERT_TRUE(stored.complete);
  EXPECT_EQ(stored.body, "ok\n");
  const fs::path target = paths().home / ".tuqvu" / "behaviors" / "large" / "data.bin";
  EXPECT_EQ(firstDifference(source, target), -1);

  connection.send("GET /behaviors/User/large/data.bin HTTP/1.1\nHost: robot\n\n");
  const Reply head = connection.readHead(60s);
  ASSERT_EQ(head.statusLine, "HTTP/1.1 200 OK");
  ASSERT_EQ(head.header("Content-Length"), std::to_string(kFileSize));
  EXPECT_EQ(head.header("Content-Type"), "application/octet-stream");
  const fs::path received = paths().scratch / "large-received.bin";
  {
    File file = open(received, "wb");
    std::vector<char> block(kBlock);
    std::uint64_t total = 0;
    while (total < kFileSize) {
      const std::size_t want =
          static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, kFileSize - total));
      const std::size_t n = connection.readSome(block.data(), want, 30s);
      ASSERT_GT(n, 0u) << "the body stopped after " << total << " bytes";
      ASSERT_EQ(std::fwrite(block.data(), 1, n, file.get()), n);
      total += n;
    }
  }
  EXPECT_EQ(firstDifference(source, received), -1);
  // Nothing beyond the announced length.
  EXPECT_FALSE(connection.readable(500ms));
}

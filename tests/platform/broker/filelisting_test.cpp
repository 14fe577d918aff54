#include <gtest/gtest.h>
#include <tuqvu/broker/filelisting.h>
#include <tuqvu/broker/url.h>

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

using namespace tuqvu::broker;
using nlohmann::json;

namespace {

// Sun, 06 Nov 1994 08:49:37 GMT.
constexpr std::time_t kExampleTime = 784111777;

ListedEntry entryOf(const std::string& name, ListedEntry::Type type, std::uint64_t size = 0,
                    std::string entityTag = "") {
  ListedEntry entry;
  entry.name = name;
  entry.type = type;
  entry.size = size;
  entry.modified = kExampleTime;
  entry.entityTag = std::move(entityTag);
  return entry;
}

json parsedListing(const std::vector<ListedEntry>& entries) {
  return json::parse(listingJson(entries));
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Sets TZ for one test and puts the previous zone back, so that a time written in local
// time instead of UTC shows.
class ScopedTimeZone {
public:
  explicit ScopedTimeZone(const char* zone) {
    if (const char* old = std::getenv("TZ")) fOld = old;
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  ~ScopedTimeZone() {
    if (fOld) {
      ::setenv("TZ", fOld->c_str(), 1);
    } else {
      ::unsetenv("TZ");
    }
    ::tzset();
  }

private:
  std::optional<std::string> fOld;
};

}  // namespace

// listingJson

TEST(FileListing, AnEmptyFolderIsAnEmptyJsonArray) {
  const json listing = parsedListing({});
  EXPECT_TRUE(listing.is_array());
  EXPECT_TRUE(listing.empty());
}

TEST(FileListing, AFileEntryHasItsNameTypeSizeModificationTimeAndEntityTag) {
  const json listing =
      parsedListing({entryOf("a.txt", ListedEntry::Type::File, 1234, "\"2a-4d2-1\"")});
  ASSERT_EQ(1u, listing.size());
  const json& item = listing[0];
  EXPECT_EQ("a.txt", item.at("name").get<std::string>());
  EXPECT_EQ("file", item.at("type").get<std::string>());
  EXPECT_EQ(1234u, item.at("size").get<std::uint64_t>());
  EXPECT_EQ("1994-11-06T08:49:37Z", item.at("modified").get<std::string>());
  EXPECT_EQ("\"2a-4d2-1\"", item.at("etag").get<std::string>());
}

TEST(FileListing, EachTypeIsNamedFileDirectoryLinkOrOther) {
  const json listing = parsedListing(
      {entryOf("f", ListedEntry::Type::File), entryOf("d", ListedEntry::Type::Directory),
       entryOf("l", ListedEntry::Type::Link), entryOf("o", ListedEntry::Type::Other)});
  ASSERT_EQ(4u, listing.size());
  EXPECT_EQ("file", listing[0].at("type").get<std::string>());
  EXPECT_EQ("directory", listing[1].at("type").get<std::string>());
  EXPECT_EQ("link", listing[2].at("type").get<std::string>());
  EXPECT_EQ("other", listing[3].at("type").get<std::string>());
}

TEST(FileListing, OnlyFilesCarryAnEntityTag) {
  // A tag left in an entry that is not a file must not leak into the listing.
  const json listing = parsedListing({entryOf("f", ListedEntry::Type::File, 1, "\"f\""),
                                      entryOf("d", ListedEntry::Type::Directory, 0, "\"d\""),
                                      entryOf("l", ListedEntry::Type::Link, 0, "\"l\""),
                                      entryOf("o", ListedEntry::Type::Other, 0, "\"o\"")});
  ASSERT_EQ(4u, listing.size());
  EXPECT_TRUE(listing[0].contains("etag"));
  EXPECT_FALSE(listing[1].contains("etag"));
  EXPECT_FALSE(listing[2].contains("etag"));
  EXPECT_FALSE(listing[3].contains("etag"));
  for (const json& item : listing) {
    EXPECT_TRUE(item.contains("name"));
    EXPECT_TRUE(item.contains("size"));
    EXPECT_TRUE(item.contains("modified"));
  }
}

TEST(FileListing, EntriesKeepTheOrderTheyAreGivenIn) {
  const json listing = parsedListing({entryOf("zeta", ListedEntry::Type::File),
                                      entryOf("alpha", ListedEntry::Type::Directory),
                                      entryOf("mid", ListedEntry::Type::File)});
  ASSERT_EQ(3u, listing.size());
  EXPECT_EQ("zeta", listing[0].at("name").get<std::string>());
  EXPECT_EQ("alpha", listing[1].at("name").get<std::string>());
  EXPECT_EQ("mid", listing[2].at("name").get<std::string>());
}

TEST(FileListing, TheModificationTimeIsRfc3339InUtcWhateverTheLocalZone) {
  const ScopedTimeZone zone("XYZ-05:30");
  ListedEntry epoch = entryOf("epoch", ListedEntry::Type::File);
  epoch.modified = 0;
  ListedEntry leap = entryOf("leap", ListedEntry::Type::File);
  leap.modified = 951868799;  // the last second of 29 Feb 2000
  const json listing = parsedListing({entryOf("example", ListedEntry::Type::File), epoch, leap});
  ASSERT_EQ(3u, listing.size());
  EXPECT_EQ("1994-11-06T08:49:37Z", listing[0].at("modified").get<std::string>());
  EXPECT_EQ("1970-01-01T00:00:00Z", listing[1].at("modified").get<std::string>());
  EXPECT_EQ("2000-02-29T23:59:59Z", listing[2].at("modified").get<std::string>());
}

TEST(FileListing, ASizeBeyond32BitsIsKeptExactly) {
  const std::uint64_t size = 5'000'000'000'123ULL;
  const json listing = parsedListing({entryOf("big.img", ListedEntry::Type::File, size, "\"b\"")});
  EXPECT_EQ(size, listing[0].at("size").get<std::uint64_t>());
}

TEST(FileListing, ANameWithQuotesAndControlCharactersReadsBackUnchanged) {
  const std::string name = "say \"hi\"\\\n\t.txt";
  const json listing = parsedListing({entryOf(name, ListedEntry::Type::File)});
  EXPECT_EQ(name, listing[0].at("name").get<std::string>());
}

TEST(FileListing, AUtf8NameReadsBackUnchanged) {
  const std::string name = "caf\xc3\xa9 \xe2\x82\xac.txt";
  const json listing = parsedListing({entryOf(name, ListedEntry::Type::File)});
  EXPECT_EQ(name, listing[0].at("name").get<std::string>());
}

TEST(FileListing, ANameThatIsNotUtf8IsListedWithReplacementCharacters) {
  std::string text;
  ASSERT_NO_THROW(text = listingJson({entryOf("bad\xff\xfe.bin", ListedEntry::Type::File),
                                      entryOf("good", ListedEntry::Type::File)}));
  ASSERT_TRUE(isValidUtf8(text));
  const json listing = json::parse(text);
  ASSERT_EQ(2u, listing.size());
  const std::string name = listing[0].at("name").get<std::string>();
  EXPECT_EQ(0u, name.find("bad"));
  EXPECT_TRUE(contains(name, "\xef\xbf\xbd"));  // U+FFFD
  EXPECT_TRUE(contains(name, ".bin"));
  EXPECT_EQ("good", listing[1].at("name").get<std::string>());
}

// listingHtml

TEST(FileListing, TheHtmlPageIsTitledWithTheEscapedFolderPath) {
  const std::string page = listingHtml("/files/<x>&y/", {});
  EXPECT_TRUE(contains(page, "<title>Index of /files/&lt;x&gt;&amp;y/</title>")) << page;
  EXPECT_FALSE(contains(page, "<x>"));
}

TEST(FileListing, AFolderLinksWithATrailingSlash) {
  const std::string page = listingHtml("/files/", {entryOf("sub", ListedEntry::Type::Directory)});
  EXPECT_TRUE(contains(page, "<a href=\"./sub/\">sub/</a>")) << page;
}

TEST(FileListing, AFileOrLinkLinksWithoutATrailingSlash) {
  const std::string page =
      listingHtml("/files/", {entryOf("a.txt", ListedEntry::Type::File, 12, "\"t\""),
                              entryOf("to-elsewhere", ListedEntry::Type::Link)});
  EXPECT_TRUE(contains(page, "<a href=\"./a.txt\">a.txt</a>")) << page;
  EXPECT_TRUE(contains(page, "<a href=\"./to-elsewhere\">to-elsewhere</a>")) << page;
  EXPECT_FALSE(contains(page, "a.txt/"));
  EXPECT_FALSE(contains(page, "to-elsewhere/"));
}

TEST(FileListing, AFileShowsItsSize) {
  const std::string page =
      listingHtml("/files/", {entryOf("a.txt", ListedEntry::Type::File, 4096, "\"t\"")});
  EXPECT_TRUE(contains(page, "4096 bytes")) << page;
}

TEST(FileListing, EveryEntryGetsOneLinkInTheOrderGiven) {
  const std::string page = listingHtml("/files/", {entryOf("zeta", ListedEntry::Type::File),
                                                   entryOf("alpha", ListedEntry::Type::Directory),
                                                   entryOf("mid", ListedEntry::Type::Other)});
  std::size_t links = 0;
  for (std::size_t at = page.find("<a href="); at != std::string::npos;
       at = page.find("<a href=", at + 1)) {
    ++links;
  }
  EXPECT_EQ(3u, links);
  const std::size_t zeta = page.find("./zeta\"");
  const std::size_t alpha = page.find("./alpha/\"");
  const std::size_t mid = page.find("./mid\"");
  ASSERT_NE(std::string::npos, zeta);
  ASSERT_NE(std::string::npos, alpha);
  ASSERT_NE(std::string::npos, mid);
  EXPECT_LT(zeta, alpha);
  EXPECT_LT(alpha, mid);
}

TEST(FileListing, ANameIsHtmlEscapedInTheTextAndPercentEncodedInTheLink) {
  const std::string page =
      listingHtml("/files/", {entryOf("<b>&.txt", ListedEntry::Type::File, 1, "\"t\"")});
  EXPECT_TRUE(contains(page, "<a href=\"./%3Cb%3E%26.txt\">&lt;b&gt;&amp;.txt</a>")) << page;
  EXPECT_FALSE(contains(page, "<b>"));
}

TEST(FileListing, AQuoteInANameCannotCloseTheLinkAttribute) {
  const std::string page =
      listingHtml("/files/", {entryOf("a\"b'c", ListedEntry::Type::File, 1, "\"t\"")});
  EXPECT_TRUE(contains(page, "href=\"./a%22b%27c\"")) << page;
  EXPECT_FALSE(contains(page, "a\"b"));
  EXPECT_FALSE(contains(page, "b'c"));
}

TEST(FileListing, ANameWithAColonStillLinksRelatively) {
  const std::string page =
      listingHtml("/files/", {entryOf("javascript:x", ListedEntry::Type::File, 1, "\"t\"")});
  EXPECT_TRUE(contains(page, "href=\"./javascript%3Ax\"")) << page;
}

TEST(FileListing, ANameWithASpaceAndAccentsLinksPercentEncoded) {
  const std::string page =
      listingHtml("/files/", {entryOf("caf\xc3\xa9 menu", ListedEntry::Type::Directory)});
  EXPECT_TRUE(contains(page, "href=\"./caf%C3%A9%20menu/\"")) << page;
  EXPECT_TRUE(contains(page, ">caf\xc3\xa9 menu/</a>")) << page;
}

// percentEncodePath

TEST(FileListing, PercentEncodingKeepsUnreservedCharactersAndSlashes) {
  const std::string kept =
      "/ABCDEFGHIJKLMNOPQRSTUVWXYZ/abcdefghijklmnopqrstuvwxyz/0123456789/-._~/";
  EXPECT_EQ(kept, percentEncodePath(kept));
  EXPECT_EQ("", percentEncodePath(""));
}

TEST(FileListing, PercentEncodingWritesASpaceAsPercent20) {
  EXPECT_EQ("a%20b", percentEncodePath("a b"));
  EXPECT_EQ("%20", percentEncodePath(" "));
}

TEST(FileListing, PercentEncodingWritesEachUtf8ByteInUpperCaseHex) {
  EXPECT_EQ("%C3%A9", percentEncodePath("\xc3\xa9"));
  EXPECT_EQ("%E2%82%AC", percentEncodePath("\xe2\x82\xac"));
  EXPECT_EQ("%F0%9F%98%80", percentEncodePath("\xf0\x9f\x98\x80"));
  EXPECT_EQ("%FF", percentEncodePath("\xff"));
}

TEST(FileListing, PercentEncodingWritesReservedAndControlCharacters) {
  EXPECT_EQ("%3F%23%25%2B%26%3D%3A%3B%40%21%24%2C", percentEncodePath("?#%+&=:;@!$,"));
  EXPECT_EQ("a%00b%0A%7F", percentEncodePath(std::string("a\0b\n\x7f", 5)));
}

TEST(FileListing, PercentDecodingAnEncodedPathGivesBackEveryByte) {
  std::string everyByte;
  for (int byte = 0; byte < 256; ++byte) everyByte += static_cast<char>(byte);
  const std::string encoded = percentEncodePath(everyByte);
  for (const char c : encoded) {
    const unsigned char byte = static_cast<unsigned char>(c);
    EXPECT_TRUE(byte > 0x20 && byte < 0x7f) << "byte " << int(byte) << " left as is";
  }
  EXPECT_EQ(everyByte, percentDecode(encoded).value());
}

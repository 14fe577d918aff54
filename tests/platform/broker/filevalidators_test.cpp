#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tuqvu/broker/filevalidators.h>

#include <cstdint>
#include <string>

using namespace tuqvu::broker;

namespace {

// Sun, 06 Nov 1994 08:49:37 GMT, the date every HTTP text uses as its example.
constexpr std::time_t kExampleTime = 784111777;

Request requestOf(http::verb method) {
  Request request;
  request.method(method);
  request.target("/files/data/a.bin");
  request.version(11);
  return request;
}

Validators currentVersion() {
  Validators current;
  current.entityTag = "\"2a-3e8-abc123\"";
  current.modified = kExampleTime;
  return current;
}

struct stat statusOf(ino_t inode, off_t size, std::time_t seconds, long nanoseconds) {
  struct stat status {};
  status.st_ino = inode;
  status.st_size = size;
  status.st_mtim.tv_sec = seconds;
  status.st_mtim.tv_nsec = nanoseconds;
  return status;
}

Precondition preconditionsOf(http::verb method, http::field name, const std::string& value) {
  Request request = requestOf(method);
  request.set(name, value);
  const Validators current = currentVersion();
  return evaluatePreconditions(request, &current);
}

ByteRange rangeOf(const std::string& range, std::uint64_t size = 1000) {
  Request request = requestOf(http::verb::get);
  request.set(http::field::range, range);
  return requestedRange(request, currentVersion(), size);
}

void expectPart(const ByteRange& range, std::uint64_t first, std::uint64_t length) {
  EXPECT_EQ(ByteRange::Kind::Part, range.kind);
  EXPECT_EQ(first, range.first);
  EXPECT_EQ(length, range.length);
}

}  // namespace

// validatorsOf

TEST(FileValidators, TheEntityTagIsAQuotedStrongTag) {
  const std::string tag = validatorsOf(statusOf(42, 1000, kExampleTime, 5)).entityTag;
  ASSERT_GT(tag.size(), 2u);
  EXPECT_EQ('"', tag.front());
  EXPECT_EQ('"', tag.back());
  // Only the two enclosing quotes: a quote inside would end the tag early.
  EXPECT_EQ(std::string::npos, tag.substr(1, tag.size() - 2).find('"'));
  EXPECT_NE(0u, tag.find("W/"));
}

TEST(FileValidators, TheSameFileStatusGivesTheSameEntityTag) {
  EXPECT_EQ(validatorsOf(statusOf(42, 1000, kExampleTime, 5)).entityTag,
            validatorsOf(statusOf(42, 1000, kExampleTime, 5)).entityTag);
}

TEST(FileValidators, TheEntityTagChangesWithTheInode) {
  EXPECT_NE(validatorsOf(statusOf(42, 1000, kExampleTime, 5)).entityTag,
            validatorsOf(statusOf(43, 1000, kExampleTime, 5)).entityTag);
}

TEST(FileValidators, TheEntityTagChangesWithTheSize) {
  EXPECT_NE(validatorsOf(statusOf(42, 1000, kExampleTime, 5)).entityTag,
            validatorsOf(statusOf(42, 1001, kExampleTime, 5)).entityTag);
}

TEST(FileValidators, TheEntityTagChangesWithinTheSameSecondOfModification) {
  EXPECT_NE(validatorsOf(statusOf(42, 1000, kExampleTime, 5)).entityTag,
            validatorsOf(statusOf(42, 1000, kExampleTime, 6)).entityTag);
  EXPECT_NE(validatorsOf(statusOf(42, 1000, kExampleTime, 5)).entityTag,
            validatorsOf(statusOf(42, 1000, kExampleTime + 1, 5)).entityTag);
}

TEST(FileValidators, TheModificationTimeIsTheWholeSecondsOfTheFileTime) {
  EXPECT_EQ(kExampleTime, validatorsOf(statusOf(42, 1000, kExampleTime, 999999999)).modified);
}

// httpDate and parseHttpDate

TEST(FileValidators, AnHttpDateIsAnImfFixdateInGmt) {
  EXPECT_EQ("Sun, 06 Nov 1994 08:49:37 GMT", httpDate(kExampleTime));
  EXPECT_EQ("Thu, 01 Jan 1970 00:00:00 GMT", httpDate(0));
}

TEST(FileValidators, AnImfFixdateIsRead) {
  EXPECT_EQ(kExampleTime, parseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT"));
}

TEST(FileValidators, TheObsoleteRfc850DateIsRead) {
  EXPECT_EQ(kExampleTime, parseHttpDate("Sunday, 06-Nov-94 08:49:37 GMT"));
}

TEST(FileValidators, TheAsctimeDateIsRead) {
  EXPECT_EQ(kExampleTime, parseHttpDate("Sun Nov  6 08:49:37 1994"));
}

TEST(FileValidators, AWrittenHttpDateReadsBackAsTheSameTime) {
  for (const std::time_t time :
       {std::time_t{0}, kExampleTime, std::time_t{951782400} /* 29 Feb 2000 */,
        std::time_t{2147483648} /* past 32-bit seconds */, std::time_t{4102444799}}) {
    EXPECT_EQ(time, parseHttpDate(httpDate(time))) << httpDate(time);
  }
}

TEST(FileValidators, TextThatIsNotAnHttpDateIsNotRead) {
  EXPECT_FALSE(parseHttpDate("").has_value());
  EXPECT_FALSE(parseHttpDate("yesterday").has_value());
  EXPECT_FALSE(parseHttpDate("784111777").has_value());
  EXPECT_FALSE(parseHttpDate("Sun, 06 Nov 1994 08:49:37").has_value());  // no zone
  EXPECT_FALSE(parseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT and more").has_value());
  EXPECT_FALSE(parseHttpDate("Sun, 06 Nox 1994 08:49:37 GMT").has_value());
  EXPECT_FALSE(parseHttpDate("Sun, 32 Nov 1994 08:49:37 GMT").has_value());
  EXPECT_FALSE(parseHttpDate("Sun, 06 Nov 1994 25:49:37 GMT").has_value());
}

TEST(FileValidators, AnOverlongDateIsNotRead) {
  EXPECT_FALSE(parseHttpDate(std::string(60, ' ') + "Sun, 06 Nov 1994 08:49:37 GMT").has_value());
}

// evaluatePreconditions

TEST(FileValidators, ARequestWithoutConditionsProceeds) {
  const Validators current = currentVersion();
  EXPECT_EQ(Precondition::Proceed, evaluatePreconditions(requestOf(http::verb::get), &current));
  EXPECT_EQ(Precondition::Proceed, evaluatePreconditions(requestOf(http::verb::put), &current));
  EXPECT_EQ(Precondition::Proceed, evaluatePreconditions(requestOf(http::verb::get), nullptr));
  EXPECT_EQ(Precondition::Proceed, evaluatePreconditions(requestOf(http::verb::put), nullptr));
}

TEST(FileValidators, AnIfMatchThatNamesTheCurrentTagProceeds) {
  const std::string tag = currentVersion().entityTag;
  EXPECT_EQ(Precondition::Proceed, preconditionsOf(http::verb::put, http::field::if_match, tag));
  EXPECT_EQ(Precondition::Proceed,
            preconditionsOf(http::verb::put, http::field::if_match, "\"other\" , " + tag));
  EXPECT_EQ(Precondition::Proceed, preconditionsOf(http::verb::get, http::field::if_match, tag));
}

TEST(FileValidators, AnIfMatchThatNamesOnlyOtherTagsFails) {
  EXPECT_EQ(Precondition::Failed,
            preconditionsOf(http::verb::put, http::field::if_match, "\"other\", \"more\""));
  EXPECT_EQ(Precondition::Failed,
            preconditionsOf(http::verb::get, http::field::if_match, "\"other\""));
}

TEST(FileValidators, AnIfMatchComparesStronglySoAWeakFormOfTheCurrentTagFails) {
  EXPECT_EQ(Precondition::Failed, preconditionsOf(http::verb::put, http::field::if_match,
                                                  "W/" + currentVersion().entityTag));
}

TEST(FileValidators, AnIfMatchStarProceedsWhenTheTargetExists) {
  EXPECT_EQ(Precondition::Proceed, preconditionsOf(http::verb::put, http::field::if_match, "*"));
}

TEST(FileValidators, AnIfMatchFailsWhenTheTargetIsMissing) {
  for (const std::string& value : {std::string("*"), currentVersion().entityTag}) {
    Request request = requestOf(http::verb::put);
    request.set(http::field::if_match, value);
    EXPECT_EQ(Precondition::Failed, evaluatePreconditions(request, nullptr)) << value;
  }
}

TEST(FileValidators, AnIfUnmodifiedSinceBeforeTheModificationFails) {
  EXPECT_EQ(Precondition::Failed, preconditionsOf(http::verb::put, http::field::if_unmodified_since,
                                                  httpDate(kExampleTime - 1)));
}

TEST(FileValidators, AnIfUnmodifiedSinceAtOrAfterTheModificationProceeds) {
  EXPECT_EQ(
      Precondition::Proceed,
      preconditionsOf(http::verb::put, http::field::if_unmodified_since, httpDate(kExampleTime)));
  EXPECT_EQ(Precondition::Proceed,
            preconditionsOf(http::verb::delete_, http::field::if_unmodified_since,
                            httpDate(kExampleTime + 3600)));
}

TEST(FileValidators, AnIfUnmodifiedSinceIsIgnoredWhenIfMatchIsPresent) {
  Request request = requestOf(http::verb::put);
  request.set(http::field::if_match, currentVersion().entityTag);
  request.set(http::field::if_unmodified_since, httpDate(kExampleTime - 3600));
  const Validators current = currentVersion();
  EXPECT_EQ(Precondition::Proceed, evaluatePreconditions(request, &current));
}

TEST(FileValidators, AnIfUnmodifiedSinceThatIsNotADateIsIgnored) {
  EXPECT_EQ(Precondition::Proceed,
            preconditionsOf(http::verb::put, http::field::if_unmodified_since, "long ago"));
}

TEST(FileValidators, AnIfUnmodifiedSinceOnAMissingTargetProceeds) {
  Request request = requestOf(http::verb::put);
  request.set(http::field::if_unmodified_since, httpDate(kExampleTime));
  EXPECT_EQ(Precondition::Proceed, evaluatePreconditions(request, nullptr));
}

TEST(FileValidators, AnIfNoneMatchThatNamesTheCurrentTagAnswersNotModifiedToAGet) {
  const std::string tag = currentVersion().entityTag;
  EXPECT_EQ(Precondition::NotModified,
            preconditionsOf(http::verb::get, http::field::if_none_match, tag));
  EXPECT_EQ(Precondition::NotModified,
            preconditionsOf(http::verb::get, http::field::if_none_match, "\"old\", " + tag));
}

TEST(FileValidators, AnIfNoneMatchThatNamesTheCurrentTagAnswersNotModifiedToAHead) {
  EXPECT_EQ(Precondition::NotModified, preconditionsOf(http::verb::head, http::field::if_none_match,
                                                       currentVersion().entityTag));
}

TEST(FileValidators, AnIfNoneMatchComparesWeaklySoAWeakFormOfTheCurrentTagMatches) {
  EXPECT_EQ(Precondition::NotModified, preconditionsOf(http::verb::get, http::field::if_none_match,
                                                       "W/" + currentVersion().entityTag));
}

TEST(FileValidators, AnIfNoneMatchThatNamesTheCurrentTagFailsAPutOrADelete) {
  const std::string tag = currentVersion().entityTag;
  EXPECT_EQ(Precondition::Failed,
            preconditionsOf(http::verb::put, http::field::if_none_match, tag));
  EXPECT_EQ(Precondition::Failed,
            preconditionsOf(http::verb::delete_, http::field::if_none_match, tag));
}

TEST(FileValidators, AnIfNoneMatchStarFailsAPutOnAnExistingTarget) {
  EXPECT_EQ(Precondition::Failed,
            preconditionsOf(http::verb::put, http::field::if_none_match, "*"));
}

TEST(FileValidators, AnIfNoneMatchStarOnAMissingTargetProceeds) {
  Request request = requestOf(http::verb::put);
  request.set(http::field::if_none_match, "*");
  EXPECT_EQ(Precondition::Proceed, evaluatePreconditions(request, nullptr));
}

TEST(FileValidators, AnIfNoneMatchWithOnlyOtherTagsProceeds) {
  EXPECT_EQ(Precondition::Proceed,
            preconditionsOf(http::verb::get, http::field::if_none_match, "\"old\", W/\"older\""));
  EXPECT_EQ(Precondition::Proceed,
            preconditionsOf(http::verb::put, http::field::if_none_match, "\"old\""));
}

TEST(FileValidators, AFailedIfMatchOutranksAMatchingIfNoneMatch) {
  Request request = requestOf(http::verb::get);
  request.set(http::field::if_match, "\"other\"");
  request.set(http::field::if_none_match, currentVersion().entityTag);
  const Validators current = currentVersion();
  EXPECT_EQ(Precondition::Failed, evaluatePreconditions(request, &current));
}

TEST(FileValidators, AnIfModifiedSinceAtOrAfterTheModificationAnswersNotModifiedToAGetOrAHead) {
  EXPECT_EQ(
      Precondition::NotModified,
      preconditionsOf(http::verb::get, http::field::if_modified_since, httpDate(kExampleTime)));
  EXPECT_EQ(Precondition::NotModified,
            preconditionsOf(http::verb::head, http::field::if_modified_since,
                            httpDate(kExampleTime + 60)));
}

TEST(FileValidators, AnIfModifiedSinceBeforeTheModificationProceeds) {
  EXPECT_EQ(Precondition::Proceed, preconditionsOf(http::verb::get, http::field::if_modified_since,
                                                   httpDate(kExampleTime - 1)));
}

TEST(FileValidators, AnIfModifiedSinceIsIgnoredForAPutOrADelete) {
  const std::string later = httpDate(kExampleTime + 60);
  EXPECT_EQ(Precondition::Proceed,
            preconditionsOf(http::verb::put, http::field::if_modified_since, later));
  EXPECT_EQ(Precondition::Proceed,
            preconditionsOf(http::verb::delete_, http::field::if_modified_since, later));
}

TEST(FileValidators, AnIfModifiedSinceIsIgnoredWhenIfNoneMatchIsPresent) {
  // The tags say the client's copy is stale even though the date would say it is not.
  Request request = requestOf(http::verb::get);
  request.set(http::field::if_none_match, "\"old\"");
  request.set(http::field::if_modified_since, httpDate(kExampleTime + 60));
  const Validators current = currentVersion();
  EXPECT_EQ(Precondition::Proceed, evaluatePreconditions(request, &current));
}

TEST(FileValidators, AnIfModifiedSinceThatIsNotADateIsIgnored) {
  EXPECT_EQ(Precondition::Proceed,
            preconditionsOf(http::verb::get, http::field::if_modified_since, "recently"));
}

TEST(FileValidators, AnIfModifiedSinceOnAMissingTargetProceeds) {
  Request request = requestOf(http::verb::get);
  request.set(http::field::if_modified_since, httpDate(kExampleTime));
  EXPECT_EQ(Precondition::Proceed, evaluatePreconditions(request, nullptr));
}

// requestedRange

TEST(FileValidators, WithoutARangeHeaderTheWholeFileIsSent) {
  EXPECT_EQ(ByteRange::Kind::Whole,
            requestedRange(requestOf(http::verb::get), currentVersion(), 1000).kind);
}

TEST(FileValidators, AClosedRangeGivesExactlyItsBytes) {
  expectPart(rangeOf("bytes=0-499"), 0, 500);
  expectPart(rangeOf("bytes=500-999"), 500, 500);
  expectPart(rangeOf("bytes=0-0"), 0, 1);
  expectPart(rangeOf("bytes=999-999"), 999, 1);
}

TEST(FileValidators, AnOpenRangeRunsToTheEndOfTheFile) {
  expectPart(rangeOf("bytes=900-"), 900, 100);
  expectPart(rangeOf("bytes=0-"), 0, 1000);
}

TEST(FileValidators, ASuffixRangeGivesTheLastBytes) {
  expectPart(rangeOf("bytes=-100"), 900, 100);
  expectPart(rangeOf("bytes=-1"), 999, 1);
}

TEST(FileValidators, ASuffixLongerThanTheFileGivesAllOfItAsAPart) {
  expectPart(rangeOf("bytes=-5000"), 0, 1000);
}

TEST(FileValidators, ALastPositionBeyondTheEndIsClipped) {
  expectPart(rangeOf("bytes=990-5000"), 990, 10);
  expectPart(rangeOf("bytes=0-9999999999999999999"), 0, 1000);
}

TEST(FileValidators, ARangeStartingAtOrPastTheEndIsUnsatisfiable) {
  EXPECT_EQ(ByteRange::Kind::Unsatisfiable, rangeOf("bytes=1000-").kind);
  EXPECT_EQ(ByteRange::Kind::Unsatisfiable, rangeOf("bytes=1000-1000").kind);
  EXPECT_EQ(ByteRange::Kind::Unsatisfiable, rangeOf("bytes=5000-6000").kind);
  EXPECT_EQ(ByteRange::Kind::Unsatisfiable, rangeOf("bytes=9999999999999999999-").kind);
}

TEST(FileValidators, ASuffixOfNoBytesIsUnsatisfiable) {
  EXPECT_EQ(ByteRange::Kind::Unsatisfiable, rangeOf("bytes=-0").kind);
}

TEST(FileValidators, TheRangeUnitIsReadWithoutRegardToCase) {
  expectPart(rangeOf("Bytes=10-19"), 10, 10);
  expectPart(rangeOf("BYTES=10-19"), 10, 10);
}

TEST(FileValidators, SeveralRangesGiveTheWholeFile) {
  EXPECT_EQ(ByteRange::Kind::Whole, rangeOf("bytes=0-1,5-6").kind);
  EXPECT_EQ(ByteRange::Kind::Whole, rangeOf("bytes=0-1, -5").kind);
}

TEST(FileValidators, AnotherRangeUnitGivesTheWholeFile) {
  EXPECT_EQ(ByteRange::Kind::Whole, rangeOf("items=0-5").kind);
  EXPECT_EQ(ByteRange::Kind::Whole, rangeOf("bytesx=0-5").kind);
}

TEST(FileValidators, AMalformedRangeGivesTheWholeFile) {
  for (const char* range :
       {"bytes", "bytes=", "bytes=-", "bytes=5", "bytes=abc-", "bytes=1-x", "bytes=--5",
        "bytes=5-3", "bytes=-x", "bytes=0-99999999999999999999", "bytes=1.5-2"}) {
    EXPECT_EQ(ByteRange::Kind::Whole, rangeOf(range).kind) << range;
  }
}

TEST(FileValidators, AHeadRequestIsAnsweredWithTheWholeFile) {
  Request request = requestOf(http::verb::head);
  request.set(http::field::range, "bytes=0-9");
  EXPECT_EQ(ByteRange::Kind::Whole, requestedRange(request, currentVersion(), 1000).kind);
}

TEST(FileValidators, AnIfRangeWithTheCurrentTagKeepsTheRange) {
  Request request = requestOf(http::verb::get);
  request.set(http::field::range, "bytes=10-19");
  request.set(http::field::if_range, currentVersion().entityTag);
  expectPart(requestedRange(request, currentVersion(), 1000), 10, 10);
}

TEST(FileValidators, AnIfRangeWithAnotherTagGivesTheWholeFile) {
  for (const std::string& tag : {std::string("\"other\""), "W/" + currentVersion().entityTag}) {
    Request request = requestOf(http::verb::get);
    request.set(http::field::range, "bytes=10-19");
    request.set(http::field::if_range, tag);
    EXPECT_EQ(ByteRange::Kind::Whole, requestedRange(request, currentVersion(), 1000).kind) << tag;
  }
}

TEST(FileValidators, AnIfRangeWithTheExactModificationDateKeepsTheRange) {
  Request request = requestOf(http::verb::get);
  request.set(http::field::range, "bytes=-10");
  request.set(http::field::if_range, httpDate(kExampleTime));
  expectPart(requestedRange(request, currentVersion(), 1000), 990, 10);
}

TEST(FileValidators, AnIfRangeWithAnyOtherDateGivesTheWholeFile) {
  // A later date does not do: If-Range asks whether this is the very version the client has.
  for (const std::string& date :
       {httpDate(kExampleTime - 1), httpDate(kExampleTime + 1), std::string("not a date")}) {
    Request request = requestOf(http::verb::get);
    request.set(http::field::range, "bytes=10-19");
    request.set(http::field::if_range, date);
    EXPECT_EQ(ByteRange::Kind::Whole, requestedRange(request, currentVersion(), 1000).kind) << date;
  }
}

TEST(FileValidators, OnAnEmptyFileARangeFromAPositionIsUnsatisfiable) {
  EXPECT_EQ(ByteRange::Kind::Unsatisfiable, rangeOf("bytes=0-", 0).kind);
  EXPECT_EQ(ByteRange::Kind::Unsatisfiable, rangeOf("bytes=0-0", 0).kind);
  EXPECT_EQ(ByteRange::Kind::Unsatisfiable, rangeOf("bytes=-0", 0).kind);
}

TEST(FileValidators, OnAnEmptyFileASuffixRangeGivesTheWholeEmptyFile) {
  EXPECT_EQ(ByteRange::Kind::Whole, rangeOf("bytes=-10", 0).kind);
}

TEST(FileValidators, OnAOneByteFileEveryFormReachesThatByte) {
  expectPart(rangeOf("bytes=0-0", 1), 0, 1);
  expectPart(rangeOf("bytes=0-", 1), 0, 1);
  expectPart(rangeOf("bytes=-1", 1), 0, 1);
  expectPart(rangeOf("bytes=-7", 1), 0, 1);
  EXPECT_EQ(ByteRange::Kind::Unsatisfiable, rangeOf("bytes=1-", 1).kind);
}

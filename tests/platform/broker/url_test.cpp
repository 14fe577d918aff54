#include <gtest/gtest.h>
#include <tuqvu/broker/url.h>

using namespace tuqvu::broker;

TEST(Url, SplitsPathAndQuery) {
  Target target = splitTarget("/ZRBehaviorManager/?eval=X.y('a')#frag");
  EXPECT_EQ("/ZRBehaviorManager/", target.path);
  EXPECT_TRUE(target.hasQuery);
  EXPECT_EQ("eval=X.y('a')", target.query);
  target = splitTarget("/rpc");
  EXPECT_EQ("/rpc", target.path);
  EXPECT_FALSE(target.hasQuery);
}

TEST(Url, PercentDecodesAndKeepsPlus) {
  EXPECT_EQ("a b/c+d", percentDecode("a%20b%2fc+d").value());
  EXPECT_EQ("M.m('x')", percentDecode("M.m(%27x%27)").value());
  EXPECT_EQ("\xc3\xa9", percentDecode("%C3%A9").value());
  EXPECT_FALSE(percentDecode("%zz").has_value());
  EXPECT_FALSE(percentDecode("abc%2").has_value());
  EXPECT_FALSE(percentDecode("%").has_value());
}

TEST(Url, ChecksUtf8) {
  EXPECT_TRUE(isValidUtf8("plain"));
  EXPECT_TRUE(isValidUtf8("\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"));
  EXPECT_FALSE(isValidUtf8("\xff"));
  EXPECT_FALSE(isValidUtf8("\xc3"));              // cut short
  EXPECT_FALSE(isValidUtf8("\xc0\xaf"));          // overlong
  EXPECT_FALSE(isValidUtf8("\xed\xa0\x80"));      // surrogate
  EXPECT_FALSE(isValidUtf8("\xf4\x90\x80\x80"));  // beyond U+10FFFF
}

TEST(Url, FindsQueryValues) {
  EXPECT_EQ((std::vector<std::string>{"A", "B%2FC", ""}),
            queryValues("key=A&x=1&key=B%2FC&key", "key"));
  EXPECT_TRUE(queryValues("", "key").empty());
}

TEST(Url, EvalTakesTheRestOfTheQueryWhenItComesFirst) {
  EXPECT_EQ("M.m('a&b=c')", evalParameter("eval=M.m('a&b=c')").value());
  EXPECT_EQ("M.m()", evalParameter("x=1&eval=M.m()").value());
  EXPECT_FALSE(evalParameter("x=1").has_value());
}

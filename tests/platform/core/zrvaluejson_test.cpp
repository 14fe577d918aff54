#include <gtest/gtest.h>
#include <zr/zrerror.h>
#include <zr/zrvaluejson.h>

using ZR::fromJson;
using ZR::toJson;
using ZR::ZRError;
using ZR::ZRValue;

namespace {
void expectRoundTrip(const ZRValue& value) {
  const std::string text = toJson(value);
  EXPECT_EQ(fromJson(text), value) << text;
}
}  // namespace

TEST(ZRValueJson, EveryTypeRoundTrips) {
  expectRoundTrip(ZRValue());
  expectRoundTrip(ZRValue(true));
  expectRoundTrip(ZRValue(false));
  expectRoundTrip(ZRValue(0));
  expectRoundTrip(ZRValue(-2147483647 - 1));
  expectRoundTrip(ZRValue(2147483647));
  expectRoundTrip(ZRValue(0.5));
  expectRoundTrip(ZRValue(std::string("caf\xc3\xa9 \"quoted\"\n")));
  expectRoundTrip(ZRValue::binary(ZRValue::Binary{0, 1, 2, 250, 255}));
  expectRoundTrip(ZRValue::binary(ZRValue::Binary{}));
  ZRValue nested = ZRValue::array();
  nested.arrayPush(1);
  nested.arrayPush(ZRValue(std::vector<std::string>{"x", "y"}));
  nested.arrayPush(ZRValue::array());
  expectRoundTrip(nested);
}

TEST(ZRValueJson, EncodesTheDocumentedShapes) {
  EXPECT_EQ(toJson(ZRValue()), "null");
  EXPECT_EQ(toJson(ZRValue(true)), "true");
  EXPECT_EQ(toJson(ZRValue(42)), "42");
  EXPECT_EQ(toJson(ZRValue("a")), "\"a\"");
  EXPECT_EQ(toJson(ZRValue(std::vector<std::string>{"a", "b"})), "[\"a\",\"b\"]");
  EXPECT_EQ(toJson(ZRValue::binary("hi", 2)), "{\"$binary\":\"aGk=\"}");
}

TEST(ZRValueJson, IntegersBeyond32BitsBecomeFloats) {
  EXPECT_EQ(fromJson("2147483648").getType(), ZRValue::TypeFloat);
  EXPECT_EQ(fromJson("-2147483649").getType(), ZRValue::TypeFloat);
  EXPECT_EQ(fromJson("12").getType(), ZRValue::TypeInt);
  EXPECT_EQ(fromJson("1.0").getType(), ZRValue::TypeFloat);
}

TEST(ZRValueJson, MalformedTextThrowsZRError) {
  EXPECT_THROW(fromJson("[1,"), ZRError);
  EXPECT_THROW(fromJson(""), ZRError);
  EXPECT_THROW(fromJson("{\"a\":1}"), ZRError);
  EXPECT_THROW(fromJson("{\"$binary\":\"***\"}"), ZRError);
}

TEST(ZRValueJson, DeepNestingIsRefused) {
  const std::string deep = std::string(10000, '[') + std::string(10000, ']');
  EXPECT_THROW(fromJson(deep), ZRError);
  const std::string fine = std::string(10, '[') + std::string(10, ']');
  EXPECT_NO_THROW(fromJson(fine));
}

TEST(ZRValueJson, InvalidUtf8IsReplacedNotThrown) {
  const std::string text =
      toJson(ZRValue(std::string("a\xff"
                                 "b")));
  EXPECT_EQ(text.front(), '"');
  EXPECT_NO_THROW(fromJson(text));
}

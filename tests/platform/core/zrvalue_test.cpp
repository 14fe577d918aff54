#include <gtest/gtest.h>
#include <zr/zrerror.h>
#include <zr/zrvalue.h>

using ZR::ZRError;
using ZR::ZRValue;

TEST(ZRValue, DefaultIsInvalid) {
  ZRValue value;
  EXPECT_FALSE(value.isValid());
  EXPECT_EQ(value.getType(), ZRValue::TypeInvalid);
}

TEST(ZRValue, TypedConstructorsSetTheirType) {
  EXPECT_EQ(ZRValue(true).getType(), ZRValue::TypeBool);
  EXPECT_EQ(ZRValue(7).getType(), ZRValue::TypeInt);
  EXPECT_EQ(ZRValue(1.5f).getType(), ZRValue::TypeFloat);
  EXPECT_EQ(ZRValue(2.5).getType(), ZRValue::TypeFloat);
  EXPECT_EQ(ZRValue("x").getType(), ZRValue::TypeString);
  EXPECT_EQ(ZRValue(std::string("x")).getType(), ZRValue::TypeString);
  EXPECT_EQ(ZRValue(std::vector<std::string>{"a"}).getType(), ZRValue::TypeArray);
  EXPECT_EQ(ZRValue::binary("ab", 2).getType(), ZRValue::TypeBinary);
}

TEST(ZRValue, StringTypeCodeIsFiveAndBoolTwo) {
  EXPECT_EQ(static_cast<int>(ZRValue::TypeString), 5);
  EXPECT_EQ(static_cast<int>(ZRValue::TypeBool), 2);
}

TEST(ZRValue, AccessorsReturnStoredValues) {
  EXPECT_TRUE(ZRValue(true).toBool());
  EXPECT_EQ(ZRValue(-3).toInt(), -3);
  EXPECT_FLOAT_EQ(ZRValue(2.25f).toFloat(), 2.25f);
  EXPECT_EQ(ZRValue("hello").toString(), "hello");
  const ZRValue::Binary bytes{0, 1, 255};
  EXPECT_EQ(ZRValue::binary(bytes).toBinary(), bytes);
}

TEST(ZRValue, FloatConversionAcceptsIntsAndIntConversionTruncatesFloats) {
  EXPECT_FLOAT_EQ(ZRValue(3).toFloat(), 3.0f);
  EXPECT_EQ(ZRValue(1.9).toInt(), 1);
  EXPECT_EQ(ZRValue(-1.9).toInt(), -1);
}

TEST(ZRValue, WrongAccessorThrowsZRErrorNamingBothTypes) {
  try {
    (void)ZRValue(5).toString();
    FAIL() << "no exception";
  } catch (const ZRError& error) {
    EXPECT_NE(error.description().find("Int"), std::string::npos);
    EXPECT_NE(error.description().find("String"), std::string::npos);
  }
  EXPECT_THROW((void)ZRValue(1).toBool(), ZRError);
  EXPECT_THROW((void)ZRValue("1").toInt(), ZRError);
}

TEST(ZRValue, ArrayPushOnInvalidMakesAnArray) {
  ZRValue value;
  value.arrayPush("a");
  value.arrayPush(2);
  ASSERT_TRUE(value.isArray());
  ASSERT_EQ(value.size(), 2u);
  EXPECT_EQ(value[0].toString(), "a");
  EXPECT_EQ(value[1].toInt(), 2);
}

TEST(ZRValue, IndexOutOfRangeThrows) {
  ZRValue value = ZRValue::array();
  EXPECT_THROW((void)value[0], ZRError);
  EXPECT_THROW((void)ZRValue(1)[0], ZRError);
}

TEST(ZRValue, StringVectorRoundTrip) {
  const std::vector<std::string> names{"b", "a", ""};
  const std::vector<std::string> back = ZRValue(names);
  EXPECT_EQ(back, names);
}

TEST(ZRValue, EqualityComparesTypeAndContent) {
  EXPECT_EQ(ZRValue(1), ZRValue(1));
  EXPECT_NE(ZRValue(1), ZRValue(1.0));
  EXPECT_NE(ZRValue("a"), ZRValue("b"));
  EXPECT_EQ(ZRValue(std::vector<std::string>{"a"}), ZRValue(std::vector<std::string>{"a"}));
  EXPECT_EQ(ZRValue(), ZRValue());
}

TEST(ZRValue, TypeToStringNamesEveryType) {
  EXPECT_EQ(ZRValue::TypeToString(ZRValue::TypeInt), "Int");
  EXPECT_EQ(ZRValue::TypeToString(ZRValue::TypeString), "String");
  EXPECT_EQ(ZRValue::TypeToString(ZRValue::TypeBool), "Bool");
  EXPECT_EQ(ZRValue::TypeToString(ZRValue::TypeFloat), "Float");
  EXPECT_EQ(ZRValue::TypeToString(ZRValue::TypeArray), "Array");
  EXPECT_EQ(ZRValue::TypeToString(ZRValue::TypeBinary), "Binary");
  EXPECT_EQ(ZRValue::TypeToString(ZRValue::TypeInvalid), "Invalid");
}

#include <gtest/gtest.h>
#include <tuqvu/broker/evalparser.h>
#include <zr/zrvaluejson.h>

using tuqvu::broker::EvalCall;
using tuqvu::broker::EvalSyntaxError;
using tuqvu::broker::parseEval;

namespace {

std::string argsOf(const std::string& expression) {
  return ZR::toJson(parseEval(expression).args);
}

std::size_t errorPosition(const std::string& expression) {
  try {
    parseEval(expression);
  } catch (const EvalSyntaxError& error) {
    return error.position();
  }
  ADD_FAILURE() << "parsed: " << expression;
  return std::string::npos;
}

}  // namespace

TEST(EvalParser, SplitsModuleMethodAndArguments) {
  const EvalCall call = parseEval("ZRBehaviorManager.loadBehavior('x')");
  EXPECT_EQ("ZRBehaviorManager", call.module);
  EXPECT_EQ("loadBehavior", call.method);
  EXPECT_EQ(R"(["x"])", ZR::toJson(call.args));
}

TEST(EvalParser, NoArgumentsGiveAnEmptyArray) {
  const EvalCall call = parseEval("M._internal()");
  EXPECT_EQ("_internal", call.method);
  EXPECT_TRUE(call.args.isArray());
  EXPECT_EQ(0u, call.args.size());
}

TEST(EvalParser, ReadsEveryKindOfLiteral) {
  EXPECT_EQ(R"(["a",2,-3,1.5,true,false,null])",
            argsOf(R"(M.m('a', 2, -3, 1.5, true, false, null))"));
  EXPECT_EQ(R"([[1,["x",[]]],[]])", argsOf("M.m([1, ['x', []]], [])"));
  EXPECT_EQ(R"([0.5,-250.0,1000.0])", argsOf("M.m(.5, -2.5e2, 1E3)"));
  EXPECT_EQ(R"([7])", argsOf("M.m(+7)"));
}

TEST(EvalParser, IntegersBeyondThirtyTwoBitsBecomeFloats) {
  const EvalCall call = parseEval("M.m(2147483647, 2147483648, -2147483648)");
  EXPECT_TRUE(call.args[0].isInt());
  EXPECT_TRUE(call.args[1].isFloat());
  EXPECT_DOUBLE_EQ(2147483648.0, call.args[1].toDouble());
  EXPECT_TRUE(call.args[2].isInt());
}

TEST(EvalParser, StringsTakeBothQuotesAndBackslashEscapes) {
  EXPECT_EQ(R"(["it's","say \"hi\""])", argsOf(R"(M.m("it's", 'say "hi"'))"));
  EXPECT_EQ(R"(["a\nb\tc\\d'e\"f"])", argsOf(R"(M.m('a\nb\tc\\d\'e\"f'))"));
  EXPECT_EQ("A\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80",
            parseEval(R"(M.m('\x41\u00e9\u20AC\uD83D\uDE00'))").args[0].toString());
  EXPECT_EQ(R"(["q"])", argsOf(R"(M.m('\q'))"));  // any other escaped character stands for itself
  EXPECT_EQ(R"(["a,b)c"])", argsOf("M.m('a,b)c')"));
}

TEST(EvalParser, AllowsBlanksBetweenTokens) {
  const EvalCall call = parseEval("  M . m ( 1 ,\t'two' )  ");
  EXPECT_EQ("M", call.module);
  EXPECT_EQ("m", call.method);
  EXPECT_EQ(R"([1,"two"])", ZR::toJson(call.args));
}

TEST(EvalParser, RefusesWhatIsNotOneCall) {
  for (const char* bad : {"",           "M",           "M.",
                          "M.m",        "M.m(",        "M.m('a'",
                          "M.m('a)",    "M.m(a)",      "M.m(1,)",
                          "M.m(,1)",    "M.m() x",     "M.m()(",
                          ".m()",       "M..m()",      "1M.m()",
                          "M.m([1, 2)", "M.m(1 2)",    "M.m(1.2.3)",
                          "M.m(1e)",    "M.m('\\x4')", "M.m('\\uD83D')",
                          "M.m(--1)",   "M.m(-)",      "M-x.m()"}) {
    EXPECT_THROW(parseEval(bad), EvalSyntaxError) << bad;
  }
}

TEST(EvalParser, ReportsWhereTheProblemIs) {
  EXPECT_EQ(4u, errorPosition("M.m(a)"));
  EXPECT_EQ(7u, errorPosition("M.m(1, ]"));
  EXPECT_EQ(8u, errorPosition("M.m('x')y"));
}

TEST(EvalParser, RefusesArraysNestedTooDeeply) {
  const std::string deep = "M.m(" + std::string(100, '[') + std::string(100, ']') + ")";
  EXPECT_THROW(parseEval(deep), EvalSyntaxError);
  const std::string fine = "M.m(" + std::string(10, '[') + std::string(10, ']') + ")";
  EXPECT_NO_THROW(parseEval(fine));
}

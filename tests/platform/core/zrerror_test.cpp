#include <gtest/gtest.h>
#include <zr/zrerror.h>

#include <stdexcept>

TEST(ZRError, KeepsEveryFieldAndWhatCarriesThemAll) {
  const ZR::ZRError error("ZRBehaviorManager", "runBehavior", "behavior x is not installed",
                          "behavior/behaviormanager/src/behaviormanager", 870);
  EXPECT_EQ(error.module(), "ZRBehaviorManager");
  EXPECT_EQ(error.method(), "runBehavior");
  EXPECT_EQ(error.description(), "behavior x is not installed");
  EXPECT_EQ(error.file(), "behavior/behaviormanager/src/behaviormanager");
  EXPECT_EQ(error.line(), 870);
  const std::string what = error.what();
  for (const char* part : {"ZRBehaviorManager", "runBehavior", "behavior x is not installed",
                           "behavior/behaviormanager/src/behaviormanager", "870"}) {
    EXPECT_NE(what.find(part), std::string::npos) << part;
  }
}

TEST(ZRError, IsARuntimeErrorLikeEveryExceptionOfTheProject) {
  try {
    throw ZR::ZRError("m", "f", "d", "s", 1);
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("d"), std::string::npos);
  }
}

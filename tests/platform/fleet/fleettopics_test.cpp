#include <gtest/gtest.h>
#include <tuqvu/fleet/fleettopics.h>

using tuqvu::fleet::FleetTopics;
using tuqvu::fleet::isTopicLevel;

TEST(FleetTopics, ARobotsTopicsLieUnderItsIdAndCommandsUnderGroupsAndAll) {
  const FleetTopics topics("tuqvu", "robot-7");
  EXPECT_EQ(topics.status(), "tuqvu/robots/robot-7/status");
  EXPECT_EQ(topics.running(), "tuqvu/robots/robot-7/running");
  EXPECT_EQ(topics.library(), "tuqvu/robots/robot-7/library");
  EXPECT_EQ(topics.events(), "tuqvu/robots/robot-7/events");
  EXPECT_EQ(topics.health(), "tuqvu/robots/robot-7/health");
  EXPECT_EQ(topics.command(), "tuqvu/robots/robot-7/command");
  EXPECT_EQ(topics.groupCommand("front"), "tuqvu/groups/front/command");
  EXPECT_EQ(topics.allCommand(), "tuqvu/all/command");
  EXPECT_EQ(topics.everyStatus(), "tuqvu/robots/+/status");
  EXPECT_EQ(topics.responses("c1"), "tuqvu/clients/c1/responses");
}

TEST(FleetTopics, TheRobotOfAStatusTopicIsFoundAndOtherTopicsHaveNone) {
  const FleetTopics topics("lab", "");
  EXPECT_EQ(topics.robotOfStatus("lab/robots/r-1/status"), "r-1");
  EXPECT_EQ(topics.robotOfStatus("lab/robots/r-1/running"), "");
  EXPECT_EQ(topics.robotOfStatus("other/robots/r-1/status"), "");
  EXPECT_EQ(topics.robotOfStatus("lab/robots//status"), "");
  EXPECT_EQ(topics.robotOfStatus("lab/robots/a/b/status"), "");
}

TEST(FleetTopics, ALevelHoldsNoSeparatorWildcardOrControlCharacter) {
  EXPECT_TRUE(isTopicLevel("robot_7.lab-2"));
  EXPECT_FALSE(isTopicLevel(""));
  EXPECT_FALSE(isTopicLevel("a/b"));
  EXPECT_FALSE(isTopicLevel("+"));
  EXPECT_FALSE(isTopicLevel("#"));
  EXPECT_FALSE(isTopicLevel("a b"));
  EXPECT_FALSE(isTopicLevel(std::string("a\0b", 3)));
  EXPECT_FALSE(isTopicLevel(std::string(65, 'a')));
  EXPECT_TRUE(isTopicLevel(std::string(64, 'a')));
}

TEST(FleetTopics, ARequesterWithoutMqtt5NamesItselfAsOneMoreLevelOfTheCommandTopic) {
  const FleetTopics topics("tuqvu", "robot-7");
  EXPECT_EQ(FleetTopics::withRequester(topics.command(), "c1"), "tuqvu/robots/robot-7/command/c1");
  EXPECT_EQ(FleetTopics::anyRequester(topics.allCommand()), "tuqvu/all/command/+");
  EXPECT_EQ(topics.requesterOf("tuqvu/robots/robot-7/command/c1"), "c1");
  EXPECT_EQ(topics.requesterOf("tuqvu/groups/front/command/c-2"), "c-2");
  EXPECT_EQ(topics.requesterOf("tuqvu/all/command/c.3"), "c.3");
  EXPECT_EQ(topics.answerTo("c1"), "tuqvu/clients/c1/responses/robot-7");
  EXPECT_EQ(topics.everyAnswerTo("c1"), "tuqvu/clients/c1/responses/+");
}

TEST(FleetTopics, ABareCommandTopicNamesNoRequesterEvenWhenANameIsCommand) {
  const FleetTopics topics("tuqvu", "command");
  EXPECT_EQ(topics.requesterOf("tuqvu/robots/robot-7/command"), "");
  EXPECT_EQ(topics.requesterOf("tuqvu/all/command"), "");
  EXPECT_EQ(topics.requesterOf("tuqvu/groups/command/command"), "");
  EXPECT_EQ(topics.requesterOf("tuqvu/robots/command/command"), "");
  EXPECT_EQ(topics.requesterOf("other/all/command/c1"), "");
  EXPECT_EQ(topics.requesterOf("tuqvu/robots/r/status/c1"), "");
  EXPECT_EQ(topics.requesterOf("tuqvu/all/command/c1/more"), "");
}

TEST(FleetTopics, TheRobotOfAnAnswerComesFromItsLastLevel) {
  const FleetTopics topics("lab", "");
  EXPECT_EQ(topics.robotOfAnswer("lab/clients/c1/responses/r-1", "c1"), "r-1");
  EXPECT_EQ(topics.robotOfAnswer("lab/clients/c2/responses/r-1", "c1"), "");
  EXPECT_EQ(topics.robotOfAnswer("lab/clients/c1/responses", "c1"), "");
  EXPECT_EQ(topics.robotOfAnswer("lab/clients/c1/responses/", "c1"), "");
  EXPECT_EQ(topics.robotOfAnswer("lab/clients/c1/responses/a/b", "c1"), "");
}

#include "service/bus/faults.h"

#include <gtest/gtest.h>

#include "tests/support/messages.h"

namespace zq::devservice {
namespace {

TEST(Fault, IsRefusedWhenItCannotBe) {
  Faults faults;
  EXPECT_EQ(faults.set("m", "slow", 1, 1).find("no fault is called slow; there are: delay, "), 0U);
  EXPECT_NE(faults.set("m", "delay", -1, 1), "");
  EXPECT_NE(faults.set("m", "flood", 300'001, 1), "");
  EXPECT_NE(faults.set("m", "delay", 1, -1), "");
  EXPECT_TRUE(faults.list().empty());
}

TEST(Fault, MeetsAsManyCallsAsAsked) {
  Faults faults;
  EXPECT_EQ(faults.set("m", "drop", 0, 2), "");
  EXPECT_EQ(faults.set("*", "delay", 5, 0), "");
  EXPECT_EQ(faults.set("m", "drop", 0, 1), "");
  EXPECT_FALSE(faults.take("other").drop);
  EXPECT_TRUE(faults.take("m").drop);
  const FaultPlan third = faults.take("m");
  EXPECT_FALSE(third.drop);
  EXPECT_EQ(third.delay.count(), 5);
  EXPECT_EQ(faults.list().size(), 1U);
}

TEST(Fault, DistortsAnswersInTypeAndLength) {
  const ZQBusMessage message = zq::message(1, "text", bytes("0123456789"));
  FaultPlan shorter;
  shorter.recordLength = 4;
  EXPECT_EQ(shorter.distort(Answer::of(message)).arguments().toDebugString(),
            zq::message(1, "text", bytes("0123")).toDebugString());
  FaultPlan wrong;
  wrong.wrongType = true;
  const Answer other = wrong.distort(Answer::of(message));
  ASSERT_EQ(other.arguments().argCount(), 3U);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_NE(other.arguments().arguments()[i].index(), message.arguments()[i].index()) << i;
  }
}

}  // namespace
}  // namespace zq::devservice

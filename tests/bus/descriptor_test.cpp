// What comes along with a message that is to bring one descriptor.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>

#include "platform/zqbus/sdbus/descriptor_passing.h"
#include "tests/bus/fake_bus.h"

namespace zq {
namespace {

TEST(ADescriptor, IsTakenWhenItComesAlone) {
  const LineRequest pair;
  wire::Peer sender{OwnedDescriptor(::dup(pair.theirs.get()))};
  const std::array<int, 5> copies{0, 0, 0, 0, 0};
  const int before = openDescriptors();
  for (const std::size_t count : {1, 2, 3, 5}) {
    ASSERT_TRUE(sender.send(std::string_view("x"), std::span(copies).first(count)));
    const OwnedDescriptor taken(receiveDescriptor(pair.ours.get()));
    EXPECT_EQ(static_cast<bool>(taken), count == 1) << count;
    EXPECT_EQ(openDescriptors(), before + (count == 1 ? 1 : 0)) << count;
  }
  EXPECT_LT(receiveDescriptor(pair.ours.get()), 0);
}

}  // namespace
}  // namespace zq

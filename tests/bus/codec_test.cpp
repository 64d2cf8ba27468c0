// A list that is larger than D-Bus lets an array be, to its form on the wire and back. Without a
// bus: sanitizers take half a minute to pass such a message on.
#include "platform/zqbus/sdbus/codec.h"

#include <gtest/gtest.h>

#include "platform/zqbus/sdbus/sd_bus_handles.h"
#include "tests/bus/peers.h"
#include "tests/support/messages.h"

namespace zq {
namespace {

TEST(List, LargerThanAnArrayTravelsInSeveral) {
  constexpr int kRecords = 130;
  ZQBusMessage list = message(int32_t{kRecords});
  for (int i = 0; i < kRecords; ++i) {
    list.append(bytes(std::string(600 << 10, static_cast<char>(i))));
  }
  auto [ours, theirs] = socketPair();
  sd_bus* made = nullptr;
  ASSERT_GE(sd_bus_new(&made), 0);
  const SdBus bus(made);
  const int socket = ours.release();
  ASSERT_GE(sd_bus_set_fd(made, socket, socket), 0);
  ASSERT_GE(sd_bus_start(made), 0);
  sd_bus_message* call = nullptr;
  ASSERT_GE(sd_bus_message_new_method_call(made, &call, nullptr, "/a", "a.b", "c"), 0);
  const SdBusMessage wire(call);
  ASSERT_GE(encodeArguments(list, call), 0);
  EXPECT_STREQ(sd_bus_message_get_signature(call, 1), "iaayaay");
  ASSERT_GE(sd_bus_message_seal(call, 1, 0), 0);
  ASSERT_GE(sd_bus_message_rewind(call, 1), 0);
  ZQBusMessage decoded;
  ASSERT_GE(decodeArguments(call, decoded), 0);
  ASSERT_EQ(decoded.argCount(), list.argCount());
  for (std::size_t i = 1; i < list.argCount(); ++i) {
    EXPECT_EQ(std::get<ZQBusBytes>(decoded.arguments()[i]).view(),
              std::get<ZQBusBytes>(list.arguments()[i]).view());
  }
}

}  // namespace
}  // namespace zq

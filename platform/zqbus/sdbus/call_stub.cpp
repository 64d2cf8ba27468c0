#include "call_stub.h"

namespace zq {

SdBusMessage stubOf(sd_bus_message* call) {
  uint64_t cookie = 0;
  sd_bus_message* made = nullptr;
  int result = sd_bus_message_get_cookie(call, &cookie);
  // An answer contains neither the path nor the name.
  if (result >= 0) {
    result = sd_bus_message_new_method_call(sd_bus_message_get_bus(call), &made, nullptr, "/",
                                            nullptr, "Stub");
  }
  SdBusMessage stub(made);
  const char* sender = sd_bus_message_get_sender(call);
  if (result >= 0 && sender != nullptr) result = sd_bus_message_set_sender(made, sender);
  if (result >= 0) {
    result = sd_bus_message_set_expect_reply(made, sd_bus_message_get_expect_reply(call));
  }
  if (result >= 0) result = sd_bus_message_seal(made, cookie, 0);
  return result >= 0 ? std::move(stub) : nullptr;
}

}  // namespace zq

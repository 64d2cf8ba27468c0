#include "sender_trust.h"

#include <utility>

#include "platform/zqbus/time_limit.h"
#include "sd_bus_handles.h"
#include "sd_bus_open.h"

namespace zq {
namespace {

constexpr std::size_t kMaxKnown = 1024;
// Each pending verdict keeps a message, with as many descriptors as a bus lets through.
constexpr std::size_t kMaxAwaited = 32;
constexpr std::size_t kMaxAwaitedOfLittle = 4096;

}  // namespace

class SenderTrust::Question : public PendingCall {
 public:
  Question(std::weak_ptr<SenderTrust*> asker, std::string name)
      : asker_(std::move(asker)), name_(std::move(name)) {}
  void onOutcome(sd_bus_message* reply) override {
    const auto asker = asker_.lock();
    if (asker == nullptr) return;
    // Without a reply nothing is known about the name: the next check asks again.
    const bool trusted = reply != nullptr && (*asker)->isTrustedUser(reply);
    if (reply != nullptr) (*asker)->learn(name_, trusted);
    (*asker)->answer(name_, trusted);
  }

 private:
  const std::weak_ptr<SenderTrust*> asker_;
  const std::string name_;
};

/// Whether the bus daemon's reply to GetConnectionUnixUser names this user or root.
bool SenderTrust::isTrustedUser(sd_bus_message* reply) const {
  uint32_t user = 0;
  if (sd_bus_message_is_method_error(reply, nullptr) > 0) return false;
  return sd_bus_message_read(reply, "u", &user) > 0 && (user == user_ || user == 0);
}

bool SenderTrust::check(sd_bus* bus, const char* name, Verdict verdict, Keeps keeps) {
  if (const auto known = known_.find(name); known != known_.end()) {
    verdict(known->second);
    return true;
  }
  std::size_t& count = awaitedCount_[keeps];
  if (count >= (keeps == Keeps::Message ? kMaxAwaited : kMaxAwaitedOfLittle)) return false;
  std::vector<Awaited>& awaited = awaited_[name];
  awaited.push_back({std::move(verdict), keeps});
  ++count;
  if (awaited.size() > 1) return true;
  const SdBusMessage question = newBusCall(bus, "GetConnectionUnixUser", name);
  const int asked = question == nullptr
                        ? -ENOMEM
                        : calls_.send(bus, question.get(), std::make_shared<Question>(self_, name),
                                      PendingCalls::Clock::now() + kDefaultTimeout);
  if (asked < 0) answer(name, false);
  return true;
}

void SenderTrust::learn(const std::string& name, bool trusted) {
  if (known_.size() >= kMaxKnown) known_.clear();
  known_[name] = trusted;
}

void SenderTrust::answer(const std::string& name, bool trusted) {
  const auto awaited = awaited_.extract(name);
  if (awaited.empty()) return;
  for (const Awaited& pending : awaited.mapped()) --awaitedCount_[pending.keeps];
  for (const Awaited& pending : awaited.mapped()) pending.verdict(trusted);
}

}  // namespace zq

// Which connections of the bus belong to this user or to root.
#pragma once

#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "pending_calls.h"

namespace zq {

/// Asks the bus daemon which user is behind a unique name, once for each name; verdicts about the
/// name wait for the answer. A bus gives no name twice, so answers are kept. If the daemon does not
/// answer, nothing is kept, and the next check asks again. Used under the mutex of the connection
/// that owns it.
class SenderTrust {
 public:
  using Verdict = std::function<void(bool trusted)>;
  /// What a verdict keeps while it is pending: a message, which may be large and hold descriptors,
  /// or little. There may be far more verdicts of the second kind.
  enum class Keeps { Message, Little };

  /// Asks through `calls`, the pending calls of the connection. `user` is this process's user, as
  /// the bus knows it.
  explicit SenderTrust(PendingCalls& calls, uid_t user = ::geteuid())
      : calls_(calls), user_(user) {}
  SenderTrust(const SenderTrust&) = delete;
  SenderTrust& operator=(const SenderTrust&) = delete;

  /// Calls `verdict` under the connection's mutex: now when the answer is known, else when the
  /// daemon has answered, in the order in which check() was called for that name. A name for which
  /// the daemon does not answer within 25 s is not trusted. False when too many verdicts of that
  /// kind are pending: `verdict` is dropped then.
  [[nodiscard]] bool check(sd_bus* bus, const char* name, Verdict verdict,
                           Keeps keeps = Keeps::Message);

 private:
  class Question;
  struct Awaited {
    Verdict verdict;
    Keeps keeps;
  };

  bool isTrustedUser(sd_bus_message* reply) const;
  void learn(const std::string& name, bool trusted);
  void answer(const std::string& name, bool trusted);

  PendingCalls& calls_;
  const uid_t user_;
  std::map<std::string, bool> known_;
  std::map<std::string, std::vector<Awaited>> awaited_;
  std::map<Keeps, std::size_t> awaitedCount_;
  // Replies may come after this object is destroyed.
  std::shared_ptr<SenderTrust*> self_ = std::make_shared<SenderTrust*>(this);
};

}  // namespace zq

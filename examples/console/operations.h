// The operations that a user can ask for, and their results in words.
#pragma once

#include "item.h"
#include "perix/failure.h"
#include "perix/perix_proxy.h"

namespace zq::console {

/// "Connect Desk camera to lab-2".
QString titleOf(const Request& request);

/// Calls the library, and waits as the library's operation does. The result is the service's, or
/// the library's -1: PerixLastFailure() tells them apart.
int perform(PerixProxy& proxy, const Request& request);

/// The word for a success. The answer about a new device means only that the decision was accepted.
QString successText(Verb verb);
/// Why there was no answer.
QString failureText(const PerixFailureReport& report);
/// The service's refusal, by its number or by the text that an event brings.
QString refusalText(int result);
QString refusalText(const QString& reason);

}  // namespace zq::console

// The links of the chains.
#pragma once

#include <vector>

#include "tools/perixctl/why/chain.h"

namespace zq::ctl {

/// From the bus to the service: the beginning of every chain.
std::vector<Link> serviceLinks();
/// From the service to a device in a desktop.
std::vector<Link> deviceLinks();
/// The rest of an installation.
std::vector<Link> installationLinks();

}  // namespace zq::ctl

// The model as JSON.
#pragma once

#include <vector>

#include "service/model/world.h"
#include "service/scenario/json.h"

namespace zq::devservice {

/// The whole model. Of the drive token it shows the length alone.
Json stateAsJson(const World& world);
Json printersAsJson(const World& world);
Json driversAsJson(const std::vector<Driver>& drivers);

}  // namespace zq::devservice

#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "session/Item.h"

namespace tarnwell::cli {

/// All fields of an item, in a fixed order, absent ones null. `filenameBytes` (base64) is there only for a name that is
/// not UTF-8.
nlohmann::ordered_json itemJson(const session::Item& item);

/// One line, without a line end.
std::string jsonLine(const nlohmann::ordered_json& json);

}  // namespace tarnwell::cli

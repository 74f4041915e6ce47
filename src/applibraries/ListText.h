#pragma once

#include <string>
#include <vector>

namespace tarnwell::applibraries {

/// A list as log lines show it: "[a, b]", "[]" for none.
std::string listText(const std::vector<std::string>& texts);

}  // namespace tarnwell::applibraries

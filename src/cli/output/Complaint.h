#pragma once

#include <string_view>

namespace tarnwell::cli {

/// One line of the program's own on standard error, for people.
void complain(std::string_view message);

}  // namespace tarnwell::cli

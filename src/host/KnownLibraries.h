#pragma once

#include <string>
#include <vector>

#include "host/Settings.h"

namespace tarnwell::host {

/// The identifiers of the app libraries as the last program that looked wrote them down. Opens neither the store nor
/// any library, waits for nobody, and is not always up to date: for whoever needs an answer at once, such as a shell
/// that completes a word. Nothing where no list can be read.
std::vector<std::string> knownLibraries(const Settings& settings);

}  // namespace tarnwell::host

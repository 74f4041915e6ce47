#pragma once

#include <string>
#include <vector>

#include "items/Environment.h"

namespace tarnwell::applibraries {

/// Asks the host to delete the search-index entries of the domains and waits for the answer, without a time limit. A
/// failure is logged and changes nothing else; a host that drops the request counts as one that failed. Must not be
/// called on the queue on which the host answers, nor with a queue of the app libraries held.
void deleteSearchableItemsOfDomains(const items::Environment& environment, const std::vector<std::string>& domains);

}  // namespace tarnwell::applibraries

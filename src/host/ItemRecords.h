#pragma once

#include <vector>

#include "hostframework/ProviderItem.h"
#include "platform/filesystem/Roots.h"
#include "session/Item.h"

namespace tarnwell::host {

/// What a client is told of a provider's item.
session::Item recordOf(const hostframework::ProviderItem& item, const Roots& roots);
std::vector<session::Item> recordsOf(const std::vector<hostframework::ProviderItemPtr>& items, const Roots& roots);

}  // namespace tarnwell::host

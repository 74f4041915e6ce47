#pragma once

#include "fs/FSEnvironment.h"
#include "hostframework/ProviderItem.h"

namespace tarnwell::fs {

/// Has the generation store look where the item's file is, so that the file ID it keeps for it is the present one. What
/// it answers does not matter. Any thread.
void updateFileIDInGenstore(const FSEnvironment& environment, const hostframework::ProviderItem& item);

}  // namespace tarnwell::fs

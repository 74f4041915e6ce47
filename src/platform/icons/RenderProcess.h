#pragma once

#include <chrono>
#include <string>

#include "platform/icons/IconData.h"

namespace tarnwell::icons {

/// Has the icon drawn by a process of its own and gives the PNG that it wrote, which is checked to be a sound one of
/// the wanted size. `program` is the path of tarnwell-render-icon; it is started with nothing but the icon, and killed
/// when it takes longer than `patience`. Blocks until it has ended. Leaves no process and no file behind.
///
/// EBADMSG: no picture can be made of the icon. EFBIG: it needs more memory or processor than an icon may. ETIMEDOUT:
/// it took too long. Anything else: the program could not be run, which says nothing of the icon.
Result<Bytes> renderInProcess(const std::string& program, const IconData& icon, std::chrono::milliseconds patience);

}  // namespace tarnwell::icons

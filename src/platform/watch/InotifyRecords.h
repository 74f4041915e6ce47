#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/base/Ids.h"

namespace tarnwell::watch {

/// One event as inotify tells it.
struct InotifyRecord {
    int watch = -1;
    std::uint32_t mask = 0;
    std::string_view name;  ///< into the bytes it was taken from
};

/// Takes the first record off the bytes of a read. Nothing when no whole record is left; bytes that are left then are
/// no record.
std::optional<InotifyRecord> takeInotifyRecord(ByteView& bytes);

}  // namespace tarnwell::watch

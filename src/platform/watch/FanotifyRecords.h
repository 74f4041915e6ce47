#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Ids.h"

namespace tarnwell::watch {

/// One event of a fanotify group that reports directories and names.
struct FanotifyRecord {
    std::uint64_t mask = 0;
    /// The directory's handle, in the form of FileHandle::bytes; empty when the event names none.
    std::string directory;
    std::string_view name;  ///< into the bytes it was taken from; empty for the directory itself
};

/// Takes the first record off the bytes of a read. Nothing when no whole record is left; bytes that are left then are
/// no record.
std::optional<FanotifyRecord> takeFanotifyRecord(ByteView& bytes);

}  // namespace tarnwell::watch

#include "platform/watch/InotifyRecords.h"

#include <cstring>

#include <sys/inotify.h>

namespace tarnwell::watch {

std::optional<InotifyRecord> takeInotifyRecord(ByteView& bytes) {
    inotify_event header{};
    if (bytes.size() < sizeof header) return std::nullopt;
    std::memcpy(&header, bytes.data(), sizeof header);
    if (header.len > bytes.size() - sizeof header) return std::nullopt;
    std::string_view name = textOf(bytes.subspan(sizeof header, header.len));
    bytes = bytes.subspan(sizeof header + header.len);
    return InotifyRecord{header.wd, header.mask, name.substr(0, name.find('\0'))};
}

}  // namespace tarnwell::watch

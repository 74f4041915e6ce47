#include "platform/watch/FanotifyRecords.h"

#include <cstddef>
#include <cstring>

#include <sys/fanotify.h>

#include <fcntl.h>

#include "platform/watch/FileHandle.h"

namespace tarnwell::watch {
namespace {

/// Reads one plain structure at the beginning of the bytes, whatever its alignment there.
template <typename Structure>
std::optional<Structure> peek(ByteView bytes) {
    if (bytes.size() < sizeof(Structure)) return std::nullopt;
    Structure structure;
    std::memcpy(&structure, bytes.data(), sizeof structure);
    return structure;
}

/// The part of struct file_handle before its bytes.
struct HandleHeader {
    std::uint32_t length;
    std::int32_t type;
};

/// A record "directory and name": identity of the file system, handle, name, end of text, padding. False when its
/// lengths are impossible.
bool readDirectoryAndName(ByteView info, FanotifyRecord& record) {
    constexpr std::size_t kBeforeHandle = offsetof(fanotify_event_info_fid, handle);
    if (info.size() < kBeforeHandle) return false;
    info = info.subspan(kBeforeHandle);
    auto header = peek<HandleHeader>(info);
    if (!header) return false;
    info = info.subspan(sizeof *header);
    if (header->length > MAX_HANDLE_SZ || header->length > info.size()) return false;
    record.directory = FileHandle::bytesOf(header->type, textOf(info.first(header->length)));
    std::string_view name = textOf(info.subspan(header->length));
    name = name.substr(0, name.find('\0'));
    record.name = name == "." ? std::string_view() : name;
    return true;
}

}  // namespace

std::optional<FanotifyRecord> takeFanotifyRecord(ByteView& bytes) {
    auto header = peek<fanotify_event_metadata>(bytes);
    if (!header || header->vers != FANOTIFY_METADATA_VERSION || header->event_len > bytes.size() ||
        header->metadata_len < sizeof *header || header->metadata_len > header->event_len)
        return std::nullopt;
    FanotifyRecord record{.mask = header->mask, .directory = {}, .name = {}};
    ByteView rest = bytes.subspan(header->metadata_len, header->event_len - header->metadata_len);
    while (!rest.empty()) {
        auto info = peek<fanotify_event_info_header>(rest);
        if (!info || info->len < sizeof *info || info->len > rest.size()) return std::nullopt;
        // A directory without a name is what a kernel may tell of the directory itself.
        if (info->info_type == FAN_EVENT_INFO_TYPE_DFID_NAME || info->info_type == FAN_EVENT_INFO_TYPE_DFID)
            if (!readDirectoryAndName(rest.first(info->len), record)) return std::nullopt;
        rest = rest.subspan(info->len);
    }
    bytes = bytes.subspan(header->event_len);
    return record;
}

}  // namespace tarnwell::watch

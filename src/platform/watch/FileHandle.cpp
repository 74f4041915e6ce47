#include "platform/watch/FileHandle.h"

#include <cstring>

#include <fcntl.h>

#include "platform/base/SystemCall.h"

namespace tarnwell::watch {

Result<FileHandle> FileHandle::of(int descriptor) {
    alignas(file_handle) char room[sizeof(file_handle) + MAX_HANDLE_SZ] = {};
    auto* handle = reinterpret_cast<file_handle*>(room);
    handle->handle_bytes = MAX_HANDLE_SZ;
    int mount = 0;
    // Without AT_HANDLE_FID, which would also give handles that only hold for now: an overlay's directory has another
    // one after it was copied up, and its events would be nobody's.
    if (untilNotInterrupted([&] { return ::name_to_handle_at(descriptor, "", handle, &mount, AT_EMPTY_PATH); }) != 0)
        return failedCall();
    return FileHandle(bytesOf(handle->handle_type, {room + sizeof(file_handle), handle->handle_bytes}));
}

std::string FileHandle::bytesOf(int type, std::string_view own) {
    std::string bytes(sizeof type + own.size(), '\0');
    std::memcpy(bytes.data(), &type, sizeof type);
    if (!own.empty()) std::memcpy(bytes.data() + sizeof type, own.data(), own.size());
    return bytes;
}

}  // namespace tarnwell::watch

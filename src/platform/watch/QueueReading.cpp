#include "platform/watch/QueueReading.h"

#include <cstdint>
#include <vector>

#include <sys/ioctl.h>

#include <unistd.h>

#include "platform/base/SystemCall.h"

namespace tarnwell::watch {

Result<void> readQueue(int descriptor, const std::function<bool(ByteView)>& body) {
    // Many times the longest event: one that does not fit could never be read.
    constexpr std::size_t kBufferSize = std::size_t{64} * 1024;
    std::vector<std::uint8_t> buffer(kBufferSize);
    for (;;) {
        const ssize_t length = untilNotInterrupted([&] { return ::read(descriptor, buffer.data(), buffer.size()); });
        if (length < 0) {
            if (errno == EAGAIN) return {};
            return failedCall();
        }
        if (length == 0 || !body(ByteView(buffer).first(static_cast<std::size_t>(length)))) return {};
    }
}

Result<std::size_t> queuedNow(int descriptor) {
    int queued = 0;
    if (::ioctl(descriptor, FIONREAD, &queued) != 0) return failedCall();
    return static_cast<std::size_t>(queued);
}

}  // namespace tarnwell::watch

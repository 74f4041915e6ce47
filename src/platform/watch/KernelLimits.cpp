#include "platform/watch/KernelLimits.h"

#include <array>
#include <charconv>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "platform/base/Descriptor.h"
#include "platform/base/SystemCall.h"

namespace tarnwell::watch {
namespace {

std::uint64_t limitNamed(const char* name) {
    const std::string path = std::string("/proc/sys/fs/") + name;
    Descriptor file(untilNotInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
    if (!file.valid()) return 0;
    std::array<char, 32> text{};
    const ssize_t length = untilNotInterrupted([&] { return ::read(file.get(), text.data(), text.size()); });
    std::uint64_t value = 0;
    if (length <= 0 || std::from_chars(text.data(), text.data() + length, value).ec != std::errc{}) return 0;
    return value;
}

}  // namespace

KernelLimits limits() {
    return {.inotifyWatches = limitNamed("inotify/max_user_watches"),
            .inotifyInstances = limitNamed("inotify/max_user_instances"),
            .inotifyQueuedEvents = limitNamed("inotify/max_queued_events"),
            .fanotifyMarks = limitNamed("fanotify/max_user_marks"),
            .fanotifyGroups = limitNamed("fanotify/max_user_groups"),
            .fanotifyQueuedEvents = limitNamed("fanotify/max_queued_events")};
}

}  // namespace tarnwell::watch

#include "tests/deep/LookWatch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace tarnwell::deep {

namespace {

constexpr unsigned kOwnLooks = FAN_OPEN | FAN_ACCESS | FAN_MODIFY | FAN_ATTRIB | FAN_EVENT_ON_CHILD | FAN_ONDIR;
constexpr std::uint32_t kAnybodysLooks = IN_OPEN | IN_ACCESS | IN_MODIFY | IN_ATTRIB;

using Buffer = std::array<char, 64 * 1024>;

/// The two kinds of watches give the four kinds of looks the same bits.
std::string wordsFor(std::uint64_t mask) {
    static_assert(FAN_OPEN == IN_OPEN && FAN_ACCESS == IN_ACCESS && FAN_MODIFY == IN_MODIFY && FAN_ATTRIB == IN_ATTRIB);
    std::string words;
    const auto add = [&](std::uint64_t bit, std::string_view word) {
        if ((mask & bit) == 0) return;
        if (!words.empty()) words += " and ";
        words += word;
    };
    add(FAN_OPEN, "opened");
    add(FAN_ACCESS, "read");
    add(FAN_MODIFY, "written");
    add(FAN_ATTRIB, "attributes changed of");
    return words.empty() ? "event " + std::to_string(mask) + " of" : words;
}

/// The name that a record of a fanotify event carries after the handle of the folder; "." is the place itself.
std::string nameIn(const char* record, std::size_t size) {
    constexpr std::size_t kHandleAt = sizeof(fanotify_event_info_fid);
    fanotify_event_info_header head{};
    std::memcpy(&head, record, sizeof head);
    if (head.info_type != FAN_EVENT_INFO_TYPE_DFID_NAME || head.len > size) return "something";
    file_handle handle{};
    std::memcpy(&handle, record + kHandleAt, sizeof handle);
    const std::size_t nameAt = kHandleAt + sizeof handle + handle.handle_bytes;
    if (nameAt >= head.len) return "something";
    const std::string_view name(record + nameAt, head.len - nameAt);
    return std::string(name.substr(0, name.find('\0')));
}

}  // namespace

LookWatch::LookWatch(const std::vector<std::string>& places) {
    knowsWhose_ = watchOwn(places);
    if (!knowsWhose_) watchEverybody(places);
}

bool LookWatch::watchOwn(const std::vector<std::string>& places) {
    // With names instead of open files, anybody may ask; the kernel then keeps other processes' numbers to itself.
    events_ =
        Descriptor(::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_REPORT_DFID_NAME, O_RDONLY));
    if (!events_.valid()) return false;
    return std::ranges::all_of(places, [&](const auto& place) {
        return ::fanotify_mark(events_.get(), FAN_MARK_ADD, kOwnLooks, AT_FDCWD, place.c_str()) == 0;
    });
}

void LookWatch::watchEverybody(const std::vector<std::string>& places) {
    events_ = Descriptor(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    for (const auto& place : places) {
        const int watch = ::inotify_add_watch(events_.get(), place.c_str(), kAnybodysLooks);
        EXPECT_GE(watch, 0) << place;
        watches_.emplace_back(watch, place);
    }
}

std::vector<std::string> LookWatch::looks() {
    alignas(fanotify_event_metadata) Buffer buffer;
    std::vector<std::string> looks;
    for (;;) {
        const ssize_t got = ::read(events_.get(), buffer.data(), buffer.size());
        if (got <= 0) {
            // Nothing more to come; any other end would leave looks untold.
            EXPECT_TRUE(got < 0 && errno == EAGAIN) << std::strerror(errno);
            return looks;
        }
        const auto filled = static_cast<std::size_t>(got);
        for (std::size_t at = 0; at < filled;) {
            if (knowsWhose_) {
                fanotify_event_metadata event{};
                std::memcpy(&event, buffer.data() + at, sizeof event);
                const std::size_t head = event.metadata_len;
                if ((event.mask & FAN_Q_OVERFLOW) != 0) {
                    looks.emplace_back("more looks than are kept");
                } else if (event.pid == ::getpid()) {
                    looks.push_back(wordsFor(event.mask) + " " +
                                    nameIn(buffer.data() + at + head, event.event_len - head));
                }
                at += event.event_len;
            } else {
                inotify_event event{};
                std::memcpy(&event, buffer.data() + at, sizeof event);
                const auto watch = std::ranges::find(watches_, event.wd, [](const auto& each) { return each.first; });
                const std::string name = event.len > 0 ? buffer.data() + at + sizeof event : ".";
                looks.push_back((event.mask & IN_Q_OVERFLOW) != 0
                                    ? "more looks than are kept"
                                    : wordsFor(event.mask) + " " + name +
                                          (watch != watches_.end() ? " in " + watch->second : std::string()) +
                                          ", by whatever process");
                at += sizeof event + event.len;
            }
        }
    }
}

}  // namespace tarnwell::deep

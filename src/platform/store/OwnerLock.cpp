#include "platform/store/OwnerLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <thread>

#include "platform/filesystem/PlainFile.h"
#include "platform/store/Database.h"

namespace tarnwell::store {

namespace {

constexpr auto kRetryInterval = std::chrono::milliseconds(20);

/// "process 123 (tarnwell ls)" from what the owner wrote into its lock file; it is only shown, never relied upon.
std::string describeOwner(int fd) {
    std::array<char, 32> buffer{};
    ssize_t size = pread(fd, buffer.data(), buffer.size() - 1, 0);
    long pid = size > 0 ? std::strtol(buffer.data(), nullptr, 10) : 0;
    if (pid <= 0) return "another process";
    std::string text = "process " + std::to_string(pid);
    auto command = filesystem::readFile("/proc/" + std::to_string(pid) + "/cmdline", 4096);
    if (command && !command->empty()) {
        std::string line(command->begin(), command->end());
        while (!line.empty() && line.back() == '\0') line.pop_back();
        for (char& c : line) {
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
        }
        text += " (" + line.substr(0, 200) + ")";
    }
    return text;
}

}  // namespace

Result<OwnerLock> OwnerLock::acquire(const std::string& path, std::chrono::milliseconds patience) {
    Descriptor descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!descriptor.valid()) {
        int code = errno;
        return failure(posixError(code, "the store's lock " + path + " cannot be opened"));
    }
    auto deadline = std::chrono::steady_clock::now() + patience;
    while (flock(descriptor.get(), LOCK_EX | LOCK_NB) != 0) {
        int code = errno;
        if (code == EINTR) continue;
        if (code != EWOULDBLOCK) return failure(posixError(code, "the store's lock " + path + " cannot be taken"));
        if (std::chrono::steady_clock::now() >= deadline) {
            return failure(makeError(StoreError::inUse, "the store is in use by " + describeOwner(descriptor.get()) +
                                                            "; wait until it ends, or end it"));
        }
        std::this_thread::sleep_for(kRetryInterval);
    }
    std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(descriptor.get(), 0) == 0) {
        // Only for the message that another process shows; the lock itself does not depend on it.
        [[maybe_unused]] ssize_t written = pwrite(descriptor.get(), pid.data(), pid.size(), 0);
    }
    return OwnerLock(std::move(descriptor));
}

}  // namespace tarnwell::store

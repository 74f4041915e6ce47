#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "platform/base/SystemCall.h"
#include "platform/filesystem/Beneath.h"
#include "platform/filesystem/EntryName.h"

#ifndef __NR_getxattrat
#define __NR_getxattrat 464
#endif
#ifndef __NR_listxattrat
#define __NR_listxattrat 465
#endif

namespace tarnwell::filesystem {
namespace {

constexpr std::string_view kUserSpace = "user.";
constexpr std::string_view kAccessList = "system.posix_acl_access";
constexpr std::size_t kLongestName = 255 - kUserSpace.size();

/// The last argument of getxattrat(2).
struct AttributeArguments {
    alignas(8) std::uint64_t value;
    std::uint32_t size;
    std::uint32_t flags;
};

/// Whether the kernel has the calls that take a folder and a name (6.13); they need a third of the time that the way
/// through /proc does.
bool kernelTakesFolderAndName() {
    static const bool has = [] {
        const long result = ::syscall(__NR_listxattrat, AT_FDCWD, "", 0, nullptr, std::size_t{0});
        return result == 0 || errno == ENOENT;
    }();
    return has;
}

/// The path of a direct entry. The magic link jumps to the folder and the calls used do not follow the last component.
std::string pathOfEntry(int folder, const char* name) { return pathOfDescriptor(folder) + "/" + name; }

ssize_t listAt(int folder, const char* name, char* buffer, std::size_t size) {
    if (kernelTakesFolderAndName()) {
        return ::syscall(__NR_listxattrat, folder, name, AT_SYMLINK_NOFOLLOW, buffer, size);
    }
    return ::llistxattr(pathOfEntry(folder, name).c_str(), buffer, size);
}

/// A descriptor that only stands for a place refuses the calls on open files, but a folder is an entry of itself, and
/// the path of any descriptor leads to its object.
ssize_t listOf(int descriptor, char* buffer, std::size_t size) {
    ssize_t result = ::flistxattr(descriptor, buffer, size);
    if (result >= 0 || errno != EBADF) return result;
    if (kernelTakesFolderAndName()) {
        result = listAt(descriptor, ".", buffer, size);
        if (result >= 0 || (errno != ENOTDIR && errno != EACCES)) return result;
    }
    return ::listxattr(pathOfDescriptor(descriptor).c_str(), buffer, size);
}

AttributeNames parseNames(std::string_view list) {
    AttributeNames names;
    while (!list.empty()) {
        const std::size_t end = list.find('\0');
        const std::string_view name = list.substr(0, end);
        if (name.starts_with(kUserSpace)) {
            names.user.emplace_back(name.substr(kUserSpace.size()));
        } else if (name == kAccessList) {
            names.hasAccessList = true;
        }
        if (end == std::string_view::npos) break;
        list.remove_prefix(end + 1);
    }
    return names;
}

template <typename List>
Result<AttributeNames> readNames(List&& list) {
    std::array<char, 1024> few;
    ssize_t size = untilNotInterrupted([&] { return list(few.data(), few.size()); });
    if (size >= 0) return parseNames({few.data(), static_cast<std::size_t>(size)});
    if (errno != ERANGE) return failedCall();
    std::string many(kMaxAttributeBytes, '\0');
    size = untilNotInterrupted([&] { return list(many.data(), many.size()); });
    if (size < 0) return failedCall();
    return parseNames({many.data(), static_cast<std::size_t>(size)});
}

Result<std::string> fullName(const std::string& name) {
    if (name.empty() || name.find('\0') != std::string::npos) return failure(posixError(EINVAL));
    if (name.size() > kLongestName) return failure(posixError(ENAMETOOLONG));
    std::string full(kUserSpace);
    full += name;
    return full;
}

Result<std::size_t> attributeSize(ssize_t result) {
    if (result < 0) return failedCall();
    const auto size = static_cast<std::size_t>(result);
    if (size > kMaxAttributeBytes) return failure(posixError(E2BIG));
    return size;
}

}  // namespace

Result<AttributeNames> attributeNamesAt(int folder, const char* name) {
    if (!isEntryName(name)) return failure(posixError(EINVAL));
    return readNames([&](char* buffer, std::size_t size) { return listAt(folder, name, buffer, size); });
}

Result<AttributeNames> attributeNamesOf(int descriptor) {
    return readNames([&](char* buffer, std::size_t size) { return listOf(descriptor, buffer, size); });
}

Result<std::size_t> getAttributeAt(int folder, const char* entry, const std::string& name,
                                   std::span<std::uint8_t> buffer) {
    if (!isEntryName(entry)) return failure(posixError(EINVAL));
    const auto full = fullName(name);
    if (!full) return failure(full.error());
    return attributeSize(untilNotInterrupted([&]() -> ssize_t {
        if (kernelTakesFolderAndName()) {
            AttributeArguments arguments{reinterpret_cast<std::uint64_t>(buffer.data()),
                                         static_cast<std::uint32_t>(std::min(buffer.size(), kMaxAttributeBytes)), 0};
            return ::syscall(__NR_getxattrat, folder, entry, AT_SYMLINK_NOFOLLOW, full->c_str(), &arguments,
                             sizeof arguments);
        }
        return ::lgetxattr(pathOfEntry(folder, entry).c_str(), full->c_str(), buffer.data(), buffer.size());
    }));
}

Result<std::size_t> getAttributeOf(int descriptor, const std::string& name, std::span<std::uint8_t> buffer) {
    const auto full = fullName(name);
    if (!full) return failure(full.error());
    return attributeSize(untilNotInterrupted([&] {
        const ssize_t result = ::fgetxattr(descriptor, full->c_str(), buffer.data(), buffer.size());
        if (result >= 0 || errno != EBADF) return result;
        return ::getxattr(pathOfDescriptor(descriptor).c_str(), full->c_str(), buffer.data(), buffer.size());
    }));
}

namespace {

/// `flags` as for fsetxattr(2).
Result<void> putAttribute(int descriptor, const std::string& name, ByteView value, int flags) {
    const auto full = fullName(name);
    if (!full) return failure(full.error());
    if (value.size() > kMaxAttributeBytes) return failure(posixError(E2BIG));
    const int done =
        untilNotInterrupted([&] { return ::fsetxattr(descriptor, full->c_str(), value.data(), value.size(), flags); });
    if (done != 0) return failedCall();
    return {};
}

}  // namespace

Result<void> setAttributeOf(int descriptor, const std::string& name, ByteView value) {
    return putAttribute(descriptor, name, value, 0);
}

Result<void> addAttributeOf(int descriptor, const std::string& name, ByteView value) {
    return putAttribute(descriptor, name, value, XATTR_CREATE);
}

Result<void> removeAttributeOf(int descriptor, const std::string& name) {
    const auto full = fullName(name);
    if (!full) return failure(full.error());
    const int done = untilNotInterrupted([&] { return ::fremovexattr(descriptor, full->c_str()); });
    if (done != 0) return failedCall();
    return {};
}

}  // namespace tarnwell::filesystem

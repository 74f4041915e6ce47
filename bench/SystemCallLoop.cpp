#include "bench/SystemCallLoop.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/stat.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "items/LocalItem.h"
#include "platform/base/Descriptor.h"
#include "platform/filesystem/Beneath.h"

#ifndef __NR_getxattrat
#define __NR_getxattrat 464
#endif
#ifndef __NR_listxattrat
#define __NR_listxattrat 465
#endif

namespace tarnwell::bench {

namespace {

constexpr std::size_t kBufferSize = 64 * 1024;
constexpr std::size_t kValueSize = 4096;

/// The last argument of getxattrat(2).
struct AttributeArguments {
    alignas(8) std::uint64_t value;
    std::uint32_t size;
    std::uint32_t flags;
};

bool kernelTakesFolderAndName() {
    return ::syscall(__NR_listxattrat, AT_FDCWD, "", 0, nullptr, std::size_t{0}) == 0 || errno == ENOENT;
}

class Loop {
public:
    explicit Loop(Depth depth)
        : depth_(depth),
          atFolder_(kernelTakesFolderAndName()),
          wanted_{"user." + items::LocalItem::xattrLastUsedDateName, "user." + items::LocalItem::xattrTagDataName,
                  "user." + items::LocalItem::xattrFavoriteRankName} {}

    Outcome<Tally> run(const std::string& folder) {
        const Descriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!descriptor.valid() || !list(descriptor.get(), 0)) {
            const int code = errno;
            return std::unexpected(folder + ": " + tarnwell::describe(posixError(code)));
        }
        // The folder that was asked for is no entry of the listing, so nobody shows the number of its entries.
        tally_.contained -= entriesOfFirst_;
        return tally_;
    }

private:
    bool list(int folder, std::size_t level) {
        if (level == buffers_.size()) buffers_.push_back(std::make_unique<char[]>(kBufferSize));
        char* const buffer = buffers_[level].get();
        std::uint64_t entries = 0;
        for (;;) {
            const long filled = ::syscall(SYS_getdents64, folder, buffer, kBufferSize);
            if (filled < 0) return false;
            if (filled == 0) break;
            for (long at = 0; at < filled;) {
                const auto* record = reinterpret_cast<const dirent64*>(buffer + at);
                at += record->d_reclen;
                if (std::strcmp(record->d_name, ".") == 0 || std::strcmp(record->d_name, "..") == 0) continue;
                ++entries;
                if (record->d_name[0] == '.') continue;
                if (!entry(folder, record->d_name, level)) return false;
            }
        }
        tally_.contained += entries;
        if (level == 0) entriesOfFirst_ = entries;
        return true;
    }

    bool entry(int folder, const char* name, std::size_t level) {
        struct statx from;
        if (::statx(folder, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME, &from) != 0) {
            return false;
        }
        const auto list = attributes(folder, name);
        filesystem::Status status;
        status.mode = from.stx_mode;
        status.user = from.stx_uid;
        status.group = from.stx_gid;
        status.immutable = (from.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
        const auto access = filesystem::accessOf(status, filesystem::MountState::writable, folder, name, list);
        if (access.readable) ++readable_;
        if (access.writable) ++writable_;
        ++tally_.entries;
        if (depth_ == Depth::folder || !S_ISDIR(from.stx_mode)) return true;
        const Descriptor below(::openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        return below.valid() && this->list(below.get(), level + 1);
    }

    filesystem::AccessList attributes(int folder, const char* name) {
        std::array<char, 1024> names;
        const ssize_t size = listAttributes(folder, name, names.data(), names.size());
        auto list = filesystem::AccessList::absent;
        for (ssize_t at = 0; at < size;) {
            const std::string_view found = names.data() + at;
            at += static_cast<ssize_t>(found.size()) + 1;
            if (found == "system.posix_acl_access") list = filesystem::AccessList::present;
            for (const std::string& attribute : wanted_) {
                if (found == attribute && readAttribute(folder, name, attribute) >= 0) ++tally_.attributes;
            }
        }
        return list;
    }

    ssize_t listAttributes(int folder, const char* name, char* names, std::size_t size) const {
        if (atFolder_) return ::syscall(__NR_listxattrat, folder, name, AT_SYMLINK_NOFOLLOW, names, size);
        return ::llistxattr(pathOf(folder, name).c_str(), names, size);
    }

    ssize_t readAttribute(int folder, const char* name, const std::string& attribute) {
        if (atFolder_) {
            AttributeArguments arguments{reinterpret_cast<std::uint64_t>(value_.data()), kValueSize, 0};
            return ::syscall(__NR_getxattrat, folder, name, AT_SYMLINK_NOFOLLOW, attribute.c_str(), &arguments,
                             sizeof arguments);
        }
        return ::lgetxattr(pathOf(folder, name).c_str(), attribute.c_str(), value_.data(), value_.size());
    }

    static std::string pathOf(int folder, const char* name) {
        return "/proc/self/fd/" + std::to_string(folder) + "/" + name;
    }

    const Depth depth_;
    const bool atFolder_;
    const std::array<std::string, 3> wanted_;
    std::vector<std::unique_ptr<char[]>> buffers_;  ///< one for each folder that is open
    std::array<char, kValueSize> value_;
    Tally tally_;
    std::uint64_t entriesOfFirst_ = 0;
    std::uint64_t readable_ = 0, writable_ = 0;
};

}  // namespace

Outcome<Tally> lookAtEntries(const std::string& folder, Depth depth) { return Loop(depth).run(folder); }

}  // namespace tarnwell::bench

#include "platform/filesystem/Access.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/filesystem/Beneath.h"
#include "tests/filesystem/Sandbox.h"

namespace tarnwell::filesystem {
namespace {

constexpr uid_t kUser = 12345;
constexpr gid_t kGroup = 12346, kSupplementary = 12347, kOther = 12348;

/// Becomes a plain user with a group and a supplementary one; as no root it stays who it is.
std::optional<std::string> becomePlainUser() {
    if (::geteuid() != 0) return std::nullopt;
    if (::setgroups(1, &kSupplementary) != 0 || ::setresgid(kGroup, kGroup, kGroup) != 0 ||
        ::setresuid(kUser, kUser, kUser) != 0) {
        return "cannot become a plain user: " + std::string(std::strerror(errno));
    }
    return std::nullopt;
}

Access kernelAccess(int folder, const char* name) {
    return {::faccessat(folder, name, R_OK, AT_EACCESS | AT_SYMLINK_NOFOLLOW) == 0,
            ::faccessat(folder, name, W_OK, AT_EACCESS | AT_SYMLINK_NOFOLLOW) == 0};
}

std::string text(Access access) { return std::string(access.readable ? "r" : "-") + (access.writable ? "w" : "-"); }

/// What differs from the kernel's own answer for the entries of the folder, and how many answers there were.
std::string differences(int folder, const std::vector<std::string>& names, AccessList list) {
    const Credentials credentials = Credentials::read();
    const auto mount = mountStateOf(folder);
    if (!mount) return describe(mount.error());
    std::string found;
    for (const auto& name : names) {
        const auto status = statusAt(folder, name.c_str());
        if (!status) return name + ": " + describe(status.error());
        const Access access = accessOf(credentials, *status, *mount, folder, name.c_str(), list);
        const Access expected = kernelAccess(folder, name.c_str());
        if (access != expected) found += name + " " + text(access) + " but " + text(expected) + "; ";
    }
    return found;
}

class AccessOf : public ::testing::Test {
protected:
    /// One file for every mode without execution, for each kind of owner.
    AccessOf() : folder_(sandbox_.open()) {
        const std::array<std::pair<uid_t, gid_t>, 4> owners{
            {{kUser, kOther}, {kOther, kGroup}, {kOther, kSupplementary}, {kOther, kOther}}};
        const bool isRoot = ::geteuid() == 0;
        for (std::size_t i = 0; i < (isRoot ? owners.size() : 1); ++i) {
            for (mode_t mode = 0; mode < 01000; ++mode) {
                if ((mode & 0111) != 0) continue;
                names_.push_back(std::to_string(i) + "-" + std::to_string(mode));
                const std::string path = sandbox_.file(names_.back());
                if (isRoot) {
                    EXPECT_EQ(::chown(path.c_str(), owners[i].first, owners[i].second), 0);
                }
                EXPECT_EQ(::chmod(path.c_str(), mode), 0);
            }
        }
        sandbox_.link("link", "0-0");
        sandbox_.fifo("fifo");
        sandbox_.folder("subfolder");
        names_.insert(names_.end(), {"link", "fifo", "subfolder"});
    }
    Sandbox sandbox_;
    Descriptor folder_;
    std::vector<std::string> names_;
};

TEST_F(AccessOf, AgreesWithTheKernelForAPlainUser) {
    EXPECT_EQ(inChild([&]() -> std::string {
                  if (const auto reason = becomePlainUser()) return *reason;
                  const Credentials credentials = Credentials::read();
                  if (credentials.overridesAll) return "a plain user overrides";
                  return differences(folder_.get(), names_, AccessList::absent);
              }),
              "");
}

TEST_F(AccessOf, AgreesWithTheKernelForThisUser) {
    EXPECT_EQ(differences(folder_.get(), names_, AccessList::absent), "");
    EXPECT_EQ(differences(folder_.get(), names_, AccessList::present), "");
    const auto status = statusAt(folder_.get(), "fifo");
    EXPECT_EQ(accessOf(*status, MountState::writable, folder_.get(), "fifo", AccessList::absent),
              kernelAccess(folder_.get(), "fifo"));
}

TEST_F(AccessOf, DoesNotLetRootWithoutItsPrivilegeOverride) {
    const Credentials powerless{.user = kUser, .group = kGroup, .groups = {kSupplementary}};
    Credentials reader = powerless;
    reader.overridesReading = true;
    Status status;
    status.user = kOther;
    status.group = kOther;
    status.mode = S_IFREG | 0770;
    const auto access = [&](const Credentials& credentials) {
        return text(accessOf(credentials, status, MountState::writable, folder_.get(), "0-0", AccessList::absent));
    };
    EXPECT_EQ(access(powerless), "--");
    EXPECT_EQ(access(reader), "r-");
    status.group = kSupplementary;
    EXPECT_EQ(access(powerless), "rw");
}

TEST(AccessList, IsAskedForWhereThereIsOne) {
    const Sandbox sandbox;
    sandbox.file("file");
    ASSERT_EQ(::chmod(sandbox.path("file").c_str(), 0600), 0);
    // Version 2, then (tag, permissions, id): the owner, the user by number, the group, the mask, others.
    const std::uint32_t user = ::geteuid() == 0 ? kUser : ::geteuid();
    const std::array<std::uint32_t, 11> list{2,           0x6'0001, 0xFFFF'FFFF, 0x6'0002, user,       0x0'0004,
                                             0xFFFF'FFFF, 0x6'0010, 0xFFFF'FFFF, 0x0'0020, 0xFFFF'FFFF};
    const std::string path = sandbox.path("file");
    const Descriptor root = sandbox.open();
    EXPECT_FALSE(attributeNamesAt(root.get(), "file")->hasAccessList);
    if (::setxattr(path.c_str(), "system.posix_acl_access", list.data(), sizeof list, 0) != 0) {
        GTEST_SKIP() << "this file system takes no ACL: " << std::strerror(errno);
    }
    EXPECT_TRUE(attributeNamesAt(root.get(), "file")->hasAccessList);
    if (::geteuid() != 0) GTEST_SKIP() << "only root can make a file that is another's";
    EXPECT_EQ(
        inChild([&]() -> std::string {
            if (const auto reason = becomePlainUser()) return *reason;
            const auto status = statusAt(root.get(), "file");
            const auto access = [&](AccessList known) {
                return text(accessOf(Credentials::read(), *status, MountState::writable, root.get(), "file", known));
            };
            return access(AccessList::present) + " not " + text(Access{});
        }),
        "rw not --");
}

TEST(MountState, TakesWritingAwayFromData) {
    const Sandbox sandbox;
    const std::string point = sandbox.folder("mount");
    const std::string result = inChild([&]() -> std::string {
        if (const auto reason = becomeOwnerOfMounts()) return "skip: " + *reason;
        if (::mount("tarnwell", point.c_str(), "tmpfs", 0, "mode=755") != 0) return "skip: no tmpfs can be mounted";
        const std::vector<std::string> names{"file", "folder", "link", "fifo"};
        const Descriptor folder = sandbox.open("mount");
        sandbox.file("mount/file");
        sandbox.folder("mount/folder");
        sandbox.link("mount/link", "file");
        sandbox.fifo("mount/fifo");
        std::string found = differences(folder.get(), names, AccessList::absent);
        if (mountStateOf(folder.get()) != MountState::writable) found += "writable mount not known; ";
        if (::mount(nullptr, point.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) return "skip: no remount";
        if (mountStateOf(folder.get()) != MountState::readOnly) found += "read-only mount not known; ";
        if (kernelAccess(folder.get(), "file").writable) found += "the mount is not read-only; ";
        return found + differences(folder.get(), names, AccessList::absent);
    });
    if (result.starts_with("skip: ")) GTEST_SKIP() << result;
    EXPECT_EQ(result, "");
}

}  // namespace
}  // namespace tarnwell::filesystem

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <set>

#include "items/TWPFileObjectIdentifier.h"
#include "testing/InChild.h"
#include "testing/TemporaryDirectory.h"
#include "testing/TestDevice.h"

namespace tarnwell::files {
namespace {

/// What is wrong with the identifiers of what lies in a storage root on an overlay of two file systems; "" for nothing.
/// Such a one gives files a device number that their folder does not have.
std::string differencesOn(const std::string& base) {
    for (const char* folder : {"/lower", "/other"}) testing::makeDirectories(base + folder);
    if (::mount("tarnwell", (base + "/other").c_str(), "tmpfs", 0, nullptr) != 0) return "skip: no tmpfs";
    for (const char* folder : {"/other/upper", "/other/work", "/merged"}) testing::makeDirectories(base + folder);
    const std::string options =
        "lowerdir=" + base + "/lower,upperdir=" + base + "/other/upper,workdir=" + base + "/other/work";
    if (::mount("overlay", (base + "/merged").c_str(), "overlay", 0, options.c_str()) != 0) return "skip: no overlay";
    ::setenv("TARNWELL_TEST_DIR", (base + "/merged").c_str(), 1);

    testing::TestDevice device;
    const items::TWPFileObjectIdentifier identifiers(device.environment());
    testing::writeFile(device.path("file"), "x");
    testing::makeDirectories(device.path("folder"));
    testing::writeFile(device.path("folder/file"), "x");
    if (::symlink("nowhere", device.path("link").c_str()) != 0) return "no link";
    if (::mkfifo(device.path("pipe").c_str(), 0644) != 0) return "no pipe";
    struct stat file{}, folder{};
    if (::lstat(device.path("file").c_str(), &file) != 0 || ::lstat(device.path("folder").c_str(), &folder) != 0) {
        return "no status";
    }
    if (file.st_dev == folder.st_dev) return "skip: files have the number of their folder here";

    std::string wrong;
    std::set<std::string> seen;
    const auto identifierAt = [&](const std::string& relative) {
        return identifiers.itemIdentifier(device.url(relative)).value_or("none");
    };
    for (const char* name : {"file", "folder", "folder/file", "link", "pipe"}) {
        const std::string identifier = identifierAt(name);
        const auto back = identifiers.fileURLWithItemIdentifier(identifier);
        if (identifier == "none" || !seen.insert(identifier).second || !back || back->path() != device.path(name)) {
            wrong += std::string(name) + " is " + identifier + "; ";
        }
    }
    const std::string before = identifierAt("file");
    if (::rename(device.path("file").c_str(), device.path("folder/moved").c_str()) != 0) return "no move";
    if (identifierAt("folder/moved") != before) wrong += "a moved file is " + identifierAt("folder/moved");
    return wrong;
}

TEST(Overlay, WhatLiesOnSeveralLayersHasIdentifiers) {
    const testing::TemporaryDirectory directory;
    const std::string found = testing::inChild([&] {
        if (const auto reason = testing::becomeOwnerOfMounts()) return "skip: " + *reason;
        return differencesOn(directory.path());
    });
    if (found.starts_with("skip: ")) GTEST_SKIP() << found.substr(6);
    EXPECT_EQ(found, "");
}

}  // namespace
}  // namespace tarnwell::files

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "testing/InChild.h"
#include "tests/operations/OperationsFixture.h"

/// What depends on file systems: other ones below a root, full ones, read-only ones.
namespace tarnwell::operations {
namespace {

using Body = std::function<std::string(Workplace&)>;

/// Runs the body, which gives "" for a success, with what `mount` mounts at Documents/other; that gives "" or why it
/// cannot.
std::string withMounted(const std::string& base, const std::function<std::string(const std::string&)>& mount,
                        const Body& body) {
    return testing::inChild([&]() -> std::string {
        if (const auto reason = testing::becomeOwnerOfMounts()) return "skip: " + *reason;
        Workplace at(base);
        at.folder("other");
        if (const auto reason = mount(at.path("other")); !reason.empty()) return "skip: " + reason;
        std::string wrong = body(at);
        for (const std::string& left : temporariesBelow(base)) wrong += "; left: " + left;
        if (at.records() != 0) wrong += "; records are left";
        return wrong;
    });
}

/// With a tmpfs of these options.
std::string withOther(const std::string& base, const char* options, const Body& body) {
    const auto mount = [&](const std::string& folder) {
        return ::mount("tarnwell", folder.c_str(), "tmpfs", 0, options) == 0 ? "" : "no tmpfs";
    };
    return withMounted(base, mount, body);
}

/// Shell commands, until one fails.
bool runs(const std::vector<std::string>& commands) {
    return std::ranges::all_of(commands, [](const std::string& command) {
        return std::system(("{ " + command + "; } >/dev/null 2>&1").c_str()) == 0;
    });
}

#define EXPECT_NOTHING_WRONG(found)                                     \
    do {                                                                \
        const std::string text = (found);                               \
        if (text.starts_with("skip: ")) GTEST_SKIP() << text.substr(6); \
        EXPECT_EQ(text, "");                                            \
    } while (false)

TEST(OtherFileSystems, AMoveCopiesThenRemovesAndTellsOfEveryObject) {
    const testing::TemporaryDirectory directory;
    EXPECT_NOTHING_WRONG(withOther(directory.path(), "", [](Workplace& at) -> std::string {
        at.file("folder/a.txt", "a");
        at.file("folder/inner/b.txt", "b");
        at.folder("folder/inner/empty");
        if (::symlink("a.txt", at.path("folder/link").c_str()) != 0) return "no link";
        if (::chmod(at.path("folder/a.txt").c_str(), 0440) != 0) return "no chmod";
        if (::chown(at.path("folder/a.txt").c_str(), 12, 34) != 0) return "no chown";
        at.file("single", std::string(100'000, 's'));
        if (::symlink("nowhere", at.path("link").c_str()) != 0) return "no link";
        const auto before = treeOf(at.path("folder"));
        std::string wrong;
        for (const auto& [name, objects] : {std::pair{"folder", 6}, std::pair{"single", 1}, std::pair{"link", 1}}) {
            std::set<std::pair<std::uint64_t, std::uint64_t>> sources, copies;
            MoveOptions options;
            options.copied = [&](const CopiedObject& copied) {
                const auto status = filesystem::statusOf(copied.copy.get());
                if (!status || (status->mode & S_IFMT) != (copied.source.mode & S_IFMT)) wrong += "other kind; ";
                sources.insert({copied.source.device, copied.source.inode});
                copies.insert({status->device, status->inode});
                // Both stand at that moment.
                if (!at.exists(name) || !at.exists(std::string("other/") + name)) wrong += "told too late; ";
            };
            const auto moved = moveItem(*at.context, at.place(name), at.place("other"), name, options);
            if (!moved) return wrong + describe(moved.error());
            if (moved->relative != std::string("other/") + name) wrong += moved->relative + "; ";
            if (sources.size() != static_cast<std::size_t>(objects) || copies.size() != sources.size()) {
                wrong += std::string(name) + ": told of " + std::to_string(sources.size()) + "; ";
            }
            if (at.exists(name)) wrong += "the source stands; ";
        }
        if (treeOf(at.path("other/folder")) != before) wrong += "another tree; ";
        struct stat status{};
        if (::stat(at.path("other/folder/a.txt").c_str(), &status) != 0 || status.st_uid != 12 || status.st_gid != 34) {
            wrong += "another owner; ";
        }
        if (at.read("other/single") != std::string(100'000, 's')) wrong += "another content; ";
        return wrong;
    }));
}

TEST(OtherFileSystems, CollisionsAndFreeNamesAreTheSameThere) {
    const testing::TemporaryDirectory directory;
    EXPECT_NOTHING_WRONG(withOther(directory.path(), "", [](Workplace& at) -> std::string {
        for (const char* name : {"a.txt", "folder/x"}) {
            at.file(name, "mine");
            at.file(std::string("other/") + name, "theirs");
        }
        const auto before = at.tree();
        for (const char* name : {"a.txt", "folder"}) {
            const auto refused = moveItem(*at.context, at.place(name), at.place("other"), name);
            if (refused || !refused.error().is(ErrorDomain::generalFile, kFileExists)) return "no collision";
            if (refused.error().userInfo.at(kErrorPath) != at.path(std::string("other/") + name)) return "another URL";
            if (at.tree() != before) return "something changed";
        }
        MoveOptions options;
        options.taken = Taken::freeName;
        const auto file = moveItem(*at.context, at.place("a.txt"), at.place("other"), "a.txt", options);
        const auto folder = moveItem(*at.context, at.place("folder"), at.place("other"), "folder", options);
        if (!file || file->relative != "other/a 2.txt") return "another name for the file";
        if (!folder || folder->relative != "other/folder 2") return "another name for the folder";
        return at.read("other/a 2.txt") + at.read("other/folder 2/x") == "minemine" ? "" : "another content";
    }));
}

TEST(OtherFileSystems, TheTrashOfAnotherFileSystemRemembersTheName) {
    const testing::TemporaryDirectory directory;
    EXPECT_NOTHING_WRONG(withOther(directory.path(), "", [](Workplace& at) -> std::string {
        at.folder("other/.Trash");
        at.file("other/.Trash/a.txt", "older");
        at.file("a.txt", "newer");
        const auto trashed = trashItem(*at.context, at.place("a.txt"), at.place("other/.Trash"));
        if (!trashed) return describe(trashed.error());
        const std::string name = putBackName(*at.context, *trashed);
        const auto back = moveOutOfTrash(*at.context, *trashed, at.place(""), name);
        return back && back->relative == "a.txt" && at.read("a.txt") == "newer" ? "" : "not back as " + name;
    }));
}

TEST(OtherFileSystems, AMoveOfWhatChangesMeanwhileIsUndone) {
    const testing::TemporaryDirectory directory;
    EXPECT_NOTHING_WRONG(withOther(directory.path(), "", [](Workplace& at) -> std::string {
        at.file("folder/a.txt", "a");
        at.file("folder/b.txt", "b");
        at.file("single", "s");
        for (const char* name : {"folder", "single"}) {
            const std::string changed = std::string(name) == "folder" ? "folder/b.txt" : "single";
            MoveOptions options;
            // As soon as the copy stands.
            options.aboutToAppear = [&](const filesystem::Status&, const std::string&) {
                testing::writeFile(at.path(changed), "written meanwhile");
            };
            const auto moved = moveItem(*at.context, at.place(name), at.place("other"), name, options);
            if (moved) return "moved";
            if (!moved.error().is(ErrorDomain::posix, EBUSY)) return describe(moved.error());
            if (at.read(changed) != "written meanwhile") return "lost";
            if (!treeOf(at.path("other")).empty()) return "a copy is left";
        }
        return "";
    }));
}

TEST(OtherFileSystems, WhatHasToStayIsToldAsTheCopyOfItsCopies) {
    const testing::TemporaryDirectory directory;
    EXPECT_NOTHING_WRONG(withOther(directory.path(), "", [](Workplace& at) -> std::string {
        at.file("folder/inner/a.txt", "a");
        at.file("single", "s");
        for (const char* name : {"folder", "single"}) {
            const std::string changed = std::string(name) == "folder" ? "folder/inner/a.txt" : "single";
            using Object = std::pair<std::uint64_t, std::uint64_t>;
            std::vector<std::pair<Object, Object>> told;
            MoveOptions options;
            options.copied = [&](const CopiedObject& copied) {
                const auto copy = filesystem::statusOf(copied.copy.get()).value();
                told.push_back({{copied.source.device, copied.source.inode}, {copy.device, copy.inode}});
                // Too late for the copy.
                if (told.size() == 1) testing::writeFile(at.path(changed), "written meanwhile");
            };
            const auto moved = moveItem(*at.context, at.place(name), at.place("other"), name, options);
            if (moved) return "moved";
            if (at.read(changed) != "written meanwhile") return "lost";
            if (!treeOf(at.path("other")).empty()) return "a copy is left";
            const std::size_t objects = std::string(name) == "folder" ? 3 : 1;
            if (told.size() != 2 * objects) return "told of " + std::to_string(told.size());
            for (std::size_t i = 0; i < objects; ++i) {
                const auto& [source, copy] = told[i];
                if (told[objects + i] != std::pair(copy, source)) return "not told back";
            }
        }
        return "";
    }));
}

TEST(OtherFileSystems, WhatHasNoCopyStays) {
    const testing::TemporaryDirectory directory;
    EXPECT_NOTHING_WRONG(withOther(directory.path(), "", [](Workplace& at) -> std::string {
        if (::mkfifo(at.path("pipe").c_str(), 0644) != 0) return "no pipe";
        at.file("folder/file");
        if (::mkfifo(at.path("folder/pipe").c_str(), 0644) != 0) return "no pipe";
        const auto before = at.tree();
        for (const char* name : {"pipe", "folder"}) {
            const auto moved = moveItem(*at.context, at.place(name), at.place("other"), name);
            if (moved || sentence(moved).find("pipe") == std::string::npos) return "moved, or " + sentence(moved);
        }
        return at.tree() == before ? "" : "something changed";
    }));
}

/// Neither "large" nor "folder" can be moved or imported to Documents/other, for this reason, and nothing changes.
std::string everythingIsRefused(Workplace& at, int code, const std::string& reason) {
    const auto before = at.tree();
    for (const char* name : {"large", "folder"}) {
        const auto moved = moveItem(*at.context, at.place(name), at.place("other"), name);
        const auto imported = importItem(*at.context, at.path(name), at.place("other"));
        for (const auto* result : {&moved, &imported}) {
            if (*result) return "done";
            if (!result->error().is(ErrorDomain::posix, code)) return describe(result->error());
            if (sentence(*result).find(reason) == std::string::npos) return sentence(*result);
        }
        if (at.tree() != before) return "something changed";
    }
    return "";
}

TEST(OtherFileSystems, AFullOneIsSaidAndNothingStays) {
    const testing::TemporaryDirectory directory;
    EXPECT_NOTHING_WRONG(withOther(directory.path(), "size=1m", [](Workplace& at) -> std::string {
        at.file("large", std::string(std::size_t{2} << 20, 'x'));
        at.file("folder/large", std::string(std::size_t{2} << 20, 'x'));
        const std::string wrong = everythingIsRefused(
            at, ENOSPC, "there is no room left on the file system of the folder \"" + at.path("other"));
        if (!wrong.empty()) return wrong;
        // There is room again for what fits.
        at.file("small", "s");
        return moveItem(*at.context, at.place("small"), at.place("other"), "small") ? "" : "no room afterwards";
    }));
}

TEST(OtherFileSystems, ALackOfInodesIsNotCalledALackOfRoom) {
    const testing::TemporaryDirectory directory;
    EXPECT_NOTHING_WRONG(withOther(directory.path(), "nr_inodes=6", [](Workplace& at) -> std::string {
        for (int i = 0; i < 10; ++i) at.file("folder/" + std::to_string(i));
        const auto before = at.tree();
        const auto imported = importItem(*at.context, at.path("folder"), at.place("other"));
        if (imported || !imported.error().is(ErrorDomain::posix, ENOSPC)) return "imported, or another error";
        if (at.tree() != before) return "something changed";
        for (int i = 0; i < 10; ++i) {
            const auto made = makeFolder(*at.context, at.place("other"), std::to_string(i));
            if (made) continue;
            if (sentence(made).find("no further file can be made") == std::string::npos) return sentence(made);
            return "";
        }
        return "never full";
    }));
}

TEST(OtherFileSystems, AReadOnlyOneIsARefusal) {
    const testing::TemporaryDirectory directory;
    EXPECT_NOTHING_WRONG(withOther(directory.path(), "", [](Workplace& at) -> std::string {
        at.file("a.txt");
        at.file("other/b.txt");
        at.file("other/folder/c.txt");
        if (::mount(nullptr, at.path("other").c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0)
            return "no mount";
        const auto before = at.tree();
        const auto check = [&](const auto& result) -> std::string {
            if (result) return "done; ";
            if (!result.error().is(ErrorDomain::generalFile, kWriteNotPermitted)) return describe(result.error());
            return sentence(result).find("read-only") != std::string::npos ? "" : sentence(result) + "; ";
        };
        std::string wrong = check(renameItem(*at.context, at.place("other/b.txt"), "c")) +
                            check(moveItem(*at.context, at.place("a.txt"), at.place("other"), "a.txt")) +
                            check(moveItem(*at.context, at.place("other/b.txt"), at.place(""), "b.txt")) +
                            check(moveItem(*at.context, at.place("other/folder"), at.place(""), "folder")) +
                            check(makeFolder(*at.context, at.place("other"), "new")) +
                            check(removeItem(*at.context, at.place("other/b.txt"))) +
                            check(removeItem(*at.context, at.place("other/folder"))) +
                            check(importItem(*at.context, at.path("a.txt"), at.place("other")));
        if (at.tree() != before) wrong += "something changed";
        return wrong;
    }));
}

TEST(OtherFileSystems, AShareThatIsUsedUpIsSaidAndNothingStays) {
    const testing::TemporaryDirectory directory, images;
    const auto mount = [&](const std::string& other) {
        const std::string image = images.path("image");
        const bool isMounted = runs({"truncate -s 256M '" + image + "'", "mkfs.btrfs -q '" + image + "'",
                                     "mount -o loop '" + image + "' '" + other + "'",
                                     "btrfs quota enable '" + other + "'", "btrfs qgroup limit 4M '" + other + "'"});
        return isMounted ? "" : "no btrfs with shares";
    };
    EXPECT_NOTHING_WRONG(withMounted(directory.path(), mount, [](Workplace& at) -> std::string {
        at.file("large", std::string(std::size_t{16} << 20, 'x'));
        at.file("folder/large", std::string(std::size_t{16} << 20, 'x'));
        return everythingIsRefused(
            at, EDQUOT, "your share of the file system of the folder \"" + at.path("other") + "\" is used up");
    }));
}

/// A file system that takes "a" and "A" for one name: of those that this machine can make, or nothing.
std::optional<std::string> mountWithoutCase(const std::string& folder, const std::string& image) {
    const std::string names = folder + "/names";
    if (::mount("tarnwell", folder.c_str(), "tmpfs", 0, "casefold") == 0) {
        if (::mkdir(names.c_str(), 0755) == 0 && runs({"chattr +F '" + names + "'"})) return "tmpfs";
        ::umount(folder.c_str());
    }
    // What a stick or a camera's card has; without numbers of its own for files, and without attributes.
    if (runs({"truncate -s 64M '" + image + "'", "mkfs.exfat '" + image + "'",
              "device=$(losetup --find --show '" + image + "') && mount.exfat-fuse \"$device\" '" + folder +
                  "'; mounted=$?; losetup -d \"$device\"; exit $mounted",
              "mkdir '" + names + "'"})) {
        return "exfat";
    }
    return std::nullopt;
}

/// No second names for a file, no rename that spares what stands, no attributes, no numbers that last.
TEST(OtherFileSystems, OnAStickEverythingIsDoneAsElsewhere) {
    const testing::TemporaryDirectory directory, images;
    std::optional<std::string> kind;
    const auto mount = [&](const std::string& other) {
        kind = mountWithoutCase(other, images.path("image"));
        return kind == "exfat" ? "" : "no exFAT";
    };
    EXPECT_NOTHING_WRONG(withMounted(directory.path(), mount, [](Workplace& at) -> std::string {
        const Context& context = *at.context;
        at.file("a.txt", "a");
        at.file("folder/inner/b.txt", "b");
        std::string wrong;
        const auto check = [&](const char* what, const auto& done, const std::string& relative) {
            if (!done) {
                wrong += std::string(what) + ": " + describe(done.error()) + "; ";
            } else if (done->relative != relative) {
                wrong += std::string(what) + " is at " + done->relative + "; ";
            }
        };
        check("an import", importItem(context, at.path("a.txt"), at.place("other")), "other/a.txt");
        check("an import of a folder", importItem(context, at.path("folder"), at.place("other")), "other/folder");
        check("a rename", renameItem(context, at.place("other/a.txt"), "c.txt"), "other/c.txt");
        check("a new folder", makeFolder(context, at.place("other"), "new"), "other/new");
        check("a rename of a folder", renameItem(context, at.place("other/new"), "newer"), "other/newer");
        check("a move", moveItem(context, at.place("other/c.txt"), at.place("other/newer"), "c.txt"),
              "other/newer/c.txt");
        check("a move in", moveItem(context, at.place("a.txt"), at.place("other"), "a.txt"), "other/a.txt");
        check("a move of a folder", moveItem(context, at.place("other/folder"), at.place("other/newer"), "folder"),
              "other/newer/folder");
        check("a move out", moveItem(context, at.place("other/newer/folder"), at.place(""), "out"), "out");
        const auto taken = renameItem(context, at.place("other/a.txt"), "newer");
        if (taken || !taken.error().is(ErrorDomain::generalFile, kFileExists)) wrong += "no collision; ";
        const auto over = moveItem(context, at.place("other/newer/c.txt"), at.place("other"), "a.txt");
        if (over || !over.error().is(ErrorDomain::generalFile, kFileExists)) wrong += "moved over another; ";
        if (!removeItem(context, at.place("other/a.txt"))) wrong += "not removed; ";
        if (at.read("other/newer/c.txt") + at.read("out/inner/b.txt") != "ab") wrong += "another content; ";
        const auto left = treeOf(at.path("other"));
        if (left.size() != 3 || !left.contains("newer") || !left.contains("names")) wrong += "something is left; ";
        return wrong;
    }));
}

TEST(OtherFileSystems, ANameMaySpellItselfInAnotherCase) {
    const testing::TemporaryDirectory directory, images;
    std::optional<std::string> kind;
    const auto mount = [&](const std::string& other) {
        kind = mountWithoutCase(other, images.path("image"));
        return kind ? "" : "no file system that ignores case";
    };
    EXPECT_NOTHING_WRONG(withMounted(directory.path(), mount, [&](Workplace& at) -> std::string {
        at.file("other/names/a.txt", "text");
        at.folder("other/names/folder");
        at.file("other/names/taken", "taken");
        at.file("b.txt", "b");
        const auto renamed = renameItem(*at.context, at.place("other/names/a.txt"), "A.TXT");
        if (!renamed) return *kind + ": " + describe(renamed.error());
        const auto folder = renameItem(*at.context, at.place("other/names/folder"), "Folder");
        if (!folder) return *kind + ": " + describe(folder.error());
        for (const char* name : {"TAKEN", "FOLDER"}) {
            const auto taken = renameItem(*at.context, at.place("other/names/A.TXT"), name);
            if (taken || !taken.error().is(ErrorDomain::generalFile, kFileExists)) return *kind + ": no collision";
            const auto made = makeFolder(*at.context, at.place("other/names"), name);
            if (made || !made.error().is(ErrorDomain::generalFile, kFileExists)) return *kind + ": made over another";
            const auto moved = moveItem(*at.context, at.place("b.txt"), at.place("other/names"), name);
            if (moved || !moved.error().is(ErrorDomain::generalFile, kFileExists)) return *kind + ": moved over it";
        }
        const auto tree = treeOf(at.path("other/names"));
        if (!tree.contains("A.TXT") || !tree.contains("Folder") || !tree.contains("taken") || tree.size() != 3) {
            return *kind + ": not respelled";
        }
        const auto moved = moveItem(*at.context, at.place("b.txt"), at.place("other/names"), "B.txt");
        if (!moved) return *kind + ": " + describe(moved.error());
        return "";
    }));
}

}  // namespace
}  // namespace tarnwell::operations

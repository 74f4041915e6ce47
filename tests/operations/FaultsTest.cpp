#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>

#include "testing/InChild.h"
#include "testing/LongRun.h"
#include "testing/SystemCallFaults.h"
#include "tests/operations/OperationsFixture.h"

/// Every operation, with an error and with a kill at each of its system calls in turn, its own and the store's. After
/// the next start's clean-up the tree is as before or as asked, and nothing of ours is left in it.
namespace tarnwell::operations {
namespace {

using testing::SystemCallFault;
using Tree = std::map<std::string, std::string>;

struct Operation {
    std::string name;
    std::function<std::string(Workplace&)> run;  ///< "" when done, else the error
    /// What may be besides: given the tree, as before and as asked.
    std::function<bool(const Tree& tree, const Tree& before, const Tree& asked)> alsoFine;
};

template <typename T>
std::string textOf(const Result<T>& result) {
    return result ? std::string() : describe(result.error());
}

/// All that stood there before or was asked for stands, with its content.
bool holdsBoth(const Tree& tree, const Tree& before, const Tree& asked) {
    Tree both = before;
    both.insert(asked.begin(), asked.end());
    return tree == both;
}
/// Of a deletion that was begun: what is not below the deleted is whole.
bool isPartOf(const Tree& tree, const Tree& before, const Tree& asked) {
    for (const auto& [name, text] : tree) {
        const auto found = before.find(name);
        if (found == before.end() || found->second != text) return false;
    }
    for (const auto& [name, text] : asked) {
        if (!tree.contains(name)) return false;
    }
    return true;
}

const std::vector<Operation>& operations() {
    static const std::vector<Operation> all{
        {"import a file",
         [](Workplace& at) { return textOf(importItem(*at.context, at.outside("file"), at.place("f"))); },
         {}},
        {"import a folder",
         [](Workplace& at) { return textOf(importItem(*at.context, at.outside("folder"), at.place("f"))); },
         {}},
        {"make a folder", [](Workplace& at) { return textOf(makeFolder(*at.context, at.place("f"), "new")); }, {}},
        {"rename a file",
         [](Workplace& at) { return textOf(renameItem(*at.context, at.place("a.txt"), "b.txt")); },
         {}},
        {"move a folder",
         [](Workplace& at) { return textOf(moveItem(*at.context, at.place("tree"), at.place("f"), "t")); },
         {}},
        {"trash a file",
         [](Workplace& at) { return textOf(trashItem(*at.context, at.place("a.txt"), at.place(".Trash"))); },
         {}},
        {"delete a file", [](Workplace& at) { return textOf(removeItem(*at.context, at.place("a.txt"))); }, {}},
        {"delete a tree", [](Workplace& at) { return textOf(removeItem(*at.context, at.place("tree"))); }, isPartOf},
        {"move a file to another file system",
         [](Workplace& at) { return textOf(moveItem(*at.context, at.place("a.txt"), at.place("other"), "a.txt")); },
         holdsBoth},
        {"move a folder to another file system",
         [](Workplace& at) { return textOf(moveItem(*at.context, at.place("tree"), at.place("other"), "tree")); },
         [](const Tree& tree, const Tree& before, const Tree& asked) {
             // The copy is whole; of the source something may be left.
             Tree rest = tree;
             for (const auto& [name, text] : asked) {
                 if (!tree.contains(name) || tree.at(name) != text) return false;
             }
             return isPartOf(
                 rest,
                 [&] {
                     Tree both = before;
                     both.insert(asked.begin(), asked.end());
                     return both;
                 }(),
                 asked);
         }},
    };
    return all;
}

void makeDevice(const std::string& base) {
    for (const auto& entry : std::filesystem::directory_iterator(base)) {
        if (entry.path().filename() != "Documents") std::filesystem::remove_all(entry.path());
    }
    testing::makeDirectories(base + "/Documents/other");
    for (const auto& entry : std::filesystem::directory_iterator(base + "/Documents")) {
        if (entry.path().filename() != "other") std::filesystem::remove_all(entry.path());
    }
    for (const auto& entry : std::filesystem::directory_iterator(base + "/Documents/other")) {
        std::filesystem::remove_all(entry.path());
    }
    Workplace at(base);
    testing::writeFile(at.outside("file"), std::string(5000, 'f'));
    testing::makeDirectories(at.outside("folder/inner"));
    testing::writeFile(at.outside("folder/1"), "1");
    testing::writeFile(at.outside("folder/inner/2"), "2");
    if (::symlink("1", at.outside("folder/link").c_str()) != 0) std::abort();
    at.folder("f");
    at.file("a.txt", std::string(3000, 'a'));
    at.file(".Trash/a.txt", "older");
    at.file("tree/1", "one");
    at.file("tree/inner/2", "two");
    at.file("tree/inner/deeper/3", "three");
    at.folder("tree/empty");
    if (::symlink("1", at.path("tree/link").c_str()) != 0) std::abort();
}

std::optional<testing::FaultedRun> runOn(const std::string& base, const Operation& operation,
                                         const SystemCallFault& fault) {
    return testing::runWithFault(fault, [&](const std::function<void()>& begin) {
        Workplace at(base);
        begin();
        std::string text = operation.run(at);
        // What closing the store does is no part of the operation.
        (void)at.store.release();
        return text;
    });
}

/// What is wrong after the fault; "" for nothing.
std::string judged(const std::string& base, const Operation& operation, const SystemCallFault& fault,
                   const testing::FaultedRun& run, const Tree& before, const Tree& asked) {
    const bool isKilled = !run.ended;
    const Tree atOnce = treeOf(base + "/Documents");
    Workplace at(base);
    cleanUp(*at.context);
    const Tree tree = at.tree();
    if (treeOf(at.outside()).size() != 6) return "the documents that were imported changed";
    if (at.records() != 0) return "a record is left";
    for (const auto& [name, text] : tree) {
        if (name.find(".tarnwell-") != std::string::npos) return "left: " + name;
    }
    if (!isKilled && run.text.starts_with("the process ended")) return run.text;
    if (!isKilled && run.text.empty()) {
        if (tree != asked) return "done, but not as asked";
        if (!fault.lasts && atOnce != asked && !operation.alsoFine) return "done, but only after another start";
        return {};
    }
    if (tree == before)
        return !isKilled && !fault.lasts && atOnce != before ? "failed, and the next start put it right" : "";
    if (isKilled && tree == asked) {
        if (operation.name == "trash a file" && putBackName(*at.context, at.place(".Trash/a 2.txt")) != "a.txt") {
            return "trashed, and its name is forgotten";
        }
        return {};
    }
    if (operation.name == "delete a tree" && !isKilled && run.text.find("items were removed") == std::string::npos) {
        return "failed half way without saying so: " + run.text;
    }
    // A single error leaves no copy beside the source; a deletion may have begun.
    const bool mayBeHalf = isKilled || fault.lasts || operation.name == "delete a tree";
    if (mayBeHalf && operation.alsoFine && operation.alsoFine(tree, before, asked)) return {};
    return isKilled ? "neither as before nor as asked" : "failed, but not as before: " + run.text;
}

/// Runs all faults of these kinds on one operation.
std::string faultsOf(const std::string& base, const Operation& operation, const std::vector<SystemCallFault>& kinds,
                     std::size_t every, std::size_t& runs) {
    makeDevice(base);
    const Tree before = treeOf(base + "/Documents");
    const auto plain = runOn(base, operation, {});
    if (!plain) return "skip: no seccomp listener";
    if (!plain->text.empty() || !plain->ended) return operation.name + ": " + plain->text;
    const Tree asked = treeOf(base + "/Documents");
    if (asked == before) return operation.name + " does nothing";
    std::string wrong;
    for (SystemCallFault fault : kinds) {
        for (fault.at = 0; fault.at < plain->calls + 50; fault.at += every) {
            makeDevice(base);
            const auto run = runOn(base, operation, fault);
            if (!run) return "no run";
            if (!run->befell) break;
            ++runs;
            const std::string found = judged(base, operation, fault, *run, before, asked);
            if (found.empty()) continue;
            wrong += "\n" + operation.name + ", " +
                     (fault.kind == SystemCallFault::Kind::kill ? std::string("kill") : errnoName(fault.code)) +
                     (fault.lasts ? " from" : " at") + " call " + std::to_string(fault.at) + " (number " +
                     std::to_string(run->call) + "): " + found;
        }
    }
    return wrong;
}

std::string allFaults(const std::string& base, const std::vector<SystemCallFault>& kinds, std::size_t every) {
    std::size_t runs = 0;
    std::string wrong = testing::inChild([&]() -> std::string {
        if (const auto reason = testing::becomeOwnerOfMounts()) return "skip: " + *reason;
        if (::mount("tarnwell", base.c_str(), "tmpfs", 0, nullptr) != 0) return "skip: no tmpfs";
        testing::makeDirectories(base + "/Documents/other");
        if (::mount("tarnwell", (base + "/Documents/other").c_str(), "tmpfs", 0, nullptr) != 0) return "skip: no tmpfs";
        std::string found;
        for (const Operation& operation : operations()) {
            found += faultsOf(base, operation, kinds, every, runs);
            if (found.starts_with("skip: ")) return found;
        }
        if (runs < 100) found += "\nonly " + std::to_string(runs) + " runs";
        std::printf("%zu runs\n", runs);
        std::fflush(stdout);
        return found;
    });
    return wrong;
}

class FaultsTest : public ::testing::Test {
protected:
    void check(const std::vector<SystemCallFault>& kinds, std::size_t every) {
        const testing::TemporaryDirectory directory;
        const std::string found = allFaults(directory.path(), kinds, testing::isLongRun() ? 1 : every);
        if (found.starts_with("skip: ")) GTEST_SKIP() << found.substr(6);
        EXPECT_EQ(found, "");
    }
    static SystemCallFault error(int code) { return {SystemCallFault::Kind::error, 0, code, false}; }
    static SystemCallFault lasting(int code) { return {SystemCallFault::Kind::error, 0, code, true}; }
};

TEST_F(FaultsTest, AKillAtAnyCallLosesNothing) { check({{SystemCallFault::Kind::kill, 0, 0, false}}, 2); }

TEST_F(FaultsTest, AnErrorAtAnyCallLeavesThingsAsTheyWereOrAsAsked) {
    std::vector<SystemCallFault> kinds{error(EIO)};
    if (testing::isLongRun()) {
        for (const int code : {ENOSPC, EACCES, EINVAL, EOPNOTSUPP, ENOMEM, EMFILE}) kinds.push_back(error(code));
    }
    check(kinds, 2);
}

TEST_F(FaultsTest, WhatFileSystemsRefuseIsDoneAnotherWayOrNotAtAll) { check({error(EOPNOTSUPP), error(EINVAL)}, 6); }

TEST_F(FaultsTest, AnErrorThatLastsIsSettledByTheNextStart) {
    std::vector<SystemCallFault> kinds{lasting(EIO)};
    if (testing::isLongRun()) {
        for (const int code : {ENOSPC, EACCES, EOPNOTSUPP, EMFILE}) kinds.push_back(lasting(code));
    }
    check(kinds, 6);
}

}  // namespace
}  // namespace tarnwell::operations

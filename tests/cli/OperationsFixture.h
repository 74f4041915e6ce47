#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/cli/Program.h"

namespace tarnwell::testing {

namespace files = std::filesystem;
using Arguments = std::vector<std::string>;

/// A device with some files of its own beside the sample's.
class OperationsTest : public ::testing::Test {
protected:
    OperationsTest() {
        make("Folder/a.txt", "a");
        make("Folder/b.txt", "b");
        makeDirectories(device_.document("Folder/Sub"));
    }
    void make(const std::string& relative, std::string_view content) const {
        const std::string path = device_.document(relative);
        makeDirectories(path.substr(0, path.rfind('/')));
        writeFile(path, content);
    }
    std::string source(const std::string& name, std::string_view content = "new") const {
        const std::string path = device_.path("home/Downloads/" + name);
        makeDirectories(path.substr(0, path.rfind('/')));
        writeFile(path, content);
        return path;
    }
    /// Runs it and expects it to succeed; the lines of its output.
    std::vector<std::string> succeed(const Arguments& arguments) const {
        const auto finished = device_.run(arguments);
        EXPECT_EQ(finished.status, 0) << finished.error;
        EXPECT_EQ(finished.error, "");
        return finished.lines();
    }
    /// What it says, without "tarnwell: " and the line end.
    std::string complaint(const Arguments& arguments, int status = 1) const {
        const auto finished = device_.run(arguments);
        EXPECT_EQ(finished.status, status);
        EXPECT_EQ(finished.output, "");
        EXPECT_TRUE(finished.error.starts_with("tarnwell: ") && finished.error.ends_with('\n')) << finished.error;
        EXPECT_EQ(std::ranges::count(finished.error, '\n'), 1) << finished.error;
        if (finished.error.size() < 11) return finished.error;
        return finished.error.substr(10, finished.error.size() - 11);
    }
    std::string trashed(const std::string& name) const { return device_.document(".Trash/" + name); }
    bool exists(const std::string& path) const { return files::exists(files::symlink_status(path)); }

    /// Everything that a person has on the device, with its content.
    using Everything = std::map<std::string, std::string>;
    Everything everything() const {
        Everything found;
        for (files::recursive_directory_iterator entry(device_.path("home")), end; entry != end; ++entry) {
            const std::string path = entry->path().string();
            // The program's own: the store, and what can be made anew.
            if (path.ends_with("/.local") || path.ends_with("/.cache")) {
                entry.disable_recursion_pending();
                continue;
            }
            found[path] = entry->is_symlink()        ? "-> " + files::read_symlink(path).string()
                          : entry->is_regular_file() ? readFile(path)
                                                     : "";
        }
        return found;
    }
    /// The paths that came, went or differ since then.
    std::vector<std::string> changedSince(const Everything& before) const {
        Everything now = everything();
        std::vector<std::string> changed;
        for (const auto& [path, content] : before) {
            const auto found = now.find(path);
            if (found == now.end() || found->second != content) changed.push_back(path);
            now.erase(path);
        }
        for (const auto& [path, content] : now) changed.push_back(path);
        return changed;
    }

    Device device_;
    const std::string library_ = "#org.example.Notes";
};

}  // namespace tarnwell::testing

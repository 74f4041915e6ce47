#pragma once

#include <string>
#include <string_view>

namespace tarnwell::testing {

/// A private folder, removed with its contents (unreadable folders included) when destroyed, unless TARNWELL_TEST_KEEP
/// is set. Below TARNWELL_TEST_DIR if that is set, so that a test can run on another file system, else below TMPDIR or
/// /tmp.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    /// The real path, links resolved, no trailing slash.
    const std::string& path() const { return path_; }
    std::string path(const std::string& relative) const { return path_ + "/" + relative; }

private:
    std::string path_;
};

/// Plain file helpers; each stops the test program with a message when it fails.
void makeDirectories(const std::string& path);
void writeFile(const std::string& path, std::string_view content);
std::string readFile(const std::string& path);
/// Sets `user.` + name, not following a link.
void setUserAttribute(const std::string& path, const std::string& name, std::string_view value);

}  // namespace tarnwell::testing

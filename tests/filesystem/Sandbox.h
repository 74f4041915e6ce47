#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Descriptor.h"
#include "testing/InChild.h"

namespace tarnwell::filesystem {

/// A private folder below TARNWELL_TEST_DIR, TMPDIR or /tmp, removed with its contents at the end. Others may pass
/// through it. Each operation stops the program with a message when it fails.
class Sandbox {
public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    const std::string& path() const { return path_; }
    std::string path(const std::string& relative) const { return path_ + "/" + relative; }
    /// Creates a folder with those above it.
    std::string folder(const std::string& relative) const;
    /// Creates a file with the folders above it.
    std::string file(const std::string& relative, std::string_view content = {}) const;
    std::string link(const std::string& relative, const std::string& target) const;
    std::string fifo(const std::string& relative) const;
    /// An O_PATH descriptor of the folder itself or of one below.
    Descriptor open(const std::string& relative = ".") const;

private:
    std::string path_;
};

std::string contentOf(int descriptor);

using testing::becomeOwnerOfMounts;
using testing::inChild;

}  // namespace tarnwell::filesystem

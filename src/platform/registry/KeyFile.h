#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Result.h"

struct _GKeyFile;

namespace tarnwell::registry {

/// A parsed key file: the format of desktop entries, Flatpak metadata and Flatpak's installation list. One thread at a
/// time.
class KeyFile {
public:
    /// EBADMSG with a message for text that is no key file.
    static Result<KeyFile> parse(std::string_view content);
    KeyFile(KeyFile&&) noexcept;
    KeyFile& operator=(KeyFile&&) noexcept;
    ~KeyFile();

    bool hasGroup(const std::string& group) const;
    std::vector<std::string> groups() const;
    /// The value with its escapes undone; nothing where it is missing, or is not UTF-8.
    std::optional<std::string> text(const std::string& group, const std::string& key) const;
    /// "true" or "false"; nothing for a missing value and for any other text.
    std::optional<bool> boolean(const std::string& group, const std::string& key) const;
    /// The parts between semicolons, empty ones left out; empty where the value is missing or is not UTF-8.
    std::vector<std::string> list(const std::string& group, const std::string& key) const;

private:
    struct Closer {
        void operator()(_GKeyFile* file) const;
    };
    explicit KeyFile(std::unique_ptr<_GKeyFile, Closer> file) : file_(std::move(file)) {}
    std::unique_ptr<_GKeyFile, Closer> file_;
};

}  // namespace tarnwell::registry

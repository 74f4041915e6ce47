#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/archive/KeyedArchive.h"
#include "platform/base/Result.h"

namespace tarnwell::tour {

/// Makes folders and files below one folder, by relative paths. The first failure is kept and makes every later
/// operation do nothing, so that callers ask once, at the end.
class DeviceBuilder {
public:
    explicit DeviceBuilder(std::string root) : root_(std::move(root)) {}

    std::string path(const std::string& relative) const { return root_ + "/" + relative; }
    /// With the folders above it.
    void folder(const std::string& relative);
    /// With the folders above it.
    void file(const std::string& relative, std::string_view content);
    void file(const std::string& relative, const Bytes& content);
    /// Like `file`; false where the file system takes no such name.
    bool fileOfAnyName(const std::string& relative, std::string_view content);
    void link(const std::string& relative, const std::string& target);
    void fifo(const std::string& relative);
    /// Sets "user.<name>" to the archived value. A file system that refuses such attributes is no failure (see below).
    void attribute(const std::string& relative, const std::string& name, const archive::ArchivedObject& value);

    const std::optional<Error>& error() const { return error_; }
    /// Why the file system keeps no attributes, if it does not.
    const std::optional<Error>& attributesRefused() const { return attributesRefused_; }

private:
    /// Keeps errno's error with the operation and the path.
    void failed(const char* operation, const std::string& relative);

    std::string root_;
    std::optional<Error> error_;
    std::optional<Error> attributesRefused_;
};

}  // namespace tarnwell::tour

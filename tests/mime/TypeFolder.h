#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tarnwell::mime {

/// A private folder for type databases, removed at the end.
class TypeFolder {
public:
    TypeFolder();
    ~TypeFolder();
    TypeFolder(const TypeFolder&) = delete;
    TypeFolder& operator=(const TypeFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    /// Writes a file with the folders above it; gives the folder that it is in.
    std::filesystem::path write(const std::filesystem::path& relative, std::string_view content) const;

private:
    std::filesystem::path path_;
};

}  // namespace tarnwell::mime

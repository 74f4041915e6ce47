#include "platform/registry/FlatpakMetadata.h"

#include "platform/registry/KeyFile.h"

namespace tarnwell::registry {
namespace {

/// "./Documents/" and "Documents" are one folder.
std::string normalized(std::string_view folder) {
    while (folder.size() > 1 && folder.ends_with('/')) folder.remove_suffix(1);
    while (folder.starts_with("./")) {
        folder.remove_prefix(2);
        while (folder.starts_with('/')) folder.remove_prefix(1);
    }
    return folder.empty() ? "." : std::string(folder);
}

}  // namespace

Result<FlatpakMetadata> parseFlatpakMetadata(std::string_view content) {
    auto file = KeyFile::parse(content);
    if (!file) return failure(file.error());
    return FlatpakMetadata{file->text("Application", "name"), file->list("Context", "persistent")};
}

Result<std::vector<std::string>> parseFlatpakInstallations(std::string_view content) {
    auto file = KeyFile::parse(content);
    if (!file) return failure(file.error());
    std::vector<std::string> paths;
    for (const std::string& group : file->groups()) {
        if (!group.starts_with("Installation \"")) continue;
        auto path = file->text(group, "Path");
        if (path && path->starts_with('/')) paths.push_back(std::move(*path));
    }
    return paths;
}

void PersistentFolders::apply(const std::vector<std::string>& entries) {
    for (const std::string& entry : entries) {
        if (entry.starts_with('!')) {
            folders_.erase(normalized(std::string_view(entry).substr(1)));
        } else {
            folders_.insert(normalized(entry));
        }
    }
}

bool PersistentFolders::holdDocuments() const { return folders_.contains("Documents") || folders_.contains("."); }

}  // namespace tarnwell::registry

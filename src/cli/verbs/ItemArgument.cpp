#include "cli/verbs/ItemArgument.h"

#include <array>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <utility>

#include "session/OnlyOne.h"

namespace tarnwell::cli {
namespace {

using session::ItemIdentifier;

std::optional<ItemIdentifier> asIdentifier(const std::string& text) {
    const std::array<std::pair<std::string_view, const ItemIdentifier*>, 3> words = {
        {{"root", &session::kRootContainer},
         {"workingset", &session::kWorkingSetContainer},
         {"alldirs", &session::kAllDirectoriesContainer}}};
    for (const auto& [word, identifier] : words) {
        if (text == word || text == *identifier) return *identifier;
    }
    if (text == session::kTemporaryLocalFolder) return text;
    if (text.starts_with("did=") || text.starts_with("fid=") || text.starts_with('#')) return text;
    return std::nullopt;
}

std::expected<ItemIdentifier, Failure> lookUp(Invocation& invocation, const std::string& what, const std::string& path,
                                              session::PathUse use) {
    auto session = invocation.session();
    if (!session) return std::unexpected(session.error());
    const std::string absolute = absolutePath(path);
    if (absolute.empty() && !path.empty()) {
        return std::unexpected(failureOf(what, path, posixError(ENOENT, "there is nothing at that path")));
    }
    auto identifier = session::onlyOne((*session)->identifiersAtPaths({absolute}, use));
    if (!identifier) return std::unexpected(failureOf(what, path, identifier.error()));
    return std::move(*identifier);
}

/// What the name of a folder ends in when it may be taken for an app library's.
bool mayBeNamedDocuments(std::string_view path) {
    while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
    const std::string_view last = path.substr(path.rfind('/') + 1);
    return last == "Documents" || last == "." || last == "..";
}

}  // namespace

std::expected<ItemIdentifier, Failure> resolveItem(Invocation& invocation, const std::string& what,
                                                   const std::string& text) {
    if (auto identifier = asIdentifier(text)) return *identifier;
    return resolvePath(invocation, what, text);
}

std::expected<ItemIdentifier, Failure> resolveTarget(Invocation& invocation, const std::string& what,
                                                     const std::string& text) {
    if (auto identifier = asIdentifier(text)) return *identifier;
    // A folder of that name is taken for a library's first; that it is none is no trouble here.
    if (mayBeNamedDocuments(text)) invocation.ignoreInLog("can't find bundle proxy at ");
    return lookUp(invocation, what, text, session::PathUse::target);
}

std::expected<ItemIdentifier, Failure> resolvePath(Invocation& invocation, const std::string& what,
                                                   const std::string& path) {
    return lookUp(invocation, what, path, session::PathUse::lookUp);
}

std::string absolutePath(const std::string& path) {
    if (path.empty() || path.starts_with('/')) return path;
    std::error_code none;
    const std::string folder = std::filesystem::current_path(none).string();
    return folder.starts_with('/') ? folder + "/" + path : std::string();
}

}  // namespace tarnwell::cli

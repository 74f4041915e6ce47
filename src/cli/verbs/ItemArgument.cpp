#include "cli/verbs/ItemArgument.h"

#include <array>
#include <cerrno>
#include <utility>

#include "host/Paths.h"
#include "hostframework/HostError.h"

namespace tarnwell::cli {
namespace {

using hostframework::ItemIdentifier;

std::optional<ItemIdentifier> asIdentifier(const std::string& text) {
    const std::array<std::pair<std::string_view, const ItemIdentifier*>, 3> words = {
        {{"root", &hostframework::kRootContainer},
         {"workingset", &hostframework::kWorkingSetContainer},
         {"alldirs", &hostframework::kAllDirectoriesContainer}}};
    for (const auto& [word, identifier] : words) {
        if (text == word || text == *identifier) return *identifier;
    }
    if (text == hostframework::kTemporaryLocalFolder) return text;
    if (text.starts_with("did=") || text.starts_with("fid=") || text.starts_with('#')) return text;
    return std::nullopt;
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
    auto context = invocation.context();
    if (!context) return std::unexpected(context.error());
    const auto url = host::urlForPath((*context)->roots(), text, host::OutsideLink::refused);
    if (!url) return std::unexpected(failureOf(what, text, url.error()));
    // A folder of that name is taken for a library's first; that it is none is no trouble here.
    if (url->lastPathComponent() == "Documents") invocation.ignoreInLog("can't find bundle proxy at ");
    auto identifier = host::identifierForURL(**context, *url);
    if (!identifier) return std::unexpected(failureOf(what, text, hostframework::noSuchItem(text)));
    const auto place = (*context)->provider().URLForItemWithPersistentIdentifier(*identifier);
    if (place && place->path() != url->path()) {
        const std::string other = (*context)->roots().realPath(place->path());
        return std::unexpected(
            failureOf(what, text,
                      posixError(EMLINK, "it is another name of \"" + other + "\", by which that document is known")));
    }
    return *identifier;
}

std::expected<ItemIdentifier, Failure> resolvePath(Invocation& invocation, const std::string& what,
                                                   const std::string& path) {
    auto context = invocation.context();
    if (!context) return std::unexpected(context.error());
    const auto url = host::urlForPath((*context)->roots(), path);
    if (!url) return std::unexpected(failureOf(what, path, url.error()));
    auto identifier = host::identifierForURL(**context, *url);
    if (!identifier) return std::unexpected(failureOf(what, path, hostframework::noSuchItem(path)));
    return *identifier;
}

}  // namespace tarnwell::cli

#include "host/Paths.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>

#include "items/LocalItem.h"

namespace tarnwell::host {
namespace {

std::optional<std::string> resolved(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> text(::realpath(path.c_str(), nullptr), &std::free);
    if (!text) return std::nullopt;
    return std::string(text.get());
}

}  // namespace

std::optional<std::string> realPathOfEntry(const std::string& given) {
    if (given.empty() || given.find('\0') != std::string::npos) return std::nullopt;
    std::string path = given;
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const std::size_t slash = path.rfind('/');
    const std::string last = slash == std::string::npos ? path : path.substr(slash + 1);
    if (last.empty() || last == "." || last == "..") return resolved(path);
    const auto folder = slash == std::string::npos ? resolved(".") : resolved(path.substr(0, slash + 1));
    if (!folder) return std::nullopt;
    const std::string result = (*folder == "/" ? "" : *folder) + "/" + last;
    struct stat status{};
    if (::lstat(result.c_str(), &status) != 0) return std::nullopt;
    return result;
}

Result<URL> urlForPath(const Roots& roots, const std::string& path, OutsideLink link) {
    if (path.empty() || path.find('\0') != std::string::npos) {
        return failure(posixError(ENOENT, "an empty text names no file"));
    }
    const auto literal = realPathOfEntry(path);
    if (!literal) return failure(posixError(ENOENT, "there is nothing at that path"));
    for (const auto& candidate : {literal, resolved(path)}) {
        if (!candidate) continue;
        URL url = roots.urlForRealPath(*candidate);
        if (!roots.locate(url.path())) continue;
        if (candidate == literal || link == OutsideLink::followed) return url;
        return failure(posixError(EXDEV, "it is a link from elsewhere to \"" + *candidate + "\"; name that instead"));
    }
    return failure(posixError(EXDEV, "it lies neither in the storage root nor in an application's documents"));
}

std::optional<hostframework::ItemIdentifier> identifierForURL(ProgramContext& context, const URL& url) {
    const auto storage = context.roots().storage();
    if (storage && url.path() == storage->name) return hostframework::kRootContainer;
    if (auto identifier = context.provider().persistentIdentifierForItemAtURL(url)) return identifier;
    // The provider takes every folder named "Documents" for an application's; one that is none has an item all the
    // same.
    const auto item = items::LocalItem::initWithURL(context.environment(), url, {});
    return item ? std::optional(item->itemIdentifier()) : std::nullopt;
}

}  // namespace tarnwell::host

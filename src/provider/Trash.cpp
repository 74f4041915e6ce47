#include "provider/Trash.h"

#include <chrono>
#include <utility>

#include "applibraries/ListText.h"
#include "hostframework/HostError.h"
#include "items/TrashFolder.h"
#include "provider/OperationErrors.h"

namespace tarnwell::provider {

using hostframework::Bouncing;
using hostframework::Completion;
using hostframework::ItemCompletion;
using hostframework::ItemIdentifier;
using items::LocalItem;
using items::LogSection;
using items::quoted;

std::optional<std::vector<std::string>> trashComponents(const URL& item) {
    std::vector<std::string> components;
    for (std::string& component : item.pathComponents()) {
        components.push_back(std::move(component));
        if (components.back() != "Documents") continue;
        components.emplace_back(items::kTrashFolderName);
        return components;
    }
    return std::nullopt;
}

std::optional<URL> fileURLOfComponents(const std::vector<std::string>& components) {
    if (components.empty() || components.front() != "/") return std::nullopt;
    std::string path;
    for (std::size_t i = 1; i < components.size(); ++i) {
        const std::string& component = components[i];
        const bool isName = !component.empty() && component != "." && component != ".." &&
                            component.find('/') == std::string::npos && component.find('\0') == std::string::npos;
        if (!isName) return std::nullopt;
        path += "/" + component;
    }
    return URL::file(path);
}

void Trash::trashItem(const ItemIdentifier& identifier, ItemCompletion completion) const {
    const LogSection section(log(), "trash item " + quoted(identifier));
    const auto url = lookup_.urlIfFound(identifier);
    if (!url) return completion(failure(hostframework::noSuchItem(identifier)));
    const auto folder = trashFolderOf(*url);
    if (!folder) return completion(failure(folder.error()));
    context_.fileOperations.trashUnderFolder(*url, *folder,
                                             [lookup = lookup_, attributes = attributes_, original = *url,
                                              completion = std::move(completion)](const Result<URL>& outcome) {
                                                 if (outcome) {
                                                     attributes.writeDate(*outcome, std::chrono::system_clock::now());
                                                     attributes.writePutBack(original, *outcome);
                                                 }
                                                 completeWithItem(lookup, outcome, completion);
                                             });
}

Result<URL> Trash::trashFolderOf(const URL& item) const {
    const auto components = trashComponents(item);
    if (!components) {
        log().error("no Documents directory found in path " + quoted(item.path()));
        return failure(hostframework::invalidParameter("sourceURL", item.text()));
    }
    auto folder = fileURLOfComponents(*components);
    if (!folder) {
        const std::string list = applibraries::listText(*components);
        log().error("can't build trash URL from components " + quoted(list));
        return failure(hostframework::invalidParameter("trashComponents", list));
    }
    log().debug([&] { return "trash is located at " + quoted(folder->path()); });
    if (auto made = context_.fs.items.files.createDirectory(*folder); !made) return failure(made.error());
    return std::move(*folder);
}

void Trash::untrashItem(const ItemIdentifier& identifier, const std::optional<ItemIdentifier>& parent,
                        ItemCompletion completion) const {
    const LogSection section(log(), "untrash item " + quoted(identifier));
    const auto url = lookup_.urlIfFound(identifier);
    if (!url) return completion(failure(hostframework::noSuchItem(identifier)));
    const auto item = lookup_.itemForIdentifier(identifier);
    if (!item) return completion(failure(item.error()));
    if (!(*item)->isTrashed()) {
        log().debug("item is not in trash");
        return completion(failure(hostframework::invalidParameter("itemIdentifier", identifier)));
    }
    const auto destination = recoverLocation(**item, parent);
    if (!destination) {
        log().error("can't compute valid parent URL for " + identifier);
        return completion(failure(hostframework::invalidParameter("itemIdentifier", identifier)));
    }
    context_.fileOperations.reparentUnderFolder(*url, *destination, std::nullopt, Bouncing::allowed,
                                                [lookup = lookup_, attributes = attributes_, &log = log(),
                                                 completion = std::move(completion)](const Result<URL>& outcome) {
                                                    if (outcome) {
                                                        log.debug("removing trash date xattr");
                                                        attributes.writeDate(*outcome, std::nullopt);
                                                    }
                                                    completeWithItem(lookup, outcome, completion);
                                                });
}

std::optional<URL> Trash::recoverLocation(const LocalItem& item, const std::optional<ItemIdentifier>& parent) const {
    if (parent) {
        if (auto url = usableParent(*parent)) return url;
    }
    if (auto url = reachablePutBack(item)) return url;
    return libraryRoot(item);
}

std::optional<URL> Trash::usableParent(const ItemIdentifier& parent) const {
    auto url = lookup_.urlIfFound(parent);
    if (!url || !items::liesInTrash(url->path())) return url;
    log().debug([&] { return "can't use provided parent item " + parent + " because it's trashed; " + url->path(); });
    return std::nullopt;
}

std::optional<URL> Trash::reachablePutBack(const LocalItem& item) const {
    auto url = item.putBackURL();
    if (!url) {
        log().debug("no putback url");
        return std::nullopt;
    }
    if (!context_.fs.items.files.isReachable(*url)) {
        log().debug([&] { return "putback url is not reachable; " + url->text(); });
        return std::nullopt;
    }
    log().debug([&] { return "putback url is " + url->text(); });
    return url;
}

std::optional<URL> Trash::libraryRoot(const LocalItem& item) const {
    const auto owner = item.isContainer() ? nullptr : item.fetchAppLibraryItem();
    const LocalItem* library = item.isContainer() ? &item : owner.get();
    if (library == nullptr) return std::nullopt;
    log().debug([&] { return "use " + library->itemIdentifier() + "'s root as recover location"; });
    return library->fileURL();
}

void Trash::deleteItem(const ItemIdentifier& identifier, Completion completion) const {
    startDelete(identifier, std::nullopt, std::move(completion));
}

void Trash::deleteItem(const ItemIdentifier& identifier, const URL& place, Completion completion) const {
    startDelete(identifier, place, std::move(completion));
}

void Trash::startDelete(const ItemIdentifier& identifier, const std::optional<URL>& place,
                        Completion completion) const {
    const LogSection section(log(), "delete item " + quoted(identifier));
    const auto url = lookup_.urlIfFound(identifier);
    if (!url) return completion(hostframework::noSuchItem(identifier));
    context_.fileOperations.deleteItem(place ? *place : *url, std::move(completion));
}

}  // namespace tarnwell::provider

#include "fs/FSEventClassifier.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include "items/TWPFileObjectIdentifier.h"

namespace tarnwell::fs {
namespace {

using items::TWPFileObjectIdentifier;
using Kind = ClassifiedEvent::Kind;

constexpr const char* kDocumentIDPathFormat = "/.docid/$dev/changed/$docid/src=$src,dst=$dst";

/// Parts of a path, left to right, without building strings.
class Components {
public:
    explicit Components(std::string_view path) : rest_(path) {}
    std::optional<std::string_view> next() {
        while (rest_.starts_with('/')) rest_.remove_prefix(1);
        if (rest_.empty()) return std::nullopt;
        const auto component = rest_.substr(0, rest_.find('/'));
        rest_.remove_prefix(component.size());
        return component;
    }

private:
    std::string_view rest_;
};

/// True when the error says that nothing stands there: no such file, or a folder above it went, or is a link now, which
/// leads to no place of ours.
bool meansNothingThere(const Error& error) {
    return error.is(ErrorDomain::generalFile, kNoSuchFileOnRead) || error.is(ErrorDomain::posix, ENOENT) ||
           error.is(ErrorDomain::posix, ENOTDIR) || error.is(ErrorDomain::posix, ELOOP);
}

/// The identifier that the event names its object by; nothing when it names none.
std::optional<std::string> namedIdentifier(const events::FileEvent& event) {
    if (event.documentID) return TWPFileObjectIdentifier::fromDocumentID(raw(*event.documentID));
    if (event.fileID) return TWPFileObjectIdentifier::fromFileID(raw(*event.fileID));
    return std::nullopt;
}

/// True when the item is the object that the event named, by either number. A file ID also fits a document whose
/// document ID the event does not give; not a link, whose item has the file ID of what it leads to.
bool isNamedBy(const items::LocalItem& item, const events::FileEvent& event) {
    if (!event.documentID && !event.fileID) return true;
    const auto& identifier = item.itemIdentifier();
    if (event.documentID && identifier == TWPFileObjectIdentifier::fromDocumentID(raw(*event.documentID))) return true;
    if (!event.fileID) return false;
    return identifier == TWPFileObjectIdentifier::fromFileID(raw(*event.fileID)) ||
           (!event.documentID && item.docID() && item.fileID() == event.fileID);
}

ClassifiedEvent deletion(URL url) { return {Kind::deleted, std::move(url), nullptr}; }

/// The deletion of the object that the event names. What is remembered of what stands at the path by now is no business
/// of its URL.
ClassifiedEvent deletionOf(const events::FileEvent& event, const std::string& path) {
    URL url = URL::file(path);
    if (event.documentID) {
        url.cache().setDocumentID(*event.documentID);
    } else if (event.fileID) {
        url.cache().setFileID(*event.fileID);
    }
    return deletion(std::move(url));
}

/// True for a path that goes on after a root's name, which the first component "Documents" ends.
bool isBelowRoot(std::string_view path) {
    Components components(path);
    auto component = components.next();
    while (component && *component != "Documents") component = components.next();
    return component && components.next();
}

}  // namespace

bool isBelowOneOf(const std::vector<URL>& folders, const URL& url) {
    return std::ranges::any_of(folders,
                               [&](const URL& folder) { return relationship(folder, url) == Relationship::contains; });
}

bool isHiddenBelowRoot(std::string_view path) {
    Components components(path);
    auto component = components.next();
    while (component && *component != "Documents") component = components.next();
    if (!component) return false;
    component = components.next();
    if (component == ".Trash") component = components.next();
    for (; component; component = components.next()) {
        if (component->starts_with('.')) return true;
    }
    return false;
}

ClassifiedEvent FSEventClassifier::classifyPath(const events::FileEvent& event, const std::string& path) const {
    const URL url = URL::file(path);
    // The look at the disk stays in the URL's cache, so that the item below is built from the same look.
    const auto look = environment_.items.files.resourceValue(url, files::ResourceKey::typeIdentifier);
    const bool isGone = !look && meansNothingThere(look.error());
    const auto named = namedIdentifier(event);
    if (isGone && !named) {
        environment_.items.log.debug(
            [&] { return "dropping fsevent at " + items::quoted(path) + "; No object at path"; });
        return {Kind::dropped, url, nullptr};
    }
    const bool tellsOfRemoval = (event.flags & events::kEventItemRemoved) != 0;
    if (named && tellsOfRemoval && liesInHiddenMonitoredFolder(url)) {
        // Whether it stands there or not: the folder took it out of sight, and only now whoever follows it is told.
        return deletionOf(event, path);
    }
    if (!passes(url)) return {Kind::dropped, url, nullptr};
    if (isGone) {
        // Not a removal: its folder may have moved on, and nothing else will tell of the object.
        if (!tellsOfRemoval) {
            if (auto elsewhere = classifyElsewhere(event, path)) return std::move(*elsewhere);
            // It is on its way, or went after what this event tells. A deletion told now would take along what the
            // client keeps below it, also what left it before, and nothing would bring that back.
            if (event.fileID && environment_.events.tellAgain(*event.fileID)) {
                drop(url, "No object at path");
                return {Kind::dropped, url, nullptr};
            }
        }
        return deletionOf(event, path);
    }
    auto item = itemAt(url);
    // What lies in a package now is removed to clients, and stands there still; so does a file that has other names and
    // is shown under one of those.
    const bool isOutOfSight = tellsOfRemoval && (liesInPackage(url) || hasSeveralNames(url));
    if (item && isNamedBy(*item, event) && !isOutOfSight) return {Kind::changed, url, std::move(item)};
    // Another object has the name of the one that went, or clients see it here no more.
    if (named && tellsOfRemoval) return deletionOf(event, path);
    if (named) {
        if (auto elsewhere = classifyElsewhere(event, path)) return std::move(*elsewhere);
        if (event.fileID) (void)environment_.events.tellAgain(*event.fileID);
    }
    return item ? dropMismatch(url, item->itemIdentifier(), *named) : ClassifiedEvent{Kind::dropped, url, nullptr};
}

/// The object that the identifier names, if it stands at another place below the monitored folders.
std::optional<ClassifiedEvent> FSEventClassifier::classifyElsewhere(const events::FileEvent& event,
                                                                    const std::string& path) const {
    // Asked without a word in the log: that the object is nowhere is as good an answer.
    const items::Environment& items = environment_.items;
    const auto device = TWPFileObjectIdentifier(items).deviceID(items.providerManager.documentStorageURL());
    if (!device) return std::nullopt;
    const auto fileID = event.documentID ? items.generationStore.fileIDForDocumentID(*event.documentID, *device)
                                         : Result<FileID>(*event.fileID);
    if (!fileID) return std::nullopt;
    auto url = items.files.pathOfFileID(*fileID, *device);
    if (!url || url->path() == path || isHiddenBelowRoot(url->path()) || !isBelowOneOf(urls_, *url))
        return std::nullopt;
    if (liesInPackage(*url)) return std::nullopt;
    auto item = itemAt(*url);
    if (!item || !isNamedBy(*item, event)) return std::nullopt;
    return ClassifiedEvent{Kind::changed, std::move(*url), std::move(item)};
}

ClassifiedEvent FSEventClassifier::classifyDocumentIDChange(const std::string& path) const {
    auto& log = environment_.items.log;
    const URL eventURL = URL::file(path);
    const auto change = items::parseDocumentIDChangePath(path);
    if (!change) {
        log.error("can't parse docID path " + items::quoted(path) + "; format expected is " +
                  items::quoted(kDocumentIDPathFormat));
        return {Kind::dropped, eventURL, nullptr};
    }
    const auto identifier = TWPFileObjectIdentifier::fromDocumentID(static_cast<std::uint64_t>(change->documentID));
    if (change->documentID <= 0 || change->documentID > std::numeric_limits<std::uint32_t>::max()) {
        log.error("can't compute url for " + identifier);
        return {Kind::dropped, eventURL, nullptr};
    }
    const auto url = TWPFileObjectIdentifier(environment_.items).fileURLWithItemIdentifier(identifier);
    if (!url) {
        eventURL.cache().setDocumentID(DocumentID{static_cast<std::uint32_t>(change->documentID)});
        return deletion(eventURL);
    }
    if (!passes(*url)) return {Kind::dropped, *url, nullptr};
    auto item = itemAt(*url);
    if (!item) return {Kind::dropped, *url, nullptr};
    if (item->itemIdentifier() != identifier) return dropMismatch(*url, item->itemIdentifier(), identifier);
    return {Kind::changed, *url, std::move(item)};
}

bool FSEventClassifier::liesInHiddenMonitoredFolder(const URL& url) const {
    return std::ranges::any_of(urls_, [&](const URL& folder) {
        return isHiddenBelowRoot(folder.path()) && relationship(folder, url) == Relationship::contains;
    });
}

bool FSEventClassifier::passes(const URL& url) const {
    if (isHiddenBelowRoot(url.path())) {
        drop(url, "URL is hidden");
        return false;
    }
    if (!isBelowOneOf(urls_, url)) {
        drop(url, "URL is not monitored");
        return false;
    }
    return true;
}

/// A monitored folder may lie in one itself.
bool FSEventClassifier::liesInPackage(const URL& url) const {
    for (URL folder = url.deletingLastPathComponent(); isBelowRoot(folder.path());
         folder = folder.deletingLastPathComponent()) {
        if (!environment_.items.files.isFolder(folder)) return true;
    }
    return false;
}

bool FSEventClassifier::hasSeveralNames(const URL& url) const {
    const auto isDirectory = environment_.items.files.resourceValue(url, files::ResourceKey::isDirectory);
    if (!isDirectory || *isDirectory != files::ResourceValue(false)) return false;
    const auto status = environment_.items.files.stat(url);
    return status && status->linkCount > 1;
}

std::shared_ptr<items::LocalItem> FSEventClassifier::itemAt(const URL& url) const {
    auto item = items::LocalItem::initWithURL(environment_.items, url, {});
    if (!item) drop(url, "can't create local item");
    return item;
}

void FSEventClassifier::drop(const URL& url, std::string_view reason) const {
    environment_.items.log.debug([&] { return "dropping fsevent at " + url.text() + "; " + std::string(reason); });
}

ClassifiedEvent FSEventClassifier::dropMismatch(const URL& url, const std::string& found,
                                                const std::string& named) const {
    drop(url, "fileObjectIDs don't match (" + found + " vs " + named + ")");
    return {Kind::dropped, url, nullptr};
}

}  // namespace tarnwell::fs

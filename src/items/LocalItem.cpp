#include "items/LocalItem.h"

#include <cerrno>
#include <charconv>
#include <sstream>
#include <utility>

#include "hostframework/TagCodec.h"
#include "items/ItemAttributes.h"
#include "items/ResourceReaders.h"
#include "items/TWPFileObjectIdentifier.h"
#include "items/TrashFolder.h"
#include "platform/mime/TypeDatabase.h"

namespace tarnwell::items {

namespace {

using files::ResourceKey;
using hostframework::kRootContainer;

constexpr std::uint32_t kTypeMask = 0xF000;
constexpr std::uint32_t kTypeDirectory = 0x4000;
constexpr std::uint64_t kCanRead = 0x1;
constexpr std::uint64_t kCanAddSubItems = 0x2;
constexpr std::uint64_t kCanDoAll = 0x3F;

bool namesAppLibrary(std::string_view identifier) { return identifier.starts_with('#'); }

std::string_view parentPath(const URL& url) {
    std::string_view path = url.path();
    auto slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view{} : path.substr(0, slash);
}

std::optional<std::int64_t> wholeInteger(std::string_view text) {
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) return std::nullopt;
    }
    std::int64_t value = 0;
    auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (problem != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

/// The folder above `stored` below the library; nothing for text that leads out of the library.
std::optional<URL> folderBelow(const URL& library, const std::string& stored) {
    if (stored.empty() || stored.front() == '/' || stored.find('\0') != std::string::npos) return std::nullopt;
    std::string padded = "/" + stored + "/";
    if (padded.find("/../") != std::string::npos) return std::nullopt;
    URL folder = URL::file(library.path() + "/" + stored).deletingLastPathComponent();
    if (relationship(library, folder) == Relationship::other) return std::nullopt;
    return folder;
}

struct Made final : LocalItem {
    Made(const Environment& environment, const URL& url) : LocalItem(environment, url) {}
    using LocalItem::build;
};

}  // namespace

LocalItem::LocalItem(const Environment& environment, const URL& url) : environment_(environment), fileURL_(url) {}

std::shared_ptr<LocalItem> LocalItem::initWithURL(const Environment& environment, const URL& url,
                                                  const Arguments& arguments) {
    auto item = std::make_shared<Made>(environment, url);
    if (!item->build(arguments)) return nullptr;
    return item;
}

std::shared_ptr<LocalItem> LocalItem::initWithFileIdentifier(const Environment& environment, std::uint64_t fileID) {
    auto url = TWPFileObjectIdentifier(environment).fileURLWithFileIdentifier(fileID);
    return url ? initWithURL(environment, *url, Arguments{}) : nullptr;
}

bool LocalItem::build(const Arguments& arguments) {
    if (!buildNames(arguments)) return false;
    documentSize_ = numberResource(environment_, fileURL_, ResourceKey::fileSize);
    creationDate_ = dateResource(environment_, fileURL_, ResourceKey::creationDate);
    contentModificationDate_ = dateResource(environment_, fileURL_, ResourceKey::contentModificationDate);
    buildCapabilities();
    // A date is never bytes, so there is no version identifier and the host detects changes itself.
    versionIdentifier_ = bytesResource(environment_, fileURL_, ResourceKey::contentModificationDate);
    buildAttributes();
    buildFileID();
    if (std::string_view(itemIdentifier_).starts_with("did="))
        docID_ = wholeInteger(std::string_view(itemIdentifier_).substr(4));
    buildDomain(arguments);
    return true;
}

/// Identifier, parent, name and type: what no item goes without.
bool LocalItem::buildNames(const Arguments& arguments) {
    TWPFileObjectIdentifier identifiers(environment_);
    ProgramLog& log = environment_.log;

    auto identifier = arguments.customItemID ? arguments.customItemID : identifiers.itemIdentifier(fileURL_);
    if (!identifier) {
        log.debug("can't create an item without an ID");
        return false;
    }
    itemIdentifier_ = std::move(*identifier);

    if (itemIdentifier_ == kRootContainer) {
        parentItemIdentifier_ = kRootContainer;
    } else {
        auto parent = arguments.customParentItemID;
        if (!parent) parent = identifiers.itemIdentifier(fileURL_.deletingLastPathComponent());
        if (!parent) {
            log.error("can't create an item without a parent ID (itemIdentifier: " + itemIdentifier_ + ")");
            return false;
        }
        parentItemIdentifier_ = std::move(*parent);
        isTrashed_ = liesInTrash(parentPath(fileURL_));
    }

    auto name = arguments.customFilename;
    if (!name) name = stringResource(environment_, fileURL_, ResourceKey::name);
    if (!name) {
        log.error("can't create an item without a filename (itemIdentifier: " + itemIdentifier_ +
                  ", parentItemIdentifier: " + parentItemIdentifier_ + ")");
        return false;
    }
    filename_ = std::move(*name);

    auto type = stringResource(environment_, fileURL_, ResourceKey::typeIdentifier);
    if (!type) {
        log.error("can't create an item without a type identifier (itemIdentifier: " + itemIdentifier_ +
                  ", parentItemIdentifier: " + parentItemIdentifier_ + ", filename: " + filename_ + ")");
        return false;
    }
    typeIdentifier_ = std::move(*type);

    // The root counts as its own parent, yet a storage root that happens to be called so is not inside itself.
    if (filename_ == "Inbox" && isFolder() && itemIdentifier_ != kRootContainer &&
        (parentItemIdentifier_ == kRootContainer || namesAppLibrary(parentItemIdentifier_))) {
        log.debug("can't create an item for the \"Inbox\" directory");
        return false;
    }
    return true;
}

void LocalItem::buildCapabilities() {
    capabilities_ = kCanRead;
    if (itemIdentifier_ == kRootContainer) return;
    if (!boolResource(environment_, fileURL_, ResourceKey::isWritable).value_or(false)) return;
    capabilities_ = namesAppLibrary(itemIdentifier_) ? kCanRead | kCanAddSubItems : kCanDoAll;
}

std::vector<std::string> LocalItem::keptAttributeNames() {
    return {xattrTagDataName, xattrFavoriteRankName, xattrLastUsedDateName, xattrTrashPutBackName, xattrTrashDateName};
}

void LocalItem::buildAttributes() {
    ProgramLog& log = environment_.log;
    if (auto bytes = valueOfAttribute(environment_, xattrLastUsedDateName, fileURL_))
        lastUsedDate_ = decodeDate(log, *bytes);

    if (auto bytes = valueOfAttribute(environment_, xattrTagDataName, fileURL_)) {
        if (auto labels = decodeStrings(log, *bytes)) {
            std::vector<hostframework::Tag> tags;
            tags.reserve(labels->size());
            for (std::string& label : *labels) tags.push_back({std::move(label), std::nullopt});
            tagData_ = hostframework::TagCodec::encode(tags);
        }
    }

    if (auto bytes = valueOfAttribute(environment_, xattrFavoriteRankName, fileURL_)) {
        if (auto rank = decodeNumber(log, *bytes)) favoriteRank_ = rank->asUnsigned();
    }
}

void LocalItem::buildFileID() {
    auto status = environment_.files.stat(fileURL_);
    if (!status) {
        bool gone = status.error().is(ErrorDomain::posix, ENOENT);
        environment_.log.byExpectation(
            gone ? ProgramLog::Expectation::expected : ProgramLog::Expectation::unexpected,
            [&] { return "can't find fileID for item " + quoted(fileURL_.path()) + "; " + describe(status.error()); });
        return;
    }
    fileID_ = status->fileID;
    // What was a folder when its type was read may be a file by now.
    if (!isFolder() || (status->mode & kTypeMask) != kTypeDirectory) return;
    if (status->linkCount < 2) fatal("link count of a folder is below 2");
    childItemCount_ = static_cast<std::uint16_t>(status->linkCount - 2);
}

void LocalItem::buildDomain(const Arguments& arguments) {
    registry::BundleRecordPtr record;
    if (arguments.hasSearchDomainIdentifier && environment_.appLibraries != nullptr)
        record = environment_.appLibraries->recordForURL(fileURL_, Relationship::contains);
    if (record) {
        searchDomainIdentifier_ = record->bundleIdentifier();
        appContainerBundleIdentifier_ = searchDomainIdentifier_;
    } else {
        appContainerBundleIdentifier_ = arguments.bundleIdentifier;
    }
}

bool LocalItem::isFolder() const { return typeIdentifier_ == mime::kFolderType; }

std::string LocalItem::description() const {
    std::ostringstream text;
    text << '<' << className() << ':' << static_cast<const void*>(this) << ' ' << itemIdentifier_ << " name:\""
         << filename_ << "\" parent:" << (parentItemIdentifier_ == kRootContainer ? "root" : parentItemIdentifier_)
         << " type:" << typeIdentifier_;
    if (isTrashed_) text << " trashed";
    if (favoriteRank_) text << " favorite:" << *favoriteRank_;
    text << '>';
    return text.str();
}

std::optional<URL> LocalItem::putBackURL() const {
    {
        std::lock_guard lock(putBackMutex_);
        if (putBackComputed_) return putBackURL_;
    }
    auto computed = computePutBackURL();
    std::lock_guard lock(putBackMutex_);
    if (!putBackComputed_) {  // another thread, or a setter, may have been quicker
        putBackComputed_ = true;
        putBackURL_ = std::move(computed);
    }
    return putBackURL_;
}

void LocalItem::setPutBackURL(std::optional<URL> url) {
    std::lock_guard lock(putBackMutex_);
    putBackComputed_ = true;
    putBackURL_ = std::move(url);
}

std::optional<URL> LocalItem::computePutBackURL() const {
    ProgramLog& log = environment_.log;
    // A URL without remembered values: what counts is the attribute now, not when the item was made.
    const URL now = URL::file(fileURL_.path());
    std::optional<std::string> stored;
    if (auto bytes = valueOfAttribute(environment_, xattrTrashPutBackName, now)) stored = decodeString(log, *bytes);
    if (!stored) {
        log.error("couldn't find putback xattr for " + description());
        return std::nullopt;
    }
    auto library = fetchAppLibraryItem();
    if (!library) {
        log.error("couldn't compute putback url");
        return std::nullopt;
    }
    log.debug([&] { return "putback: '" + *stored + "' library: '" + library->description() + "'"; });
    // The text lies on the file, where anyone who may write the file can put anything.
    auto folder = folderBelow(library->fileURL(), *stored);
    if (!folder) log.error("couldn't compute putback url");
    return folder;
}

std::shared_ptr<LocalAppLibraryItem> LocalItem::fetchAppLibraryItem() const {
    if (environment_.appLibraries == nullptr) return nullptr;
    auto record = environment_.appLibraries->recordForURL(fileURL_, Relationship::contains);
    return record ? LocalAppLibraryItem::initFrom(environment_, *record) : nullptr;
}

}  // namespace tarnwell::items

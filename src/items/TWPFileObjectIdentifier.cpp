#include "items/TWPFileObjectIdentifier.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <limits>
#include <memory>
#include <thread>

#include "hostframework/ItemIdentifier.h"
#include "items/TarnwellError.h"

namespace tarnwell::items {

namespace {

using files::ResourceKey;
using log::Level;

constexpr std::uint32_t kTypeMask = 0xF000;
constexpr std::uint32_t kTypeRegular = 0x8000;
constexpr std::uint32_t kTypeDirectory = 0x4000;
constexpr int kDocumentRetries = 5;
constexpr std::chrono::milliseconds kDocumentRest{1};

std::string numbered(std::string_view prefix, std::uint64_t number) {
    std::array<char, 32> text;
    std::memcpy(text.data(), prefix.data(), prefix.size());
    auto end = std::to_chars(text.data() + prefix.size(), text.data() + text.size(), number).ptr;
    return {text.data(), end};
}

/// The path with its ".." components taken away together with what they undo.
std::string standardizedPath(const URL& url) {
    std::vector<std::string> kept;
    for (const std::string& component : url.pathComponents()) {
        if (component == "/") continue;
        if (component != "..")
            kept.push_back(component);
        else if (!kept.empty())
            kept.pop_back();
    }
    std::string path;
    for (const std::string& component : kept) path.append("/").append(component);
    return path.empty() ? "/" : path;
}

/// The signed decimal number that the text begins with, after white space; the nearest one for a number out of range, 0
/// for text that begins with none.
std::int64_t leadingInteger(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    bool negative = text.starts_with('-');
    if (text.starts_with('+')) text.remove_prefix(1);
    if (text.starts_with('-') && !negative) return 0;  // "+-"
    std::int64_t value = 0;
    auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (problem == std::errc::result_out_of_range)
        return negative ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
    return value;
}

/// File IDs use all 64 bits, so the upper half of them is read as what it is, where a signed number would end.
std::uint64_t fileIDNumber(std::string_view text) {
    std::uint64_t value = 0;
    auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (problem == std::errc{} && end == text.data() + text.size()) return value;
    return static_cast<std::uint64_t>(leadingInteger(text));
}

bool mayPass(const Error& error) {
    return error.is(ErrorDomain::posix, EAGAIN) || error.is(ErrorDomain::posix, EBUSY) ||
           error.is(ErrorDomain::posix, ESTALE);
}

Level levelFor(const Error& error) {
    return error.is(ErrorDomain::generalFile, kNoSuchFileOnRead) ? Level::debug : Level::error;
}

}  // namespace

std::string TWPFileObjectIdentifier::fromFileID(std::uint64_t fileID) { return numbered("fid=", fileID); }

std::string TWPFileObjectIdentifier::fromDocumentID(std::uint64_t documentID) { return numbered("did=", documentID); }

std::optional<std::string> TWPFileObjectIdentifier::fromAppLibraryDataContainerURL(const URL& url) const {
    registry::BundleRecordPtr record;
    if (environment_.appLibraries != nullptr) record = environment_.appLibraries->recordForURL(url, Relationship::same);
    if (record) return appLibraryIdentifier(*record);
    environment_.log.raw(Level::error, "can't find bundle proxy at " + url.text());
    return std::nullopt;
}

Result<DeviceID> TWPFileObjectIdentifier::deviceIDWithError(const URL& url) const {
    auto object = environment_.files.openEventOnly(url);
    if (!object) return failure(errorWithPOSIXCode(static_cast<std::int32_t>(object.error().code)));
    auto device = environment_.files.deviceID(*object);
    if (!device) return failure(errorWithPOSIXCode(static_cast<std::int32_t>(device.error().code)));
    return *device;
}

std::optional<DeviceID> TWPFileObjectIdentifier::deviceID(const URL& url) const {
    auto device = deviceIDWithError(url);
    return device ? std::optional(*device) : std::nullopt;
}

std::optional<std::string> TWPFileObjectIdentifier::itemIdentifier(const URL& url) const {
    if (!url.isFileURL()) {
        environment_.log.raw(Level::error, "can't compute file object identifier if not a file URL");
        return std::nullopt;
    }
    switch (environment_.providerManager.relationshipToDocumentStorage(url)) {
        case Relationship::contains:
            break;
        case Relationship::same:
            return hostframework::kRootContainer;
        case Relationship::other: {
            auto found = environment_.appLibraries != nullptr ? environment_.appLibraries->relationshipToRoots(url)
                                                              : Relationship::other;
            if (found == Relationship::same) return fromAppLibraryDataContainerURL(url);
            if (found == Relationship::contains) break;
            if (environment_.log.debugEnabled())
                environment_.log.raw(Level::debug, "can't compute file object identifier because " +
                                                       quoted(standardizedPath(url)) +
                                                       " is not part of Tarnwell Storage");
            return std::nullopt;
        }
    }
    return numberedIdentifier(url, environment_.files.isFolder(url) ? ResourceKey::fileID : ResourceKey::documentID);
}

/// The identifier from the number that the URL's resource values hold, else by asking the object itself.
std::optional<std::string> TWPFileObjectIdentifier::numberedIdentifier(const URL& url, ResourceKey key) const {
    bool folder = key == ResourceKey::fileID;
    auto value = environment_.files.resourceValue(url, key);
    if (!value) {
        environment_.log.raw(levelFor(value.error()), std::string("can't get ") + (folder ? "file ID" : "doc ID") +
                                                          " for " + quoted(url.path()) + "; " +
                                                          describe(value.error()));
        return std::nullopt;
    }
    if (std::holds_alternative<std::monostate>(*value)) return identifierByAsking(url);
    const auto* number = std::get_if<std::uint64_t>(&*value);
    if (number == nullptr) fatal(folder ? "unexpected class for file ID" : "unexpected class for doc ID");
    return folder ? fromFileID(*number) : fromDocumentID(*number);
}

std::optional<std::string> TWPFileObjectIdentifier::identifierByAsking(const URL& url) const {
    auto package = environment_.files.resourceValue(url, ResourceKey::isPackage);
    if (!package) {
        environment_.log.raw(
            Level::error, "can't tell whether " + quoted(url.path()) + " is a package; " + describe(package.error()));
        return std::nullopt;
    }
    auto object = environment_.files.openEventOnly(url);
    if (!object) {
        environment_.log.raw(Level::error,
                             "can't open file at " + quoted(url.path()) + "; " + std::to_string(object.error().code));
        return std::nullopt;
    }
    auto attributes = environment_.files.attributeList(*object);
    if (!attributes) {
        environment_.log.raw(Level::error, "can't get attribute list for " + quoted(url.path()) + "; " +
                                               std::to_string(attributes.error().code));
        return std::nullopt;
    }
    std::uint32_t type = attributes->mode & kTypeMask;
    const bool* isPackage = std::get_if<bool>(&*package);
    if (type == kTypeRegular || (type == kTypeDirectory && isPackage != nullptr && *isPackage))
        return documentIdentifier(url, *object, attributes->documentID);

    // The number after "fid=" is the address of the boxed file ID: clients know identifiers of this path as ones that
    // lead nowhere. Only the value remembered on the URL is the object's own.
    auto boxed = std::make_shared<const std::uint64_t>(raw(attributes->fileID));
    remember(url, ResourceKey::fileID, *boxed);
    return fromFileID(reinterpret_cast<std::uintptr_t>(boxed.get()));
}

std::optional<std::string> TWPFileObjectIdentifier::documentIdentifier(const URL& url, const Descriptor& object,
                                                                       std::optional<DocumentID> known) const {
    if (!known) {
        auto allocated = environment_.generationStore.getOrAllocateDocumentID(object);
        if (!allocated) {
            environment_.log.raw(Level::error, "can't get permanent storage for " + quoted(url.path()));
            return std::nullopt;
        }
        known = *allocated;
    }
    remember(url, ResourceKey::documentID, raw(*known));
    return fromDocumentID(raw(*known));
}

void TWPFileObjectIdentifier::remember(const URL& url, ResourceKey key, std::uint64_t value) const {
    auto kept = environment_.files.setResourceValue(url, key, value);
    if (kept || !environment_.log.debugEnabled()) return;
    environment_.log.raw(Level::debug, "can't set resource value " + std::to_string(value) + " for key " +
                                           quoted(files::nameOf(key)) + "; " + describe(kept.error()));
}

std::optional<DeviceID> TWPFileObjectIdentifier::storageDevice(const URL& root) const {
    auto device = deviceIDWithError(root);
    if (device) return *device;
    environment_.log.raw(Level::error,
                         "can't get device ID for " + quoted(root.path()) + "; " + std::to_string(device.error().code));
    return std::nullopt;
}

std::optional<URL> TWPFileObjectIdentifier::fileURLWithItemIdentifier(const std::string& identifier) const {
    const URL root = environment_.providerManager.documentStorageURL();
    if (identifier == hostframework::kRootContainer) return root;
    auto pieces = std::count(identifier.begin(), identifier.end(), '=') + 1;
    if (pieces != 2) {
        environment_.log.raw(Level::error,
                             "invalid identifier; identifier should have 2 components, not " + std::to_string(pieces));
        return std::nullopt;
    }
    std::string_view host = std::string_view(identifier).substr(0, identifier.find('='));
    std::string_view number = std::string_view(identifier).substr(host.size() + 1);
    if (host != "did" && host != "fid") {
        environment_.log.raw(Level::error, "invalid host for identifier " + quoted(identifier));
        return std::nullopt;
    }
    auto device = storageDevice(root);
    if (!device) return std::nullopt;
    if (host == "fid") return fileURLWithFileIdentifier(fileIDNumber(number), *device);
    auto fileID = fileIDOfDocument(leadingInteger(number), *device);
    if (!fileID) return std::nullopt;
    return fileURLWithFileIdentifier(raw(*fileID), *device);
}

std::optional<FileID> TWPFileObjectIdentifier::fileIDOfDocument(std::int64_t number, DeviceID device) const {
    // A number that no document can have is not cut to one that another document has.
    bool possible = number > 0 && number <= std::numeric_limits<std::uint32_t>::max();
    for (int retries = 0;; ++retries) {
        Result<FileID> fileID = failure(errorWithPOSIXCode(ENOENT));
        if (possible)
            fileID = environment_.generationStore.fileIDForDocumentID(DocumentID{static_cast<std::uint32_t>(number)},
                                                                      device);
        if (fileID) return *fileID;
        if (retries == kDocumentRetries) {
            environment_.log.raw(Level::debug,
                                 "can't resolve doc ID " + quoted(std::to_string(number)) + " after five attempts");
            return std::nullopt;
        }
        if (!mayPass(fileID.error())) {
            environment_.log.raw(Level::error, "can't resolve doc ID " + quoted(std::to_string(number)) + "; " +
                                                   std::to_string(fileID.error().code));
            return std::nullopt;
        }
        environment_.log.raw(Level::debug, "doc ID resolution failed with errno(" +
                                               std::to_string(fileID.error().code) +
                                               "), let's try again after resting");
        std::this_thread::sleep_for(kDocumentRest);
    }
}

std::optional<URL> TWPFileObjectIdentifier::fileURLWithFileIdentifier(std::uint64_t fileID) const {
    auto device = storageDevice(environment_.providerManager.documentStorageURL());
    if (!device) return std::nullopt;
    return fileURLWithFileIdentifier(fileID, *device);
}

std::optional<URL> TWPFileObjectIdentifier::fileURLWithFileIdentifier(std::uint64_t fileID, DeviceID device) const {
    auto url = environment_.files.pathOfFileID(FileID{fileID}, device);
    if (url) return std::move(*url);
    if (environment_.log.debugEnabled())
        environment_.log.raw(Level::debug, "can't resolve path matching file ID " +
                                               quoted(std::to_string(static_cast<std::int64_t>(fileID))) + "; " +
                                               std::to_string(url.error().code));
    return std::nullopt;
}

void TWPFileObjectIdentifier::registerOperations(hostframework::ObjectRuntime& runtime,
                                                 const Environment& environment) {
    const std::string name = "TWPFileObjectIdentifier";
    TWPFileObjectIdentifier identifiers(environment);
    runtime.registerOperation(name, "fromFileID:", [](const std::any& argument) -> std::any {
        auto number = std::any_cast<std::uint64_t>(&argument);
        return number != nullptr ? std::any(fromFileID(*number)) : std::any();
    });
    runtime.registerOperation(name, "fromDocumentID:", [](const std::any& argument) -> std::any {
        auto number = std::any_cast<std::uint64_t>(&argument);
        return number != nullptr ? std::any(fromDocumentID(*number)) : std::any();
    });
    runtime.registerOperation(
        name, "fromAppLibraryDataContainerURL:", [identifiers](const std::any& argument) -> std::any {
            auto url = std::any_cast<URL>(&argument);
            return url != nullptr ? std::any(identifiers.fromAppLibraryDataContainerURL(*url)) : std::any();
        });
    runtime.registerOperation(name, "fileURLWithItemIdentifier:", [identifiers](const std::any& argument) -> std::any {
        auto identifier = std::any_cast<std::string>(&argument);
        return identifier != nullptr ? std::any(identifiers.fileURLWithItemIdentifier(*identifier)) : std::any();
    });
    runtime.registerOperation(name, "fileURLWithFileIdentifier:", [identifiers](const std::any& argument) -> std::any {
        auto number = std::any_cast<std::uint64_t>(&argument);
        return number != nullptr ? std::any(identifiers.fileURLWithFileIdentifier(*number)) : std::any();
    });
}

std::string appLibraryIdentifier(const registry::BundleRecord& record) {
    return "#" + record.bundleIdentifier().value_or("(null)");
}

}  // namespace tarnwell::items

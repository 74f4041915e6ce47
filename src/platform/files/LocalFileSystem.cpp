#include "platform/files/LocalFileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/files/FileKinds.h"
#include "platform/files/Snapshots.h"

namespace tarnwell::files {

namespace {

constexpr std::uint32_t kMostEntries = 65'535;
/// An object that keeps moving away while it is looked at is taken as it was seen last.
constexpr int kMostLooks = 3;

bool isAbsence(const Error& error) {
    return error.domain == ErrorDomain::posix &&
           (error.code == ENOENT || error.code == ENOTDIR || error.code == ELOOP || error.code == EXDEV);
}

Result<std::size_t> attributeAt(const Place& place, const std::string& name, std::span<std::uint8_t> buffer) {
    if (place.relative.empty()) return filesystem::getAttributeOf(place.root->directory.get(), name, buffer);
    auto parent = filesystem::openParent(place);
    if (!parent) return failure(parent.error());
    return filesystem::getAttributeAt(parent->folder.get(), parent->name.c_str(), name, buffer);
}

}  // namespace

Error asReadError(const Error& error) {
    return isAbsence(error) ? Error{ErrorDomain::generalFile, kNoSuchFileOnRead, {}} : error;
}

std::string_view nameOf(ResourceKey key) {
    static constexpr std::array<std::string_view, 14> kNames = {"parentDirectoryURL",
                                                                "name",
                                                                "localizedName",
                                                                "typeIdentifier",
                                                                "fileSize",
                                                                "creationDate",
                                                                "contentModificationDate",
                                                                "isReadable",
                                                                "isWritable",
                                                                "isHidden",
                                                                "isDirectory",
                                                                "isPackage",
                                                                "fileID",
                                                                "documentID"};
    return kNames[static_cast<std::size_t>(key)];
}

LocalFileSystem::LocalFileSystem(const Roots& roots, store::Store& store, Comparer& comparer, mime::TypeDatabase& types)
    : roots_(roots), store_(store), comparer_(comparer), types_(types) {}

Result<Place> LocalFileSystem::placeOf(const URL& url) const {
    if (!url.isFileURL()) return failure(posixError(ENOENT));
    auto place = roots_.locate(url.path());
    if (!place) return failure(posixError(ENOENT));
    return std::move(*place);
}

Result<const ResourceSnapshot*> LocalFileSystem::snapshotOf(const URL& url) {
    if (const ResourceSnapshot* kept = url.cache().snapshot()) return kept;
    auto place = placeOf(url);
    if (!place) return failure(place.error());
    if (place->relative.empty()) {
        auto snapshot = makeRootSnapshot(*place->root);
        if (!snapshot) return failure(snapshot.error());
        return url.cache().keep(std::move(*snapshot));
    }
    for (int attempt = 1;; ++attempt) {
        auto parent = filesystem::openParent(*place);
        if (!parent) return failure(parent.error());
        auto status = filesystem::statusAt(parent->folder.get(), parent->name.c_str());
        if (!status) return failure(status.error());
        auto mount = filesystem::mountStateOf(parent->folder.get());
        auto snapshot = makeSnapshot(types_, parent->folder.get(), mount.value_or(filesystem::MountState::writable),
                                     parent->name.c_str(), *status, Bareness::unknown);
        if (!snapshot) return failure(snapshot.error());
        if (rememberIdentities(url, *place, parent->folder.get(), *status, **snapshot) || attempt == kMostLooks) {
            return url.cache().keep(std::move(*snapshot));
        }
    }
}

/// Looked up one after the other by path, an object, what it is known by and its folder might be of different moments.
/// False when the path leads elsewhere by now.
bool LocalFileSystem::rememberIdentities(const URL& url, const Place& place, int folder,
                                         const filesystem::Status& status, ResourceSnapshot& snapshot) {
    const auto row = comparer_.rowAt(place, status);
    if (!row) return true;  // what cannot be known now is asked for by itself
    if (!comparer_.isObject(*row, status)) return false;
    const std::size_t slash = place.relative.rfind('/');
    if (slash != std::string::npos) {
        const auto around = filesystem::statusOf(folder);
        const auto above = around ? comparer_.rowAt(Place{place.root, place.relative.substr(0, slash)}, *around)
                                  : failure(around.error());
        if (!above) return true;
        if (!comparer_.isObject(*above, *around)) return false;
        if (!above->package) snapshot.folder = above->fileID;
    }
    rememberNumbers(url.cache(), *row);
    return true;
}

Result<ResourceValue> LocalFileSystem::resourceValue(const URL& url, ResourceKey key) {
    if (key == ResourceKey::parentDirectoryURL) return url.deletingLastPathComponent();
    if (key == ResourceKey::fileID || key == ResourceKey::documentID) {
        bool wantsFile = key == ResourceKey::fileID;
        if (wantsFile && url.cache().fileID()) return ResourceValue(raw(*url.cache().fileID()));
        if (!wantsFile && url.cache().documentID()) {
            return ResourceValue(std::uint64_t{raw(*url.cache().documentID())});
        }
        auto place = placeOf(url);
        auto row = place ? comparer_.rowAt(*place) : Result<store::ObjectRow>(failure(place.error()));
        if (!row) return failure(asReadError(row.error()));
        rememberNumbers(url.cache(), *row);
        if (wantsFile) return ResourceValue(raw(row->fileID));
        if (row->documentID) return ResourceValue(std::uint64_t{raw(*row->documentID)});
        return ResourceValue();
    }
    auto snapshot = snapshotOf(url);
    if (!snapshot) return failure(asReadError(snapshot.error()));
    const ResourceSnapshot& values = **snapshot;
    switch (key) {
        case ResourceKey::name:
        case ResourceKey::localizedName:
            return ResourceValue(values.name ? *values.name : std::string(url.lastPathComponent()));
        case ResourceKey::typeIdentifier:
            return ResourceValue(std::string(values.typeIdentifier));
        case ResourceKey::fileSize:
            return values.kind == FileKind::regular ? ResourceValue(values.size) : ResourceValue();
        case ResourceKey::creationDate:
            return values.creationDate ? ResourceValue(*values.creationDate) : ResourceValue();
        case ResourceKey::contentModificationDate:
            return ResourceValue(values.contentModificationDate);
        case ResourceKey::isReadable:
            return ResourceValue(values.readable);
        case ResourceKey::isWritable:
            return ResourceValue(values.writable);
        case ResourceKey::isHidden:
            return ResourceValue(values.name ? values.name->starts_with('.')
                                             : url.lastPathComponent().starts_with('.'));
        case ResourceKey::isDirectory:
            return ResourceValue(values.kind == FileKind::directory);
        case ResourceKey::isPackage:
            return ResourceValue(values.package);
        default:
            return failure(posixError(EINVAL));
    }
}

Result<void> LocalFileSystem::setResourceValue(const URL& url, ResourceKey key, std::uint64_t value) {
    if (key == ResourceKey::fileID) {
        url.cache().setFileID(FileID{value});
    } else if (key == ResourceKey::documentID && value <= UINT32_MAX) {
        url.cache().setDocumentID(DocumentID{static_cast<std::uint32_t>(value)});
    } else {
        return failure(posixError(EINVAL));
    }
    return {};
}

bool LocalFileSystem::isFolder(const URL& url) {
    if (const ResourceSnapshot* kept = url.cache().snapshot()) {
        return kept->kind != FileKind::regular && !kept->package;
    }
    if (auto known = url.cache().isFolder()) return *known;
    auto place = placeOf(url);
    if (!place) return false;
    auto status = filesystem::statusBeneath(place->root->directory.get(), place->relative);
    if (!status) return false;
    bool package = S_ISDIR(status->mode) && !place->relative.empty() && types_.isPackageName(url.lastPathComponent());
    bool folder = !S_ISREG(status->mode) && !package;
    url.cache().setIsFolder(folder);
    // Whoever asks is going to name the object, by what was found just now.
    if (auto row = comparer_.rowAt(*place, *status)) rememberNumbers(url.cache(), *row);
    return folder;
}

Result<Descriptor> LocalFileSystem::openEventOnly(const URL& url) {
    auto place = placeOf(url);
    if (!place) return failure(place.error());
    // A root is open for as long as the program may ask for it.
    if (place->relative.empty()) return Descriptor::borrowed(place->root->directory.get());
    return filesystem::openBeneath(place->root->directory.get(), place->relative, O_PATH | O_NOFOLLOW);
}

Result<DeviceID> LocalFileSystem::deviceID(const Descriptor& descriptor) {
    if (roots_.isRoot(descriptor.get())) return kRootsDevice;
    auto status = filesystem::statusOf(descriptor.get());
    if (!status) return failure(status.error());
    if (comparer_.isMetDevice(status->device)) return kRootsDevice;
    for (const auto& root : roots_.all()) {
        auto its = filesystem::statusOf(root->directory.get());
        if (its && its->device == status->device) return kRootsDevice;
    }
    auto row = rowOf(descriptor);
    return row ? Result<DeviceID>(kRootsDevice) : failure(posixError(ENOENT));
}

Result<store::ObjectRow> LocalFileSystem::rowOf(const Descriptor& descriptor) {
    std::string link = "/proc/self/fd/" + std::to_string(descriptor.get());
    std::array<char, PATH_MAX + 1> buffer;
    ssize_t length = readlink(link.c_str(), buffer.data(), buffer.size() - 1);
    if (length < 0) {
        int code = errno;
        return failure(posixError(code));
    }
    URL url = roots_.urlForRealPath(std::string_view(buffer.data(), static_cast<std::size_t>(length)));
    auto place = roots_.locate(url.path());
    if (!place) return failure(posixError(ENOENT));
    auto row = comparer_.rowAt(*place);
    if (!row) return row;
    auto status = filesystem::statusOf(descriptor.get());
    if (!status) return failure(status.error());
    // The path was told by the kernel, but the object may have moved since: only the same object counts.
    if (row->identity.inode != status->inode || row->identity.birth != status->birth)
        return failure(posixError(ESTALE));
    return row;
}

Result<ObjectAttributes> LocalFileSystem::attributeList(const Descriptor& descriptor) {
    auto status = filesystem::statusOf(descriptor.get());
    if (!status) return failure(status.error());
    auto row = rowOf(descriptor);
    if (!row) return failure(row.error());
    return ObjectAttributes{status->mode, row->documentID, row->fileID};
}

Result<URL> LocalFileSystem::locate(const store::ObjectRow& row, const Place& place) {
    if (place.relative.empty()) {
        if (!comparer_.standsAt(row, place)) return failure(posixError(ENOENT));
        URL url = URL::file(place.root->name);
        url.cache().setFileID(row.fileID);
        return url;
    }
    auto parent = filesystem::openParent(place);
    if (!parent) return failure(parent.error());
    auto status = filesystem::statusAt(parent->folder.get(), parent->name.c_str());
    if (!status) return failure(status.error());
    if (!comparer_.isObject(row, *status)) return failure(posixError(ENOENT));
    auto mount = filesystem::mountStateOf(parent->folder.get());
    auto snapshot = makeSnapshot(types_, parent->folder.get(), mount.value_or(filesystem::MountState::writable),
                                 parent->name.c_str(), *status, barenessOf(row, *status));
    if (!snapshot) return failure(snapshot.error());
    if (row.isDirectory() && row.listed != 0 && row.listed == status->changed) (*snapshot)->entryCount = row.entries;
    URL url = URL::file(place.root->name + "/" + place.relative);
    rememberNumbers(url.cache(), row);
    url.cache().keep(std::move(*snapshot));
    if (auto folder = filesystem::statusOf(parent->folder.get())) {
        // The folder was looked at as well, which its identifier needs.
        auto cache = std::make_shared<ResourceCache>();
        store::Session session(store_);
        const store::FolderNode* node = session.index().folderNode(row.parent);
        if (node != nullptr && node->identity.inode == folder->inode && node->identity.birth == folder->birth) {
            cache->setFileID(FileID{row.parent});
            if (node->documentID) cache->setDocumentID(*node->documentID);
            cache->setIsFolder(!node->package);
            url.cache().setParent(std::move(cache));
        }
    }
    return url;
}

void LocalFileSystem::handOver(FileID fileID, const URL& url) {
    HandedOver& slot = slotOf(fileID);
    std::lock_guard lock(slot.mutex);
    slot.fileID = fileID;
    slot.url = url;
    slot.until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1);
}

std::optional<URL> LocalFileSystem::takeHandedOver(FileID fileID) {
    HandedOver& slot = slotOf(fileID);
    std::lock_guard lock(slot.mutex);
    if (!slot.url || slot.fileID != fileID) return std::nullopt;
    bool good = std::chrono::steady_clock::now() < slot.until;
    std::optional<URL> url;
    if (good) url.swap(slot.url);
    slot.url.reset();
    return url;
}

Result<URL> LocalFileSystem::pathOfFileID(FileID fileID, DeviceID device) {
    if (device != kRootsDevice) return failure(posixError(ENODEV));
    if (auto handed = takeHandedOver(fileID)) return std::move(*handed);
    for (int attempt = 0; attempt < 2; ++attempt) {
        std::optional<store::ObjectRow> row;
        std::optional<Place> place;
        {
            store::Session session(store_);
            row = session.index().byFileID(fileID);
            if (row) place = comparer_.placeOf(session, *row);
            if (auto checked = session.check(); !checked) return failure(checked.error());
        }
        // An ID that no row carries was never given to an object that may still live.
        if (!row) return failure(posixError(ENOENT));
        if (place && row->state == store::ObjectState::live) {
            auto url = locate(*row, *place);
            if (url || !isAbsence(url.error())) return url;
        }
        if (attempt == 0) {
            if (auto compared = comparer_.compare({}, Detail::names); !compared) return failure(compared.error());
        }
    }
    return failure(posixError(ENOENT));
}

Result<std::uint32_t> LocalFileSystem::entryCountOf(const Place& place) {
    auto folder = filesystem::openBeneath(place.root->directory.get(), place.relative, O_RDONLY | O_DIRECTORY);
    if (!folder) {
        // A folder that this process may not list has nothing to show; what was known of it may be wrong by now.
        return folder.error().is(ErrorDomain::posix, EACCES) ? Result<std::uint32_t>(0) : failure(folder.error());
    }
    return filesystem::countEntries(folder->get(), kMostEntries);
}

Result<FileStatus> LocalFileSystem::stat(const URL& url) {
    const ResourceSnapshot* kept = url.cache().snapshot();
    auto keptID = url.cache().fileID();
    if (kept != nullptr && keptID && kept->isOwnTarget) {
        // The walk looked at this very object a moment ago.
        if (kept->kind != FileKind::directory) return FileStatus{*keptID, kept->mode, kept->links, kept->size};
        if (kept->entryCount) {
            return FileStatus{*keptID, kept->mode, std::min(*kept->entryCount, kMostEntries) + 2, kept->size};
        }
    }
    auto place = placeOf(url);
    if (!place) return failure(place.error());
    auto status = filesystem::statusBeneath(place->root->directory.get(), place->relative);
    if (!status) return failure(status.error());
    if (S_ISLNK(status->mode)) {
        place = filesystem::followLinks(roots_, *place);
        if (!place) return failure(place.error());
        status = filesystem::statusBeneath(place->root->directory.get(), place->relative);
        if (!status) return failure(status.error());
    }
    auto row = comparer_.rowAt(*place, *status);
    if (!row) return failure(row.error());
    FileStatus answer{row->fileID, status->mode, status->links, status->size};
    if (S_ISDIR(status->mode)) {
        auto entries = row->listed != 0 && row->listed == status->changed ? Result<std::uint32_t>(row->entries)
                                                                          : entryCountOf(*place);
        if (!entries) return failure(entries.error());
        answer.linkCount = std::min(*entries, kMostEntries) + 2;
    }
    return answer;
}

bool LocalFileSystem::isReachable(const URL& url) {
    auto place = placeOf(url);
    if (!place) return false;
    // Mostly nothing stands there, or no link.
    const auto status = filesystem::statusBeneath(place->root->directory.get(), place->relative);
    if (!status) return false;
    if (!S_ISLNK(status->mode)) return true;
    auto target = filesystem::followLinks(roots_, *place);
    return target && filesystem::statusBeneath(target->root->directory.get(), target->relative).has_value();
}

Result<std::size_t> LocalFileSystem::getAttribute(const URL& url, const std::string& name,
                                                  std::span<std::uint8_t> buffer) {
    if (const ResourceSnapshot* kept = url.cache().snapshot(); kept != nullptr && kept->attributes) {
        const ResourceSnapshot::Attribute* found = nullptr;
        for (const auto& attribute : *kept->attributes) {
            if (attribute.name == name) found = &attribute;
        }
        if (found == nullptr) return failure(posixError(ENODATA));
        if (found->value) {
            if (!buffer.empty()) {
                if (buffer.size() < found->value->size()) return failure(posixError(ERANGE));
                std::memcpy(buffer.data(), found->value->data(), found->value->size());
            }
            return found->value->size();
        }
    }
    auto place = placeOf(url);
    if (!place) return failure(place.error());
    auto size = attributeAt(*place, name, buffer);
    // No attribute can stand where none can be kept.
    if (!size && size.error().is(ErrorDomain::posix, ENOTSUP)) return failure(posixError(ENODATA));
    return size;
}

Result<void> LocalFileSystem::setAttribute(const Descriptor& descriptor, const std::string& name, ByteView value) {
    return filesystem::setAttributeOf(descriptor.get(), name, value);
}

Result<void> LocalFileSystem::removeAttribute(const Descriptor& descriptor, const std::string& name) {
    auto removed = filesystem::removeAttributeOf(descriptor.get(), name);
    // No attribute can stand where none can be kept.
    if (!removed && removed.error().is(ErrorDomain::posix, ENOTSUP)) return failure(posixError(ENODATA));
    return removed;
}

Result<std::unique_ptr<DirectoryWalker>> LocalFileSystem::walk(const URL& folder, unsigned options,
                                                               WalkErrorHandler errorHandler) {
    auto place = placeOf(folder);
    if (!place) return failure(place.error());
    auto folderNow = OpenedFolder::open(*place);
    if (!folderNow) return failure(folderNow.error());
    auto row = comparer_.comparedFolder(*place, folderNow->status);
    if (!row) return failure(row.error());
    // Where another folder took the place meanwhile, the walker opens that one.
    std::optional<OpenedFolder> opened;
    if (comparer_.isObject(*row, folderNow->status)) {
        // A folder that was read may be searched; of any other that has to be found out.
        if (!comparer_.isAsListed(*row, folderNow->status)) {
            if (auto searchable = folderNow->checkSearchable(); !searchable) return failure(searchable.error());
        }
        opened = std::move(*folderNow);
    }
    return std::make_unique<IndexWalker>(comparer_, store_, types_, positions_, std::move(*place), folder.path(),
                                         std::move(*row), std::move(opened), options, std::move(errorHandler));
}

Result<void> LocalFileSystem::createDirectory(const URL& url) {
    auto place = placeOf(url);
    if (!place) return failure(place.error());
    std::size_t next = 0;
    std::string parent;
    while (next < place->relative.size()) {
        std::size_t slash = std::min(place->relative.find('/', next), place->relative.size());
        std::string name = place->relative.substr(next, slash - next);
        auto folder = filesystem::openBeneath(place->root->directory.get(), parent, O_PATH | O_DIRECTORY);
        if (!folder) return failure(folder.error());
        if (mkdirat(folder->get(), name.c_str(), 0777) != 0 && errno != EEXIST) {
            int code = errno;
            return failure(posixError(code));
        }
        parent = place->relative.substr(0, slash);
        next = slash + 1;
    }
    auto made = filesystem::openBeneath(place->root->directory.get(), place->relative, O_PATH | O_DIRECTORY);
    return made ? Result<void>() : failure(made.error());
}

Result<DocumentID> IndexGenerationStore::getOrAllocateDocumentID(const Descriptor& descriptor) {
    auto row = files_.rowOf(descriptor);
    if (!row) return failure(row.error());
    if (row->documentID) return *row->documentID;
    store::Session session(store_);
    session.write();
    auto current = session.index().byFileID(row->fileID);
    if (!current) return failure(posixError(ESTALE));
    if (!current->documentID) {
        current->documentID = session.numbers().nextDocument();
        if (current->visible) session.journal().recordChange(*current, store::kChangeAttributes);
        session.index().update(*current);
    }
    DocumentID allocated = *current->documentID;
    auto committed = session.commit();
    return committed ? Result<DocumentID>(allocated) : failure(committed.error());
}

Result<std::optional<DocumentID>> IndexGenerationStore::permanentStorage(const URL& url) {
    // A walk or a look-up that put the numbers into the URL compared the object with the index for it.
    if (url.cache().fileID()) return url.cache().documentID();
    auto place = roots_.locate(url.path());
    if (!url.isFileURL() || !place) return failure(posixError(ENOENT));
    auto row = comparer_.rowAt(*place);
    return row ? Result<std::optional<DocumentID>>(row->documentID) : failure(row.error());
}

Result<FileID> IndexGenerationStore::fileIDForDocumentID(DocumentID documentID, DeviceID device) {
    if (device != kRootsDevice) return failure(posixError(ENODEV));
    for (int attempt = 0; attempt < 2; ++attempt) {
        std::optional<store::ObjectRow> row;
        std::optional<Place> place;
        {
            store::Session session(store_);
            row = session.index().byDocumentID(documentID);
            if (row) place = comparer_.placeOf(session, *row);
            if (auto checked = session.check(); !checked) return failure(checked.error());
        }
        if (!row) return failure(posixError(ENOENT));
        if (place && row->state == store::ObjectState::live) {
            auto url = files_.locate(*row, *place);
            if (url) {
                files_.handOver(row->fileID, *url);
                return row->fileID;
            }
            if (!isAbsence(url.error())) return failure(url.error());
        }
        // Something happened to it: another object may carry the document by now.
        if (attempt == 0) {
            if (auto compared = comparer_.compare({}, Detail::names); !compared) return failure(compared.error());
        }
    }
    return failure(posixError(ENOENT));
}

URL IndexGenerationStore::documentStorageFolder() const {
    auto storage = roots_.storage();
    return URL::file(storage != nullptr ? storage->name : "/");
}

}  // namespace tarnwell::files

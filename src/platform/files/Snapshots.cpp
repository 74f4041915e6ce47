#include "platform/files/Snapshots.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <span>

#include "platform/files/FileKinds.h"

namespace tarnwell::files {

namespace {

constexpr std::size_t kSniffedBytes = 4096;

Date dateFrom(std::int64_t nanoseconds) { return Date(std::chrono::nanoseconds(nanoseconds)); }

std::string_view typeFromContent(mime::TypeDatabase& types, int folder, const char* entry, std::uint64_t size) {
    std::array<std::uint8_t, kSniffedBytes> head;
    std::size_t filled = 0;
    if (size > 0) {
        auto file = filesystem::openBeneath(folder, entry, O_RDONLY | O_NOATIME);
        if (!file) file = filesystem::openBeneath(folder, entry, O_RDONLY);
        if (!file) return "application/octet-stream";
        ssize_t got = pread(file->get(), head.data(), head.size(), 0);
        filled = got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    return types.typeForContent(ByteView(head.data(), filled));
}

std::string_view typeOf(mime::TypeDatabase& types, int folder, const char* entry, const ResourceSnapshot& snapshot) {
    switch (snapshot.kind) {
        case FileKind::regular: {
            std::string_view declared = types.typeForName(entry);
            return declared.empty() ? typeFromContent(types, folder, entry, snapshot.size) : declared;
        }
        case FileKind::directory:
            return snapshot.package ? types.typeForName(entry) : mime::kFolderType;
        case FileKind::symbolicLink:
            return "inode/symlink";
        case FileKind::fifo:
            return "inode/fifo";
        case FileKind::socket:
            return "inode/socket";
        case FileKind::device:
            return S_ISBLK(snapshot.mode) ? "inode/blockdevice" : "inode/chardevice";
        case FileKind::other:
            break;
    }
    return "application/octet-stream";
}

/// What the status alone tells.
std::unique_ptr<ResourceSnapshot> basicSnapshot(const filesystem::Status& status) {
    auto snapshot = std::make_unique<ResourceSnapshot>();
    snapshot->kind = kindOf(status.mode);
    snapshot->mode = status.mode;
    snapshot->links = status.links;
    snapshot->size = status.size;
    if (filesystem::isBirthTime(status.birth)) snapshot->creationDate = dateFrom(status.birth);
    snapshot->contentModificationDate = dateFrom(status.modified);
    snapshot->isOwnTarget = snapshot->kind != FileKind::symbolicLink;
    return snapshot;
}

/// Keeps the names, and the values as far as they are short.
template <typename Read>
filesystem::AccessList takeAttributes(ResourceSnapshot& snapshot, filesystem::AttributeNames names, const Read& read) {
    auto& attributes = snapshot.attributes.emplace();
    if (!names.user.empty()) {
        std::array<std::uint8_t, kRememberedAttributeBytes> buffer;
        std::size_t budget = buffer.size();
        attributes.reserve(names.user.size());
        for (std::string& name : names.user) {
            auto size = budget > 0 ? read(name, std::span(buffer.data(), budget)) : failure(posixError(ERANGE));
            std::optional<Bytes> value;
            if (size) {
                value.emplace(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(*size));
                budget -= *size;
            }
            attributes.push_back({std::move(name), std::move(value)});
        }
    }
    return names.hasAccessList ? filesystem::AccessList::present : filesystem::AccessList::absent;
}

}  // namespace

Result<std::unique_ptr<ResourceSnapshot>> makeSnapshot(mime::TypeDatabase& types, int folder,
                                                       filesystem::MountState mount, const char* entry,
                                                       const filesystem::Status& status, Bareness bareness) {
    auto snapshot = basicSnapshot(status);
    snapshot->package = snapshot->kind == FileKind::directory && types.isPackageName(entry);

    auto list = filesystem::AccessList::absent;
    auto names =
        bareness == Bareness::known ? filesystem::AttributeNames() : filesystem::attributeNamesAt(folder, entry);
    if (names) {
        snapshot->bare = names->user.empty() && !names->hasAccessList;
        list =
            takeAttributes(*snapshot, std::move(*names), [&](const std::string& name, std::span<std::uint8_t> buffer) {
                return filesystem::getAttributeAt(folder, entry, name, buffer);
            });
    } else if (names.error().is(ErrorDomain::posix, ENOENT)) {
        return failure(names.error());
    } else if (names.error().is(ErrorDomain::posix, ENOTSUP)) {
        // No attribute can stand where none can be kept.
        snapshot->attributes.emplace();
    }
    auto access = filesystem::accessOf(status, mount, folder, entry, list);
    snapshot->readable = access.readable;
    snapshot->writable = access.writable;
    snapshot->typeIdentifier = typeOf(types, folder, entry, *snapshot);
    return snapshot;
}

Result<std::unique_ptr<ResourceSnapshot>> makeRootSnapshot(const Root& root) {
    int folder = root.directory.get();
    auto status = filesystem::statusOf(folder);
    if (!status) return failure(status.error());
    // Held open, a folder that was removed goes on answering.
    if (status->links == 0) return failure(posixError(ENOENT));
    auto snapshot = basicSnapshot(*status);
    snapshot->name = root.realPath.substr(root.realPath.rfind('/') + 1);
    if (auto names = filesystem::attributeNamesOf(folder)) {
        takeAttributes(*snapshot, std::move(*names), [&](const std::string& name, std::span<std::uint8_t> buffer) {
            return filesystem::getAttributeOf(folder, name, buffer);
        });
    }
    // No entry name to go by, so the kernel is asked through the descriptor.
    snapshot->readable = faccessat(folder, "", R_OK, AT_EACCESS | AT_EMPTY_PATH) == 0;
    snapshot->writable = faccessat(folder, "", W_OK, AT_EACCESS | AT_EMPTY_PATH) == 0;
    snapshot->typeIdentifier = mime::kFolderType;
    return snapshot;
}

}  // namespace tarnwell::files

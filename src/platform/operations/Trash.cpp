#include <fcntl.h>

#include "platform/operations/OperationErrors.h"
#include "platform/operations/Operations.h"

namespace tarnwell::operations {
namespace {

/// What the index knows an object in the folder by.
std::optional<store::ObjectIdentity> identityIn(store::Session& session, const OpenFolder& folder,
                                                const filesystem::Status& status) {
    auto open = filesystem::openBeneath(folder.get(), {}, O_RDONLY | O_DIRECTORY);
    if (!open) return std::nullopt;
    const auto fileSystem = filesystem::fileSystemIdentityOf(open->get());
    if (!fileSystem) return std::nullopt;
    session.write();
    const auto number =
        session.index().fileSystemNumber(fileSystem->identity.empty() ? "unnamed" : fileSystem->identity);
    return store::ObjectIdentity{number, status.inode, status.birth};
}

std::string lastName(const Place& place) { return place.relative.substr(place.relative.rfind('/') + 1); }

std::optional<store::TrashOrigin> originOf(const Context& context, const OpenItem& item) {
    store::Session session(context.store);
    const auto identity = identityIn(session, item.folder, item.status);
    auto origin = identity ? session.trashOrigins().of(*identity) : std::nullopt;
    if (!session.commit()) return std::nullopt;
    return origin;
}

void forgetOrigin(const Context& context, const OpenFolder& folder, const filesystem::Status& object) {
    store::Session session(context.store);
    if (const auto identity = identityIn(session, folder, object)) session.trashOrigins().forget(*identity);
    (void)session.commit();
}

}  // namespace

Result<Place> trashItem(const Context& context, const Place& place, const Place& trash, MoveOptions options) {
    const auto item = openItem(place);
    if (!item) return failure(item.error());
    const auto folder = openFolder(trash);
    if (!folder) return failure(folder.error());

    std::optional<filesystem::Status> remembered;
    options.taken = Taken::freeName;
    // Before the item has the name: a killed process must not leave something that nobody knows the origin of.
    options.aboutToAppear = [&](const filesystem::Status& object, const std::string& name) {
        store::Session session(context.store);
        const auto identity = identityIn(session, *folder, object);
        if (!identity) return;
        store::TrashOrigin origin{std::nullopt, item->name, name};
        if (const auto from = identityIn(session, item->folder, item->folder.status)) {
            if (const auto row = session.index().byIdentity(*from)) origin.folder = row->fileID;
        }
        session.trashOrigins().set(*identity, origin);
        remembered = object;
        if (auto committed = session.commit(); !committed) {
            context.log.write(log::Level::error, "[ERROR] where \"" + realPath(place) +
                                                     "\" came from is not remembered: " + describe(committed.error()));
        }
    };
    auto moved = moveItem(context, place, trash, item->name, options);
    if (!moved && remembered) forgetOrigin(context, *folder, *remembered);
    return moved;
}

std::optional<store::TrashOrigin> trashOriginOf(const Context& context, const Place& place) {
    const auto item = openItem(place);
    if (!item || lastName(item->folder.place) != ".Trash") return std::nullopt;
    return originOf(context, *item);
}

std::string putBackName(const Context& context, const Place& place) {
    const std::string name = lastName(place);
    const auto origin = trashOriginOf(context, place);
    return origin && origin->nameInTrash == name ? origin->name : name;
}

Result<Place> moveOutOfTrash(const Context& context, const Place& place, const Place& folder, const std::string& name,
                             const MoveOptions& options) {
    const auto item = openItem(place);
    if (!item) return failure(item.error());
    auto moved = moveItem(context, place, folder, name, options);
    if (moved) forgetOrigin(context, item->folder, item->status);
    return moved;
}

}  // namespace tarnwell::operations

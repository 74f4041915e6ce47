#include "platform/operations/EntryNames.h"
#include "platform/operations/KnownObjects.h"
#include "platform/operations/Move.h"
#include "platform/operations/OperationErrors.h"
#include "platform/operations/Operations.h"

namespace tarnwell::operations {
namespace {

std::string lastName(const Place& place) { return place.relative.substr(place.relative.rfind('/') + 1); }

std::optional<store::TrashOrigin> originOf(const Context& context, const OpenItem& item) {
    const KnownObjects known(item.folder);
    store::Session session(context.store);
    const auto identity = known.identityOf(session, item.status);
    auto origin = identity ? session.trashOrigins().of(*identity) : std::nullopt;
    if (!session.commit()) return std::nullopt;
    return origin;
}

void forgetOrigin(const Context& context, const OpenFolder& folder, const filesystem::Status& object) {
    const KnownObjects known(folder);
    store::Session session(context.store);
    if (const auto identity = known.identityOf(session, object)) session.trashOrigins().forget(*identity);
    (void)session.commit();
}

}  // namespace

Result<Place> trashItem(const Context& context, const Place& place, const Place& trash, MoveOptions options) {
    const auto item = openItem(place);
    if (!item) return failure(item.error());
    const auto folder = openFolder(trash);
    if (!folder) return failure(folder.error());

    std::optional<filesystem::Status> remembered;
    const KnownObjects there(*folder);
    // Two mounts of one device may be told apart by what they are known by, one mount is one.
    std::optional<KnownObjects> elsewhere;
    const bool isOneMount = folder->status.mount != 0 && folder->status.mount == item->folder.status.mount &&
                            folder->status.device == item->folder.status.device;
    if (!isOneMount) elsewhere.emplace(item->folder);
    const KnownObjects& here = isOneMount ? there : *elsewhere;
    options.taken = Taken::freeName;
    // Before the item has the name: a killed process must not leave something that nobody knows the origin of.
    options.aboutToAppear = [&](const filesystem::Status& object, const std::string& name) {
        store::Session session(context.store);
        const auto identity = there.identityOf(session, object);
        if (!identity) return;
        const store::TrashOrigin origin{here.fileIDOf(session, item->folder.status), item->name, name};
        session.trashOrigins().set(*identity, origin);
        remembered = object;
        if (auto committed = session.commit(); !committed) {
            context.log.write(log::Level::error, "[ERROR] where \"" + realPath(place) +
                                                     "\" came from is not remembered: " + describe(committed.error()));
        }
    };
    auto moved = moveOpened(context, *item, *folder, item->name, options);
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
    if (auto valid = checkNewName(name); !valid) return failure(valid.error());
    const auto target = openFolder(folder);
    if (!target) return failure(target.error());
    auto moved = moveOpened(context, *item, *target, name, options);
    if (moved) forgetOrigin(context, item->folder, item->status);
    return moved;
}

}  // namespace tarnwell::operations

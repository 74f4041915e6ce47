#include "platform/operations/Scratch.h"

#include <algorithm>

#include "platform/base/UUID.h"
#include "platform/operations/KnownObjects.h"

namespace tarnwell::operations {
namespace {

constexpr std::string_view kPrefix = ".tarnwell-";
constexpr std::size_t kUUIDLength = 36;

}  // namespace

bool isScratchName(std::string_view name) {
    return name.starts_with(kPrefix) && name.size() == kPrefix.size() + kUUIDLength &&
           UUID::parse(name.substr(kPrefix.size())).has_value();
}

Result<Scratch> Scratch::reserve(store::Store& store, const OpenFolder& folder, store::TemporaryKind kind,
                                 std::string original) {
    std::string name = std::string(kPrefix) + UUID::random().text();
    store::Temporary record{0,
                            kind,
                            folder.place.root->name,
                            folder.place.relative,
                            folder.status.inode,
                            folder.status.birth,
                            std::nullopt,
                            name,
                            std::move(original)};
    const KnownObjects known(folder);
    store::Session session(store);
    session.write();
    record.folderID = known.fileIDOf(session, folder.status);
    const std::uint64_t number = session.temporaries().add(record);
    if (auto committed = session.commit(); !committed) return failure(committed.error());
    return Scratch(store, number, std::move(name));
}

Result<void> Scratch::become(store::TemporaryKind kind) {
    store::Session session(*store_);
    session.write();
    session.temporaries().setKind(number_, kind);
    return session.commit();
}

void Scratch::forget() {
    store::Session session(*store_);
    session.write();
    session.temporaries().remove(number_);
    (void)session.commit();
}

}  // namespace tarnwell::operations

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/operations/EntryNames.h"
#include "platform/operations/KnownObjects.h"
#include "platform/operations/NoReplace.h"
#include "platform/operations/OperationErrors.h"
#include "platform/operations/Operations.h"
#include "platform/operations/Scratch.h"

namespace tarnwell::operations {
namespace {

/// The folder of the record, by the place that it had, else by the place where the index has it now.
std::optional<OpenFolder> folderOf(const Context& context, const store::Temporary& record) {
    const auto isIt = [&](const Result<OpenFolder>& folder) {
        return folder && folder->status.inode == record.folderInode && folder->status.birth == record.folderBirth;
    };
    const std::string path = record.root + (record.folder.empty() ? "" : "/" + record.folder);
    if (const auto place = context.roots.locate(path)) {
        auto folder = openFolder(*place);
        if (isIt(folder)) return std::move(*folder);
    }
    if (!record.folderID) return std::nullopt;
    std::optional<Place> moved;
    {
        store::Session session(context.store);
        moved = placeOfFolder(context.roots, session, *record.folderID);
    }
    if (!moved) return std::nullopt;
    auto folder = openFolder(*moved);
    return isIt(folder) ? std::optional(std::move(*folder)) : std::nullopt;
}

enum class Settled { yes, notYet };

Result<void> giveBack(const OpenFolder& folder, const store::Temporary& record, bool isFolder) {
    if (!checkNewName(record.original)) return failure(posixError(EINVAL));
    auto named = putUnderName(folder, record.original, Taken::freeName, [&](const std::string& name) {
        return renameWithoutReplacing(folder.get(), record.name, folder.get(), name, isFolder);
    });
    return named ? Result<void>() : failure(named.error());
}

Settled settle(const Context& context, const store::Temporary& record) {
    if (!isScratchName(record.name)) return Settled::yes;
    const auto folder = folderOf(context, record);
    if (!folder) return Settled::notYet;
    const auto status = filesystem::statusAt(folder->get(), record.name.c_str());
    if (!status) return status.error().is(ErrorDomain::posix, ENOENT) ? Settled::yes : Settled::notYet;
    const auto done = record.kind == store::TemporaryKind::aside ? giveBack(*folder, record, S_ISDIR(status->mode))
                                                                 : removeOwn(folder->get(), record.name);
    if (done) return Settled::yes;
    context.log.write(log::Level::error, "[ERROR] what an operation that was cut off left at \"" +
                                             realPath(folder->placeOf(record.name)) +
                                             "\" cannot be put right now: " + describe(done.error()));
    return Settled::notYet;
}

}  // namespace

void cleanUp(const Context& context) {
    std::vector<store::Temporary> records;
    {
        store::Session session(context.store);
        records = session.temporaries().all();
        if (!session.check()) return;
    }
    for (const store::Temporary& record : records) {
        if (settle(context, record) == Settled::notYet) continue;
        store::Session session(context.store);
        session.write();
        session.temporaries().remove(record.number);
        (void)session.commit();
    }
}

}  // namespace tarnwell::operations

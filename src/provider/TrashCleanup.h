#pragma once

#include <vector>

#include "platform/dispatch/Group.h"
#include "provider/Trash.h"

namespace tarnwell::provider {

/// Removes for good what has been in a trash for too long. An entry that does not say when it was trashed gets the
/// current date, and so goes one period later.
class TrashCleanup {
public:
    explicit TrashCleanup(const ProviderContext& context)
        : context_(context), lookup_(context), attributes_(context), trash_(context) {}

    /// Looks at the entries of every trash on the calling thread and starts the deletion of those trashed before the
    /// date, not at it. The completion runs once, on a queue "tarnwell.auto-delete.notifier" of its own, after the last
    /// deletion; an entry that cannot be deleted is logged, and fails nothing. It is given the error that ended the
    /// look before its end.
    void removeTrashedItemsOlderThan(Date date, hostframework::Completion completion) const;

private:
    /// Of every app library, then of the storage.
    std::vector<URL> trashFolders() const;
    void check(const URL& entry, Date date, const std::shared_ptr<dispatch::Group>& group) const;
    /// Nothing for an entry that has none, which is given the current one.
    std::optional<Date> trashDate(const URL& entry) const;
    void stamp(const URL& entry) const;
    items::ProgramLog& log() const { return context_.fs.items.log; }

    const ProviderContext context_;
    const ItemLookup lookup_;
    const TrashAttributes attributes_;
    const Trash trash_;
};

}  // namespace tarnwell::provider

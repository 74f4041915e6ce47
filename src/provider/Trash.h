#pragma once

#include <optional>
#include <string>
#include <vector>

#include "hostframework/ProviderExtension.h"
#include "provider/ItemLookup.h"
#include "provider/TrashAttributes.h"

namespace tarnwell::provider {

/// Path components up to and with the first "Documents", and ".Trash" behind it; nothing where no component is
/// "Documents".
std::optional<std::vector<std::string>> trashComponents(const URL& item);
/// The file URL of path components as `URL::pathComponents` gives them; nothing for a list that is none of those.
std::optional<URL> fileURLOfComponents(const std::vector<std::string>& components);

/// Into the trash, out of it again, and away for good. Any thread may call the operations; the completion, which comes
/// once, runs on the thread on which the file operation completes, or on the caller's.
class Trash {
public:
    explicit Trash(const ProviderContext& context) : context_(context), lookup_(context), attributes_(context) {}

    /// Moves the item into the trash folder of its documents, which is made if need be, and remembers on the item when
    /// that was and where it stood.
    void trashItem(const hostframework::ItemIdentifier& identifier, hostframework::ItemCompletion completion) const;
    /// Moves the item out of the trash: to the parent where one is given that may take it, else to the folder that it
    /// came from, else to its app library. What it remembers of that folder stays on it.
    void untrashItem(const hostframework::ItemIdentifier& identifier,
                     const std::optional<hostframework::ItemIdentifier>& parent,
                     hostframework::ItemCompletion completion) const;
    /// For good, without the trash.
    void deleteItem(const hostframework::ItemIdentifier& identifier, hostframework::Completion completion) const;
    /// Deletes what stands at the place, known by the identifier. Not what has that identifier elsewhere: it may have
    /// left the place a moment ago, or be a document with another name that is wanted.
    void deleteItem(const hostframework::ItemIdentifier& identifier, const URL& place,
                    hostframework::Completion completion) const;

private:
    Result<URL> trashFolderOf(const URL& item) const;
    std::optional<URL> recoverLocation(const items::LocalItem& item,
                                       const std::optional<hostframework::ItemIdentifier>& parent) const;
    std::optional<URL> usableParent(const hostframework::ItemIdentifier& parent) const;
    std::optional<URL> reachablePutBack(const items::LocalItem& item) const;
    std::optional<URL> libraryRoot(const items::LocalItem& item) const;
    void startDelete(const hostframework::ItemIdentifier& identifier, const std::optional<URL>& place,
                     hostframework::Completion completion) const;
    items::ProgramLog& log() const { return context_.fs.items.log; }

    const ProviderContext context_;
    const ItemLookup lookup_;
    const TrashAttributes attributes_;
};

}  // namespace tarnwell::provider

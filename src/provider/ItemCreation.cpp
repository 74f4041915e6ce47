#include "provider/ItemCreation.h"

#include <utility>

#include "hostframework/HostError.h"
#include "items/TarnwellError.h"
#include "provider/OperationErrors.h"

namespace tarnwell::provider {

using hostframework::Bouncing;
using hostframework::ItemCompletion;
using hostframework::ItemIdentifier;
using items::LogSection;
using items::quoted;

void ItemCreation::importDocument(const URL& document, const ItemIdentifier& parent, ItemCompletion completion) const {
    const LogSection section(log(), "import document at " + quoted(document.path()) + " to parent " + quoted(parent));
    const auto folder = folderForNewItem(parent);
    if (!folder) return completion(failure(folder.error()));
    context_.fileOperations.importUnderFolder(document, *folder, withItem(std::move(completion)));
}

void ItemCreation::createDirectory(const std::string& name, const ItemIdentifier& parent,
                                   ItemCompletion completion) const {
    const LogSection section(log(), "create directory with name " + quoted(name) + " in parent " + quoted(parent));
    const auto folder = folderForNewItem(parent);
    if (!folder) return completion(failure(folder.error()));
    context_.fileOperations.createSubfolder(*folder, name, withItem(std::move(completion)));
}

void ItemCreation::rename(const ItemIdentifier& identifier, const std::string& name, ItemCompletion completion) const {
    const LogSection section(log(), "rename item " + quoted(identifier) + " to name " + quoted(name));
    const auto url = lookup_.urlForIdentifier(identifier);
    if (!url) return completion(failure(url.error()));
    context_.fileOperations.renameWithNewName(*url, name, withItem(std::move(completion)));
}

void ItemCreation::reparent(const ItemIdentifier& identifier, const ItemIdentifier& parent,
                            const std::optional<std::string>& name, ItemCompletion completion) const {
    const LogSection section(log(), "move item " + quoted(identifier) + " to parent " + quoted(parent));
    // The moved item is what must not be the root here, not the folder that takes it.
    if (identifier == hostframework::kRootContainer) {
        return completion(failure(items::errorFileWriteNoPermission()));
    }
    const auto url = lookup_.urlIfFound(identifier);
    if (!url) return completion(failure(hostframework::noSuchItem(identifier)));
    const auto folder = lookup_.urlIfFound(parent);
    if (!folder) return completion(failure(hostframework::noSuchItem(parent)));
    context_.fileOperations.reparentUnderFolder(*url, *folder, name, Bouncing::refused,
                                                withItem(std::move(completion)));
}

Result<URL> ItemCreation::folderForNewItem(const ItemIdentifier& parent) const {
    if (parent == hostframework::kRootContainer) return failure(items::errorFileWriteNoPermission());
    return lookup_.urlForIdentifier(parent);
}

hostframework::FileOperations::URLCompletion ItemCreation::withItem(ItemCompletion completion) const {
    return [lookup = lookup_, completion = std::move(completion)](const Result<URL>& outcome) {
        completeWithItem(lookup, outcome, completion);
    };
}

}  // namespace tarnwell::provider

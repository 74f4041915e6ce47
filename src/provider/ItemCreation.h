#pragma once

#include <optional>
#include <string>

#include "hostframework/ProviderExtension.h"
#include "provider/ItemLookup.h"

namespace tarnwell::provider {

/// The operations that put an item into the tree or change its name or folder. Each resolves identifiers, refuses what
/// may not happen at the root, and leaves the rest to the host's file operations. Any thread may call them; the
/// completion, which comes once, runs on the thread on which the file operation completes, or on the caller's.
class ItemCreation {
public:
    explicit ItemCreation(const ProviderContext& context) : context_(context), lookup_(context) {}

    void importDocument(const URL& document, const hostframework::ItemIdentifier& parent,
                        hostframework::ItemCompletion completion) const;
    void createDirectory(const std::string& name, const hostframework::ItemIdentifier& parent,
                         hostframework::ItemCompletion completion) const;
    void rename(const hostframework::ItemIdentifier& identifier, const std::string& name,
                hostframework::ItemCompletion completion) const;
    /// Without a name the item keeps its own.
    void reparent(const hostframework::ItemIdentifier& identifier, const hostframework::ItemIdentifier& parent,
                  const std::optional<std::string>& name, hostframework::ItemCompletion completion) const;

private:
    /// The folder that takes something new: never the root, which shows only app libraries.
    Result<URL> folderForNewItem(const hostframework::ItemIdentifier& parent) const;
    hostframework::FileOperations::URLCompletion withItem(hostframework::ItemCompletion completion) const;
    items::ProgramLog& log() const { return context_.fs.items.log; }

    const ProviderContext context_;
    const ItemLookup lookup_;
};

}  // namespace tarnwell::provider

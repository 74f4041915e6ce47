#include <utility>

#include "hostframework/ItemIdentifier.h"
#include "items/LocalItem.h"
#include "items/TWPFileObjectIdentifier.h"
#include "items/TrashFolder.h"

namespace tarnwell::items {

namespace {

constexpr int kCountAttempts = 3;

struct Made final : LocalAppLibraryItem {
    Made(const Environment& environment, const URL& url) : LocalAppLibraryItem(environment, url) {}
    using LocalItem::build;
};

}  // namespace

std::shared_ptr<LocalAppLibraryItem> LocalAppLibraryItem::initFrom(const Environment& environment,
                                                                   const registry::BundleRecord& record,
                                                                   std::optional<std::string> knownName) {
    auto container = record.dataContainerURL();
    if (!container) {
        environment.log.error("can't create an app library item without a data container URL");
        return nullptr;
    }
    Arguments arguments;
    arguments.customItemID = appLibraryIdentifier(record);
    arguments.customParentItemID = hostframework::kRootContainer;
    arguments.customFilename = knownName ? std::move(knownName) : record.localizedName();
    arguments.hasSearchDomainIdentifier = false;
    arguments.bundleIdentifier = record.bundleIdentifier();

    auto item = std::make_shared<Made>(environment, container->appending("Documents"));
    if (!item->build(arguments)) return nullptr;
    item->leaveOutReservedFolders();
    return item;
}

/// Takes the folders that are never shown out of the child count.
void LocalAppLibraryItem::leaveOutReservedFolders() {
    const URL inbox = fileURL_.appending("Inbox");
    const URL trash = fileURL_.appending(kTrashFolderName);
    for (int attempt = 0; attempt < kCountAttempts; ++attempt) {
        if (childItemCount_.value_or(0) == 0) return;
        int reserved =
            (environment_.files.isReachable(inbox) ? 1 : 0) + (environment_.files.isReachable(trash) ? 1 : 0);
        if (reserved <= *childItemCount_) {
            childItemCount_ = static_cast<std::uint16_t>(*childItemCount_ - reserved);
            return;
        }
        // One of them came after the children were counted.
        auto status = environment_.files.stat(fileURL_);
        if (!status || status->linkCount < 2) {
            childItemCount_.reset();
            return;
        }
        childItemCount_ = static_cast<std::uint16_t>(status->linkCount - 2);
    }
    fatal("child count of an app library would fall below 0");
}

}  // namespace tarnwell::items

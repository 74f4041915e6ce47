#include "bench/Listing.h"

#include <limits>
#include <unordered_map>

#include "fs/DirectoryScan.h"
#include "fs/LocalFileEnumerator.h"
#include "items/LocalItem.h"
#include "items/TWPFileObjectIdentifier.h"

namespace tarnwell::bench {

namespace {

using hostframework::EnumerationPage;
using hostframework::ProviderItem;
using hostframework::ProviderItemPtr;

void count(Tally& tally, const ProviderItem& item) {
    ++tally.entries;
    tally.attributes += static_cast<std::uint64_t>(item.lastUsedDate().has_value()) +
                        static_cast<std::uint64_t>(item.tagData().has_value()) +
                        static_cast<std::uint64_t>(item.favoriteRank().has_value());
    tally.contained += item.childItemCount().value_or(0);
}

/// Counts items, may remember the folders among them, and keeps nothing else.
class CountingObserver : public hostframework::EnumerationObserver {
public:
    CountingObserver(Tally& tally, std::vector<URL>* folders) : tally_(tally), folders_(folders) {}

    void didEnumerateItems(const std::vector<ProviderItemPtr>& items) override {
        for (const auto& item : items) {
            count(tally_, *item);
            if (folders_ != nullptr && item->isFolder()) folders_->push_back(item->fileURL());
        }
    }
    void finishEnumeratingUpToPage(const std::optional<EnumerationPage>& next) override { page = next; }
    void finishEnumeratingWithError(const Error& failed) override { error = failed; }

    std::optional<EnumerationPage> page;
    std::optional<Error> error;

private:
    Tally& tally_;
    std::vector<URL>* folders_;
};

Outcome<void> readPages(hostframework::ProviderEnumerator& enumerator, Tally& tally, std::vector<URL>* folders,
                        const std::function<void(const Cost&)>& afterPage) {
    EnumerationPage page = hostframework::kInitialPageSortedByName;
    for (;;) {
        const Stopwatch stopwatch;
        const auto observer = std::make_shared<CountingObserver>(tally, folders);
        enumerator.enumerateItemsForObserver(observer, page);
        if (observer->error) return std::unexpected(tarnwell::describe(*observer->error));
        if (afterPage) afterPage(stopwatch.elapsed());
        if (!observer->page) return {};
        page = std::move(*observer->page);
    }
}

Outcome<void> listFolder(const fs::FSEnvironment& environment, const URL& folder, Tally& tally,
                         std::vector<URL>* folders, const std::function<void(const Cost&)>& afterPage) {
    const auto identifier = items::TWPFileObjectIdentifier(environment.items).itemIdentifier(folder);
    if (!identifier) return std::unexpected(folder.path() + " has no identifier");
    const auto enumerator = fs::LocalFileEnumerator::create(environment, *identifier, {folder});
    return readPages(*enumerator, tally, folders, afterPage);
}

}  // namespace

Outcome<Tally> listAllPages(hostframework::ProviderEnumerator& enumerator) {
    Tally tally;
    if (auto read = readPages(enumerator, tally, nullptr, {}); !read) return std::unexpected(read.error());
    return tally;
}

Outcome<Tally> listInPages(SampleDevice& device, const std::string& folder,
                           const std::function<void(const Cost&)>& afterPage) {
    Tally tally;
    const auto listed = listFolder(device.environment(), device.url(folder), tally, nullptr, afterPage);
    if (!listed) return std::unexpected(listed.error());
    return tally;
}

Outcome<Tally> scanToItems(SampleDevice& device, const std::string& folder, Recursion recursion,
                           const std::function<void(const ProviderItem&)>& seen) {
    const auto& environment = device.environment();
    const URL top = device.url(folder);
    const auto identifier = items::TWPFileObjectIdentifier(environment.items).itemIdentifier(top);
    if (!identifier) return std::unexpected(top.path() + " has no identifier");
    // A folder comes right before its contents, so the identifier of every parent is known when it is needed.
    std::unordered_map<std::string, std::string> known{{top.path(), *identifier}};
    const std::pair<const std::string, std::string>* last = nullptr;

    Tally tally;
    const fs::DirectoryScanOptions options{.urls = {top},
                                           .recursively = recursion == Recursion::below,
                                           .limit = std::numeric_limits<std::uint64_t>::max()};
    const auto scanned = fs::scan(environment, options, [&](const URL& url) -> Result<void> {
        const std::string_view path = url.path();
        const auto parent = path.substr(0, path.rfind('/'));
        if (last == nullptr || last->first != parent) {
            const auto found = known.find(std::string(parent));
            if (found == known.end()) return failure(posixError(ENOENT, "the parent of " + url.path()));
            last = &*found;
        }
        items::LocalItem::Arguments arguments;
        arguments.customParentItemID = last->second;
        const auto item = items::LocalItem::initWithURL(environment.items, url, arguments);
        if (!item) return failure(posixError(EIO, "no item for " + url.path()));
        count(tally, *item);
        if (recursion == Recursion::below && item->isFolder()) known.emplace(path, item->itemIdentifier());
        if (seen) seen(*item);
        return {};
    });
    if (!scanned) return std::unexpected(tarnwell::describe(scanned.error()));
    return tally;
}

Outcome<Tally> listEachFolder(SampleDevice& device, const std::string& folder) {
    Tally tally;
    std::vector<URL> folders{device.url(folder)};
    while (!folders.empty()) {
        // A URL of its own, as a host that knows only the identifier would have.
        const URL next = URL::file(folders.back().path());
        folders.pop_back();
        if (auto listed = listFolder(device.environment(), next, tally, &folders, {}); !listed) {
            return std::unexpected(listed.error());
        }
    }
    return tally;
}

}  // namespace tarnwell::bench

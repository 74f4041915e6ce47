#include "applibraries/LocalAppLibraryManager.h"

#include <array>
#include <cstdio>

#include "applibraries/AppLibraryIndexCleanup.h"
#include "items/TWPFileObjectIdentifier.h"

namespace tarnwell::applibraries {

namespace {

/// The path of the root that a path lies in or is: a root's name holds the component "Documents" once, at its end.
/// Asked for every listed item, so it looks at no list of roots.
std::string_view rootPathOf(std::string_view path) {
    constexpr std::string_view kDocuments = "/Documents";
    for (std::size_t at = path.find(kDocuments); at != std::string_view::npos; at = path.find(kDocuments, at + 1)) {
        const std::size_t end = at + kDocuments.size();
        if (end == path.size() || path[end] == '/') return path.substr(0, end);
    }
    return {};
}

std::vector<hostframework::ProviderItemPtr> itemsOf(const AppLibraryGeneration& generation) {
    std::vector<hostframework::ProviderItemPtr> items;
    items.reserve(generation.appLibrariesByItemIDs.size());
    for (const auto& [identifier, item] : generation.appLibrariesByItemIDs) items.push_back(item);
    return items;
}

/// The identifiers of `before` that `after` has no more, in the order of `before`; last those whose documents were gone
/// when `before` was loaded: whoever has an anchor of that generation may have been told of them while they were there.
std::vector<std::string> removedIdentifiers(const AppLibraryGeneration& before, const AppLibraryGeneration& after) {
    std::vector<std::string> removed;
    for (const auto& [identifier, item] : before.appLibrariesByItemIDs) {
        if (!after.appLibrariesByItemIDs.contains(identifier)) removed.push_back(identifier);
    }
    for (const std::string& identifier : before.withoutItem) {
        const bool isTold = before.appLibrariesByItemIDs.contains(identifier);
        if (!isTold && !after.appLibrariesByItemIDs.contains(identifier)) removed.push_back(identifier);
    }
    return removed;
}

}  // namespace

std::string_view nameOf(CacheSource source) { return source == CacheSource::main ? "main cache" : "working-set cache"; }

LocalAppLibraryManager::LocalAppLibraryManager(const AppLibraryServices& services, CacheSource cacheSource,
                                               Instance instance)
    : services_(services),
      cacheSource_(cacheSource),
      instance_(instance),
      queue_(dispatch::SerialQueue::create(services.pool, "tarnwell.app-library-manager")),
      generation_(std::make_shared<const AppLibraryGeneration>()) {}

std::shared_ptr<LocalAppLibraryManager> LocalAppLibraryManager::create(const AppLibraryServices& services,
                                                                       CacheSource cacheSource, Instance instance) {
    std::shared_ptr<LocalAppLibraryManager> manager(new LocalAppLibraryManager(services, cacheSource, instance));
    manager->load();
    return manager;
}

LocalAppLibraryCache& LocalAppLibraryManager::cache() const {
    return cacheSource_ == CacheSource::main ? services_.mainCache : services_.workingSetCache;
}

void LocalAppLibraryManager::load() {
    LocalAppLibraryCache& source = cache();
    items::LogSection section(services_.environment.log, "loading bundle proxies from" + source.cacheURL().text());
    const AppLibraryRecords records = source.queue().sync([&] { return source.load(); });
    std::shared_ptr<const AppLibraryGeneration> loaded = build(records, "can't create app library from bundle proxy ");
    queue_->sync([&] { generation_.swap(loaded); });
}

std::shared_ptr<AppLibraryGeneration> LocalAppLibraryManager::build(const AppLibraryRecords& records,
                                                                    std::string_view failureText) const {
    auto generation = std::make_shared<AppLibraryGeneration>();
    generation->versionToken = records.versionToken;
    // The shared manager looks at the names; the others show those, until it has others and with them another
    // generation.
    const LocalAppLibraryManager* names = instance_ == Instance::own ? services_.sharedIfMade() : nullptr;
    const auto known = names ? names->generation() : nullptr;
    for (const registry::BundleRecordPtr& record : records.records) {
        const auto* shown = known ? known->appLibrariesByItemIDs.find(items::appLibraryIdentifier(*record)) : nullptr;
        AppLibraryItemPtr item = items::LocalAppLibraryItem::initFrom(
            services_.environment, *record, shown ? std::optional((*shown)->filename()) : std::nullopt);
        if (!item) {
            services_.environment.log.debug([&] { return std::string(failureText) + record->description(); });
            generation->withoutItem.push_back(items::appLibraryIdentifier(*record));
            continue;
        }
        generation->bundleProxiesByRootURLs.set(item->fileURL(), record);
        generation->appLibrariesByItemIDs.set(item->itemIdentifier(), item);
    }
    return generation;
}

std::shared_ptr<const AppLibraryGeneration> LocalAppLibraryManager::generation() const {
    return queue_->sync([&] { return generation_; });
}

std::vector<hostframework::ProviderItemPtr> LocalAppLibraryManager::appLibraryItems() const {
    return itemsOf(*generation());
}

AppLibraryItemPtr LocalAppLibraryManager::appLibraryForItemIdentifier(
    const hostframework::ItemIdentifier& identifier) const {
    const auto held = generation();
    const AppLibraryItemPtr* item = held->appLibrariesByItemIDs.find(identifier);
    return item ? *item : nullptr;
}

registry::BundleRecordPtr LocalAppLibraryManager::recordForRootPath(std::string_view rootPath) const {
    const auto held = generation();
    const registry::BundleRecordPtr* record = held->bundleProxiesByRootURLs.find(rootPath);
    return record ? *record : nullptr;
}

std::vector<URL> LocalAppLibraryManager::rootURLsForAppLibraries() const {
    const auto held = generation();
    std::vector<URL> urls;
    urls.reserve(held->bundleProxiesByRootURLs.size());
    // New URL objects: a copy of a key would bring the resource values of the time when the item was built.
    for (const auto& [url, record] : held->bundleProxiesByRootURLs) urls.push_back(URL::file(url.path()));
    return urls;
}

registry::BundleRecordPtr LocalAppLibraryManager::recordForURL(const URL& url, Relationship wanted) const {
    if (!url.isFileURL()) return nullptr;
    if (wanted == Relationship::same) return recordForRootPath(url.path());
    const std::string_view rootPath = rootPathOf(url.path());
    // A root does not hold itself.
    if (wanted != Relationship::contains || rootPath.empty() || rootPath.size() == url.path().size()) return nullptr;
    return recordForRootPath(rootPath);
}

Relationship LocalAppLibraryManager::relationshipToRoots(const URL& url) const {
    const std::string_view rootPath = url.isFileURL() ? rootPathOf(url.path()) : std::string_view();
    if (rootPath.empty() || !recordForRootPath(rootPath)) return Relationship::other;
    return rootPath.size() == url.path().size() ? Relationship::same : Relationship::contains;
}

registry::BundleRecordPtr LocalAppLibraryManager::recordForItemIdentifier(const std::string& identifier) const {
    const auto held = generation();
    const AppLibraryItemPtr* item = held->appLibrariesByItemIDs.find(identifier);
    if (!item) return nullptr;
    const registry::BundleRecordPtr* record = held->bundleProxiesByRootURLs.find((*item)->fileURL());
    return record ? *record : nullptr;
}

Result<void> LocalAppLibraryManager::saveToCache() {
    LocalAppLibraryCache& target = cache();
    items::LogSection section(services_.environment.log, "saving bundle proxies to" + target.cacheURL().text());
    const auto held = generation();
    std::vector<registry::BundleRecordPtr> records;
    records.reserve(held->bundleProxiesByRootURLs.size());
    for (const auto& [url, record] : held->bundleProxiesByRootURLs) records.push_back(record);

    Result<std::uint64_t> token =
        target.queue().sync([&] { return target.save(records, held->versionToken, TokenIncrement::no); });
    if (!token) return failure(token.error());
    // Written unchanged, so it is the manager's token already; an upgrade meanwhile must not be turned back.
    TARNWELL_CHECK(*token == held->versionToken);
    return {};
}

bool LocalAppLibraryManager::upgradeFromMainCache(hostframework::ChangeObserver* observer, IndexCleanup indexCleanup) {
    items::ProgramLog& log = services_.environment.log;
    items::LogSection section(log, "upgrading content from main cache");
    LocalAppLibraryCache& main = services_.mainCache;
    const std::uint64_t mainToken = main.queue().sync([&] { return main.versionToken(); });
    const auto before = generation();
    if (before->versionToken == mainToken) return false;
    if (mainToken < before->versionToken) {
        log.error("version token shouldn't be greater than the main's cache version (" +
                  std::to_string(before->versionToken) + " vs " + std::to_string(mainToken) + "); " +
                  descriptionOf(*before));
    }

    const AppLibraryRecords records = main.queue().sync([&] { return main.load(); });
    const auto built = build(records, "can't create app library for ");
    // Nobody is told of these with this generation.
    built->withoutItem.clear();
    const std::shared_ptr<const AppLibraryGeneration> after = built;
    if (observer && !after->appLibrariesByItemIDs.empty()) observer->didUpdateItems(itemsOf(*after));

    const std::vector<std::string> removed = removedIdentifiers(*before, *after);
    if (!removed.empty()) {
        if (observer) observer->didDeleteItemsWithIdentifiers(removed);
        if (indexCleanup == IndexCleanup::yes) {
            log.debug("asking provider manager to delete index from deleted domains");
            deleteSearchableItemsOfDomains(services_.environment, removed);
        }
    }

    queue_->sync([&] {
        generation_ = after;
        log.debug([&] { return "upgraded manager " + descriptionOf(*after); });
    });
    return true;
}

LibraryNames::Names LocalAppLibraryManager::shownNames() const {
    LibraryNames::Names names;
    for (const auto& [identifier, item] : generation()->appLibrariesByItemIDs) names[identifier] = item->filename();
    return names;
}

LibraryNames::Names LocalAppLibraryManager::currentNames() const {
    const auto held = generation();
    LibraryNames::Names names;
    for (const auto& [url, record] : held->bundleProxiesByRootURLs) {
        const auto identifier = items::appLibraryIdentifier(*record);
        const AppLibraryItemPtr* item = held->appLibrariesByItemIDs.find(identifier);
        // An application that is being removed has no name any more.
        if (item) names[identifier] = record->localizedName().value_or((*item)->filename());
    }
    return names;
}

void LocalAppLibraryManager::showNames(const LibraryNames::Names& names) {
    const auto before = generation();
    const auto after = std::make_shared<AppLibraryGeneration>(*before);
    for (const auto& [url, record] : before->bundleProxiesByRootURLs) {
        const auto identifier = items::appLibraryIdentifier(*record);
        const AppLibraryItemPtr* item = before->appLibrariesByItemIDs.find(identifier);
        const auto name = names.find(identifier);
        if (!item || name == names.end() || name->second == (*item)->filename()) continue;
        auto fresh = items::LocalAppLibraryItem::initFrom(services_.environment, *record, name->second);
        if (fresh) after->appLibrariesByItemIDs.set(identifier, std::move(fresh));
    }
    queue_->sync([&] {
        // One that was put in place meanwhile was made of the names of now.
        if (generation_ == before) generation_ = after;
    });
}

std::string LocalAppLibraryManager::description() const { return descriptionOf(*generation()); }

std::string LocalAppLibraryManager::descriptionOf(const AppLibraryGeneration& generation) const {
    std::array<char, 64> object{};
    std::snprintf(object.data(), object.size(), "<LocalAppLibraryManager: %p>", static_cast<const void*>(this));
    std::string text = object.data();
    if (instance_ == Instance::shared) text += " SHARED";
    text += " versionToken:" + std::to_string(generation.versionToken);
    text += " cache-source:" + std::string(nameOf(cacheSource_));
    return text + " app-libraries:" + std::to_string(generation.appLibrariesByItemIDs.size());
}

}  // namespace tarnwell::applibraries

#include "applibraries/AppLibraryContext.h"

#include "applibraries/AppLibraryDiscovery.h"

namespace tarnwell::applibraries {

namespace {

URL cacheURL(const std::string& applicationSupport, const char* file) {
    if (applicationSupport.empty()) fatal("there is no application-support folder");
    return URL::file(applicationSupport).appending("Tarnwell Storage").appending(file);
}

}  // namespace

URL mainCacheURL(const std::string& applicationSupport) { return cacheURL(applicationSupport, "app-libraries.plist"); }

AppLibraryContext::AppLibraryContext(items::Environment& environment, registry::AppRegistry& registry,
                                     std::shared_ptr<dispatch::ThreadPool> pool, const std::string& applicationSupport)
    : environment_(environment),
      mainCache_(environment.log, registry, pool, "main", mainCacheURL(applicationSupport)),
      workingSetCache_(environment.log, registry, pool, "working-set",
                       cacheURL(applicationSupport, "searchable-app-libraries.plist")),
      backgroundQueue_(dispatch::SerialQueue::create(pool, "tarnwell.app-library.background")),
      services_{environment,
                registry,
                std::move(pool),
                mainCache_,
                workingSetCache_,
                [this] { return sharedManager().versionToken(); },
                [this] { return isSharedMade_.load() ? shared_.get() : nullptr; }},
      names_(environment_.log, cacheURL(applicationSupport, "app-library-names.plist")),
      directory_(*this) {
    environment_.appLibraries = &directory_;
}

AppLibraryContext::~AppLibraryContext() {
    if (environment_.appLibraries == &directory_) environment_.appLibraries = nullptr;
}

LocalAppLibraryManager& AppLibraryContext::sharedManager() {
    LocalAppLibraryManager* manager = sharedManagerUnlessLoading();
    TARNWELL_CHECK(manager != nullptr);
    return *manager;
}

LocalAppLibraryManager* AppLibraryContext::sharedManagerUnlessLoading() {
    // Loading builds items, and whatever they ask of the directory must not wait for the loading itself.
    if (loadingThread_.load() == std::this_thread::get_id()) return nullptr;
    std::call_once(sharedOnce_, [this] {
        loadingThread_.store(std::this_thread::get_id());
        shared_ = LocalAppLibraryManager::create(services_, CacheSource::workingSet,
                                                 LocalAppLibraryManager::Instance::shared);
        loadingThread_.store({});
        isSharedMade_ = true;
    });
    return shared_.get();
}

bool AppLibraryContext::refreshAppLibraries() { return applibraries::refreshAppLibraries(services_); }

bool AppLibraryContext::renewNames(const std::string& languages, Look look) {
    const std::lock_guard lock(namesMutex_);
    LocalAppLibraryManager& shared = sharedManager();
    // The shared manager itself may have met other names by now, with another list.
    const auto before = lastNames_ ? *lastNames_ : shared.shownNames();
    const auto now = look == Look::again ? shared.currentNames() : shared.shownNames();
    const bool areOthers = LibraryNames::differ(before, now) || names_.areOthers(languages, now);
    if (areOthers) {
        // Before anybody takes the generation over, whose items are made with the names that are shown here.
        shared.showNames(now);
        if (!beginGeneration()) return false;
        shared.upgradeFromMainCache(nullptr, IndexCleanup::no);
    }
    lastNames_ = now;
    // Noted last: after a crash in between they are told once more.
    names_.note(languages, now);
    return areOthers;
}

bool AppLibraryContext::beginGeneration() {
    return mainCache_.queue().sync([&] {
        const AppLibraryRecords held = mainCache_.load();
        if (held.records.empty()) return false;
        const auto token = mainCache_.save(held.records, 0, TokenIncrement::yes);
        if (!token) {
            environment_.log.error("can't tell of other names of app libraries; " + describe(token.error()));
            return false;
        }
        environment_.log.debug([&] {
            return "app libraries have other names; main cache version token is now " + std::to_string(*token);
        });
        return true;
    });
}

std::vector<URL> AppLibraryContext::SharedDirectory::rootURLsForAppLibraries() const {
    LocalAppLibraryManager* manager = context_.sharedManagerUnlessLoading();
    return manager ? manager->rootURLsForAppLibraries() : std::vector<URL>{};
}

registry::BundleRecordPtr AppLibraryContext::SharedDirectory::recordForURL(const URL& url,
                                                                           Relationship relationship) const {
    LocalAppLibraryManager* manager = context_.sharedManagerUnlessLoading();
    return manager ? manager->recordForURL(url, relationship) : nullptr;
}

Relationship AppLibraryContext::SharedDirectory::relationshipToRoots(const URL& url) const {
    LocalAppLibraryManager* manager = context_.sharedManagerUnlessLoading();
    return manager ? manager->relationshipToRoots(url) : Relationship::other;
}

registry::BundleRecordPtr AppLibraryContext::SharedDirectory::recordForItemIdentifier(
    const std::string& identifier) const {
    LocalAppLibraryManager* manager = context_.sharedManagerUnlessLoading();
    return manager ? manager->recordForItemIdentifier(identifier) : nullptr;
}

}  // namespace tarnwell::applibraries

#include "applibraries/AppLibraryDiscovery.h"

#include <algorithm>

#include "applibraries/ListText.h"

namespace tarnwell::applibraries {

namespace {

constexpr const char* kSupportsDocumentBrowser = "UISupportsDocumentBrowser";

bool qualifies(const registry::BundleRecord& record) {
    if (!record.dataContainerURL()) return false;
    auto values = record.infoValues({kSupportsDocumentBrowser});
    if (!values) return false;
    auto declared = values->find(kSupportsDocumentBrowser);
    if (declared != values->end() && declared->second) return true;
    return record.supportsOpeningDocumentsInPlace() && record.isFileSharingEnabled();
}

/// Position by position the same data container, or none in both. The order counts, nothing else of a record does.
bool areIdentical(const std::vector<registry::BundleRecordPtr>& a, const std::vector<registry::BundleRecordPtr>& b) {
    return std::ranges::equal(a, b, [](const registry::BundleRecordPtr& x, const registry::BundleRecordPtr& y) {
        return x->dataContainerURL() == y->dataContainerURL();
    });
}

}  // namespace

std::vector<registry::BundleRecordPtr> retrieveBundleRecords(items::ProgramLog& log, registry::AppRegistry& registry) {
    items::LogSection section(log, "retrieving app libraries from " + registry.name());
    registry::AppWorkspace* workspace = registry.defaultWorkspace();
    if (!workspace) fatal("the application registry has no default workspace");

    std::vector<registry::BundleRecordPtr> records;
    auto consider = [&](const registry::BundleRecordPtr& record) {
        if (!record) {
            log.error("enumerate Application provided nil proxy");
            return;
        }
        if (!qualifies(*record)) return;
        log.debug([&] { return "add " + record->bundleIdentifier().value_or("<unknown>"); });
        records.push_back(record);
    };
    workspace->enumerateApplications(registry::ApplicationType::user, consider);
    workspace->enumerateApplications(registry::ApplicationType::system, consider);

    log.debug([&] {
        std::vector<std::string> texts;
        for (const registry::BundleRecordPtr& record : records) texts.push_back(record->description());
        return "bundle proxies " + listText(texts);
    });
    return records;
}

bool refreshAppLibraries(const AppLibraryServices& services) {
    items::ProgramLog& log = services.environment.log;
    items::LogSection section(log, "refreshing app libraries");
    const auto found = retrieveBundleRecords(log, services.registry);

    // One turn on the queue from load to save: between two turns another refresh could write the same generation again.
    LocalAppLibraryCache& cache = services.mainCache;
    return cache.queue().sync([&] {
        if (areIdentical(found, cache.load().records)) {
            log.debug("bundle proxies are identical to previous version");
            return false;
        }
        Result<std::uint64_t> token = cache.save(found, 0, TokenIncrement::yes);
        if (!token) {
            log.error("can't refresh app libraries; " + describe(token.error()));
            return false;
        }
        log.debug([&] { return "main cache version token is now " + std::to_string(*token); });
        return true;
    });
}

}  // namespace tarnwell::applibraries

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "applibraries/AppLibraryContext.h"
#include "fs/FSEventReader.h"
#include "host/Listing.h"
#include "provider/LocalProvider.h"
#include "testing/LongRun.h"
#include "testing/TestDevice.h"

namespace tarnwell::deep {

/// What one change event of a history came to.
struct ToldChange {
    bool deleted = false;
    std::string identifier;
    std::string path;                              ///< below the storage root
    std::shared_ptr<const items::LocalItem> item;  ///< null for a deletion
};

/// What one page of a listing came to.
struct PageOutcome {
    std::vector<hostframework::ProviderItemPtr> items;
    std::optional<hostframework::EnumerationPage> next;
    std::optional<Error> error;
    int finishes = 0;
};

/// A device of one person with its provider on top, as a host has them. Only errors are logged.
class DeepDevice {
public:
    DeepDevice();
    ~DeepDevice();
    DeepDevice(const DeepDevice&) = delete;
    DeepDevice& operator=(const DeepDevice&) = delete;

    /// Waits until what live updates of ended enumerators still look at is looked at.
    void waitUntilQuiet() { device_.pool()->waitUntilQuiet(); }
    /// As a new start of the program. No enumerator and no item may be left.
    void restart();

    testing::TestDevice& device() { return device_; }
    provider::LocalProvider& provider() { return *provider_; }
    applibraries::AppLibraryContext& appLibraries() { return *appLibraries_; }
    const fs::FSEnvironment& environment() { return *environment_; }

    Result<std::vector<host::ListedItem>> list(const std::string& container, host::Depth depth);
    /// One page; the enumerator is ended afterwards.
    PageOutcome page(const std::string& container, const hostframework::EnumerationPage& page);
    std::optional<std::string> identifierOf(const std::string& relative);
    /// The whole history below the storage root since a position, as the event reader tells it; nothing when it cannot
    /// be told.
    std::optional<std::vector<ToldChange>> changesSince(EventID since);

private:
    void open();
    void close();

    testing::TestDevice device_;
    std::optional<fs::FSEnvironment> environment_;
    std::unique_ptr<applibraries::AppLibraryContext> appLibraries_;
    std::shared_ptr<provider::LocalProvider> provider_;
};

/// One page of an enumerator that stays.
PageOutcome pageOf(hostframework::ProviderEnumerator& enumerator, const hostframework::EnumerationPage& page);

using testing::chooseSeed;
using testing::isLongRun;

}  // namespace tarnwell::deep

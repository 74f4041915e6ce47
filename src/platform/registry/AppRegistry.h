#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/icons/IconData.h"
#include "platform/url/URL.h"

namespace tarnwell::registry {

/// Whose installation an application is.
enum class ApplicationType : int { user = 0, system = 2 };

/// Where a record was found.
enum class Origin : std::uint8_t { flatpak = 0, snap = 1, desktopEntry = 2 };
std::string_view nameOf(Origin origin);

/// What the cache files keep of a record; names and icons are read live.
struct ArchivedBundleRecord {
    std::optional<std::string> bundleIdentifier;
    /// The real path, links resolved, but for the one that leads to a Snap's revision.
    std::optional<std::string> dataContainerPath;
    Origin origin = Origin::desktopEntry;
    ApplicationType type = ApplicationType::user;
    friend bool operator==(const ArchivedBundleRecord&, const ArchivedBundleRecord&) = default;
};

/// One installed application. Never changes; shared between threads.
class BundleRecord {
public:
    virtual ~BundleRecord() = default;

    virtual std::optional<std::string> bundleIdentifier() const = 0;
    /// Names the data container; nothing until its "Documents" is a real folder. The URL is a name below which
    /// "Documents" names a root (see Roots).
    virtual std::optional<URL> dataContainerURL() const = 0;
    /// The application's name in the session's language.
    virtual std::optional<std::string> localizedName() const = 0;
    /// The declared Boolean values among `keys`; empty where it declares none. Nothing where it cannot be asked.
    virtual std::optional<std::map<std::string, bool>> infoValues(const std::set<std::string>& keys) const = 0;
    virtual bool supportsOpeningDocumentsInPlace() const = 0;
    virtual bool isFileSharingEnabled() const = 0;
    /// The application's icon for a variant (see iconVariant), read from the disk now. Fails where it has none;
    /// variants 0 and 1 exist always, since a generic icon stands in for one that is missing.
    virtual Result<icons::IconData> iconData(int variant) const = 0;
    virtual Origin origin() const = 0;
    virtual ApplicationType type() const = 0;
    virtual ArchivedBundleRecord archived() const = 0;
    /// One line for logs: identifier, origin and container.
    virtual std::string description() const = 0;
};

using BundleRecordPtr = std::shared_ptr<const BundleRecord>;

class AppWorkspace {
public:
    virtual ~AppWorkspace() = default;
    /// Calls back for each application of the type, sorted by identifier. A null record stands for one that was found
    /// but cannot be described.
    virtual void enumerateApplications(ApplicationType type,
                                       const std::function<void(const BundleRecordPtr&)>& body) = 0;
};

/// The applications installed on this device. Any thread may call any operation; each looks at the disk afresh.
class AppRegistry {
public:
    virtual ~AppRegistry() = default;
    virtual std::string name() const = 0;
    /// Null only if there is no registry at all.
    virtual AppWorkspace* defaultWorkspace() = 0;
    /// The record for an identifier, the user's installation before the system's; null if none is installed.
    virtual BundleRecordPtr recordForBundleIdentifier(const std::string& bundleIdentifier) = 0;
    /// A record from what a cache file kept; its names are read live where the application is still there.
    virtual BundleRecordPtr recordFromArchive(const ArchivedBundleRecord& archived) = 0;
};

}  // namespace tarnwell::registry

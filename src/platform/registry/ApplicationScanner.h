#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/registry/AppRegistry.h"
#include "platform/registry/DesktopEntry.h"
#include "platform/registry/FlatpakMetadata.h"
#include "platform/registry/FolderListings.h"
#include "platform/registry/ParsedFileCache.h"
#include "platform/registry/ProblemLog.h"
#include "platform/registry/RegistrySources.h"
#include "platform/registry/WatchState.h"
#include "platform/registry/WatchedFolders.h"

namespace tarnwell::registry {

inline constexpr int kMaxDesktopFolderDepth = 4;

/// One application as the disk told of it at one time.
struct Application {
    std::string identifier;
    Origin origin = Origin::desktopEntry;
    ApplicationType type = ApplicationType::user;
    std::string containerPath;  ///< absolute; neither resolved nor known to exist
    std::optional<std::string> localizedName = std::nullopt;
    std::optional<bool> supportsDocumentBrowser = std::nullopt;
    bool opensDocuments = false;
    bool sharesFiles = false;
    std::optional<std::string> icon = std::nullopt;  ///< the name of an icon, or its path
    /// Folders of icon themes that this application's installation has for itself; they come first.
    std::vector<std::string> iconDirs = {};
};
using ApplicationPtr = std::shared_ptr<const Application>;

/// Finds applications in the sources, afresh for each call. Any thread may call it. What cannot be read, is no key
/// file, is no application or has an unusable identifier is left out, with a debug line where that is a fault of the
/// file.
///
/// Several desktop files of one Flatpak or Snap make one application: its name and its icon are those of the main one
/// ("<ID>.desktop",
/// "<snap>_<snap>.desktop", else the first by name), and it declares and opens what any of them does.
class ApplicationScanner {
public:
    ApplicationScanner(RegistrySources sources, ProblemLog& problems);

    /// Sorted by the identifiers' bytes, each once: Flatpaks before Snaps before other desktop entries, and what the
    /// user has hides what the system has.
    std::vector<ApplicationPtr> applications(ApplicationType type);
    /// What is asked of one application. `presentation` leaves out whether it shares its files, which other files tell.
    enum class Aspect { everything, presentation };
    /// The user's application of that identifier, else the system's; null if there is none. With an origin, only those
    /// found there.
    ApplicationPtr application(const std::string& identifier, std::optional<Origin> origin = std::nullopt,
                               Aspect aspect = Aspect::everything);
    /// Where something has to change before either of the two can give another answer, the coming and going of
    /// Documents folders included.
    WatchedFolders watchedFolders();
    /// From now on how an application presents itself is not looked at again as long as that watch vouches for it.
    void trust(std::shared_ptr<const WatchState> watch);
    /// Names are read in these languages from now on; false where they are the ones already.
    bool setLanguages(const std::vector<std::string>& languages);
    std::vector<std::string> languages() const { return entries()->languages; }

private:
    using Found = std::map<std::string, Application>;
    /// What was found of applications while the watch was in one state.
    struct Presented {
        std::uint64_t state = 0;
        std::unordered_map<std::string, ApplicationPtr> applications;  ///< by origin and identifier
    };
    ApplicationPtr find(const std::string& identifier, std::optional<Origin> origin, Aspect aspect);
    /// What is asked for: everything, or one identifier, perhaps of one origin.
    struct Query {
        ApplicationType type;
        const std::string* identifier = nullptr;
        std::optional<Origin> origin = std::nullopt;
        Aspect aspect = Aspect::everything;
    };

    Found scan(const Query& query);
    Found scanFlatpaks(const std::string& installation, const Query& query);
    Found scanSnaps(const std::string& folder, const Query& query);
    Found scanDesktopEntries(const Query& query);

    using DesktopFiles = std::map<std::string, std::string>;  ///< paths by identifier
    void collectDesktopFiles(const std::string& folder, const std::string& prefix, int depth, DesktopFiles& paths);
    std::optional<std::string> findDesktopFile(const std::string& folder, std::string_view identifier, int depth);
    void watchDesktopFiles(WatchedFolders& watched, const std::string& folder, int depth);

    std::optional<Application> desktopApplication(const std::string& identifier, const std::string& path,
                                                  ApplicationType type);
    bool keepsDocuments(const std::string& installation, const std::string& identifier);
    void applyOverrides(PersistentFolders& folders, const std::string& installation, const std::string& identifier);
    /// The entry, if the file is an application's and not hidden. Of a file without the needed key nothing is known,
    /// and nothing said: it is none of ours.
    std::shared_ptr<const DesktopEntry> entryAt(const std::string& path, std::string_view neededKey = {});
    std::shared_ptr<const FlatpakMetadata> metadataAt(const std::string& path);
    bool acceptIdentifier(const std::string& identifier, const std::string& path, Origin origin);

    RegistrySources sources_;
    ProblemLog& problems_;
    FolderListings listings_;
    /// What was read in one list of languages. Another list begins with nothing.
    struct Entries {
        std::vector<std::string> languages;
        ParsedFileCache<DesktopEntry> files;
    };
    std::shared_ptr<Entries> entries() const;

    mutable std::mutex mutex_;  ///< guards the fields below, not what they lead to
    std::shared_ptr<Entries> entries_;
    std::shared_ptr<const WatchState> watch_;
    Presented presented_;
    ParsedFileCache<FlatpakMetadata> metadata_;
};

}  // namespace tarnwell::registry

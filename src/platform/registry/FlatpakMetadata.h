#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Result.h"

namespace tarnwell::registry {

/// What the registry takes from an application's "metadata" file or from an override of it.
struct FlatpakMetadata {
    std::optional<std::string> applicationName;  ///< "name" of the group "Application"; overrides have none
    std::vector<std::string> persistent;         ///< "persistent" of the group "Context", in its order
};

/// EBADMSG for text that is no key file.
Result<FlatpakMetadata> parseFlatpakMetadata(std::string_view content);

/// The "Path" of each "Installation" group of a file of Flatpak's installations.d. EBADMSG as above.
Result<std::vector<std::string>> parseFlatpakInstallations(std::string_view content);

/// The folders of the home that a sandbox keeps for its application, as metadata and overrides, applied one after the
/// other, leave them.
class PersistentFolders {
public:
    /// Adds each entry, or takes it away when it begins with "!".
    void apply(const std::vector<std::string>& entries);
    /// True when the application's "Documents" is kept: it is named itself, or the whole home (".") is.
    bool holdDocuments() const;

private:
    std::set<std::string> folders_;
};

}  // namespace tarnwell::registry

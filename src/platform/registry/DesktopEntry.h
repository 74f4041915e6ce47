#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Result.h"

namespace tarnwell::registry {

inline constexpr std::size_t kMaxDisplayNameBytes = 1024;
inline constexpr std::size_t kMaxIconTextBytes = 4095;

/// What the registry takes from one desktop file. "NoDisplay" is not among it: an application that a menu leaves out
/// still keeps documents.
struct DesktopEntry {
    bool isApplication = false;  ///< "Type" is "Application"
    bool isHidden = false;       ///< "Hidden" is true: as good as deleted
    /// "Name" in the first language that has a usable one, else the plain "Name". A usable one is UTF-8 of 1 to 1,024
    /// bytes without control characters.
    std::optional<std::string> localizedName;
    /// True when "Exec" takes files or URLs (%f, %F, %u or %U) and "MimeType" names a type.
    bool opensDocuments = false;
    std::optional<bool> supportsDocumentBrowser;   ///< "X-Tarnwell-SupportsDocumentBrowser"
    std::optional<bool> sharesFiles;               ///< "X-Tarnwell-FileSharing"
    std::optional<std::string> dataContainer;      ///< "X-Tarnwell-DataContainer" as it is written
    std::optional<std::string> flatpakIdentifier;  ///< "X-Flatpak"
    std::optional<std::string> snapInstanceName;   ///< "X-SnapInstanceName"
    /// "Icon": the name of an icon, or its path. UTF-8 of 1 to 4,095 bytes without control characters.
    std::optional<std::string> icon;
};

/// Reads a desktop file. `languages` are in the order of preference; each may carry territory, codeset and modifier
/// ("de_AT.UTF-8@euro" asks for de_AT@euro, de_AT, de@euro, de as well); "C" stands for the plain "Name".
/// EBADMSG for text that is no key file, or has no group "Desktop Entry".
Result<DesktopEntry> parseDesktopEntry(std::string_view content, const std::vector<std::string>& languages);

/// True for a command line with a field code that stands for files or URLs; "%%" is a percent sign.
bool takesFiles(std::string_view commandLine);

}  // namespace tarnwell::registry

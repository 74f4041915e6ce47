#include "platform/registry/DesktopEntry.h"

#include <glib.h>

#include <cerrno>

#include "platform/log/LineText.h"
#include "platform/registry/KeyFile.h"

namespace tarnwell::registry {
namespace {

const std::string kGroup = "Desktop Entry";

bool isUsableText(const std::string& text, std::size_t limit) {
    return !text.empty() && text.size() <= limit && log::asOneLine(text) == text;
}

std::vector<std::string> variantsOf(const std::string& language) {
    char** variants = g_get_locale_variants(language.c_str());
    std::vector<std::string> result;
    for (char** variant = variants; *variant; ++variant) result.emplace_back(*variant);
    g_strfreev(variants);
    return result;
}

std::optional<std::string> usableName(const KeyFile& file, const std::string& key) {
    auto name = file.text(kGroup, key);
    if (name && isUsableText(*name, kMaxDisplayNameBytes)) return name;
    return std::nullopt;
}

std::optional<std::string> localizedName(const KeyFile& file, const std::vector<std::string>& languages) {
    for (const std::string& language : languages) {
        if (language == "C" || language == "POSIX") break;
        for (const std::string& variant : variantsOf(language)) {
            if (auto name = usableName(file, "Name[" + variant + "]")) return name;
        }
    }
    return usableName(file, "Name");
}

}  // namespace

bool takesFiles(std::string_view commandLine) {
    for (std::size_t i = 0; i + 1 < commandLine.size(); ++i) {
        if (commandLine[i] != '%') continue;
        ++i;
        if (std::string_view("fFuU").contains(commandLine[i])) return true;
    }
    return false;
}

Result<DesktopEntry> parseDesktopEntry(std::string_view content, const std::vector<std::string>& languages) {
    auto file = KeyFile::parse(content);
    if (!file) return failure(file.error());
    if (!file->hasGroup(kGroup)) return failure(posixError(EBADMSG, "no group \"Desktop Entry\""));

    DesktopEntry entry;
    entry.isApplication = file->text(kGroup, "Type") == "Application";
    entry.isHidden = file->boolean(kGroup, "Hidden").value_or(false);
    entry.localizedName = localizedName(*file, languages);
    entry.opensDocuments =
        takesFiles(file->text(kGroup, "Exec").value_or("")) && !file->list(kGroup, "MimeType").empty();
    entry.supportsDocumentBrowser = file->boolean(kGroup, "X-Tarnwell-SupportsDocumentBrowser");
    entry.sharesFiles = file->boolean(kGroup, "X-Tarnwell-FileSharing");
    entry.dataContainer = file->text(kGroup, "X-Tarnwell-DataContainer");
    entry.flatpakIdentifier = file->text(kGroup, "X-Flatpak");
    entry.snapInstanceName = file->text(kGroup, "X-SnapInstanceName");
    entry.icon = file->text(kGroup, "Icon");
    if (entry.icon && !isUsableText(*entry.icon, kMaxIconTextBytes)) entry.icon.reset();
    return entry;
}

}  // namespace tarnwell::registry

#include "platform/registry/IconTheme.h"

#include "fuzz/Fuzz.h"
#include "platform/icons/IconData.h"
#include "platform/icons/PngCheck.h"
#include "platform/registry/DesktopEntry.h"

using namespace tarnwell;

/// What others write and the search for an icon reads: the index of a theme, a desktop file's Icon, an icon's
/// beginning.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView bytes(data, size);
    const auto format = icons::formatOf(bytes);
    // What is no PNG by its beginning is no sound one either.
    if (icons::isSoundPng(bytes, 48)) TARNWELL_CHECK(format == icons::IconFormat::png);
    if (const auto entry = registry::parseDesktopEntry(textOf(bytes), {})) {
        TARNWELL_CHECK(!entry->icon || (!entry->icon->empty() && entry->icon->size() <= registry::kMaxIconTextBytes));
    }
    const auto theme = registry::parseIconTheme(textOf(bytes));
    if (!theme) return 0;
    TARNWELL_CHECK(theme->directories.size() <= registry::kMaxThemeDirectories);
    TARNWELL_CHECK(theme->parents.size() <= registry::kMaxThemeParents);
    for (const std::string& parent : theme->parents) TARNWELL_CHECK(registry::isThemeName(parent));
    for (const auto& directory : theme->directories) {
        TARNWELL_CHECK(!directory.path.starts_with('/') && !("/" + directory.path + "/").contains("/../"));
        TARNWELL_CHECK(directory.size > 0 && directory.scale > 0 && directory.minSize <= directory.maxSize);
        for (const int scale : {1, 2, 3}) TARNWELL_CHECK(registry::distance(directory, 48, scale) >= -1);
    }
    return 0;
}

#include "cli/output/ItemText.h"

#include "cli/output/Text.h"
#include "hostframework/TagCodec.h"

namespace tarnwell::cli {
namespace {

struct Capability {
    std::uint64_t bit;
    const char* name;
};
constexpr Capability kCapabilities[] = {{0x1, "read"},   {0x2, "write"},  {0x4, "move"},
                                        {0x8, "rename"}, {0x10, "trash"}, {0x20, "delete"}};

std::string kindOf(const hostframework::ProviderItem& item) {
    if (item.isContainer()) return "app library";
    return item.isFolder() ? "folder" : toDisplay(item.typeIdentifier());
}

std::string sizeOf(const hostframework::ProviderItem& item) {
    if (item.childItemCount()) {
        return grouped(*item.childItemCount()) + (*item.childItemCount() == 1 ? " item" : " items");
    }
    return item.documentSize() ? humanSize(*item.documentSize()) : "-";
}

std::string tagsOf(const hostframework::ProviderItem& item) {
    std::string result;
    if (!item.tagData()) return result;
    const auto tags = hostframework::TagCodec::decode(*item.tagData());
    if (!tags) return result;
    for (const auto& tag : *tags) result += (result.empty() ? "" : ", ") + toDisplay(tag.label);
    return result;
}

std::string capabilitiesOf(const hostframework::ProviderItem& item) {
    std::string result;
    for (const auto& capability : kCapabilities) {
        if ((item.capabilities() & capability.bit) != 0)
            result += (result.empty() ? "" : ", ") + std::string(capability.name);
    }
    return result;
}

Style styleOf(const hostframework::ProviderItem& item) {
    if (item.isContainer()) return Style::library;
    return item.isFolder() ? Style::folder : Style::plain;
}

}  // namespace

Table listingTable() {
    return Table({{"IDENTIFIER"}, {"KIND"}, {"SIZE", Table::Align::right}, {"MODIFIED"}, {"NAME"}});
}

std::vector<Table::Cell> listingRow(const hostframework::ProviderItem& item, const std::string& name) {
    std::string suffix;
    if (item.isFolder()) suffix += "/";
    if (item.favoriteRank()) suffix += " *" + std::to_string(*item.favoriteRank());
    if (const std::string tags = tagsOf(item); !tags.empty()) suffix += " [" + tags + "]";
    if (item.isTrashed()) suffix += " (in the trash)";
    const auto modified = item.contentModificationDate();
    return {{toDisplay(item.itemIdentifier()), Style::dim},
            {kindOf(item)},
            {sizeOf(item)},
            {modified ? localTime(*modified) : "-"},
            {toDisplay(name), styleOf(item), suffix}};
}

void writeRecord(Output& output, const hostframework::ProviderItem& item, const Roots& roots) {
    output.line(output.paint(styleOf(item) == Style::plain ? Style::bold : styleOf(item), toDisplay(item.filename())));
    const auto field = [&](std::string title, const std::string& value) {
        title.resize(16, ' ');
        output.line("  " + output.paint(Style::dim, title) + value);
    };
    const auto dateField = [&](const char* title, const std::optional<Date>& date) {
        if (date) field(title, localTime(*date) + "  (" + iso8601(*date) + ")");
    };
    field("identifier", toDisplay(item.itemIdentifier()));
    field("parent", toDisplay(item.parentItemIdentifier()));
    field("kind", kindOf(item));
    if (item.documentSize()) field("size", grouped(*item.documentSize()) + " bytes");
    if (item.childItemCount()) field("items inside", grouped(*item.childItemCount()));
    dateField("created", item.creationDate());
    dateField("modified", item.contentModificationDate());
    dateField("last used", item.lastUsedDate());
    if (const std::string tags = tagsOf(item); !tags.empty()) field("tags", tags);
    if (item.favoriteRank()) field("favourite rank", std::to_string(*item.favoriteRank()));
    field("allowed", capabilitiesOf(item));
    if (item.isTrashed()) field("in the trash", "yes");
    if (item.fileID()) field("file ID", std::to_string(raw(*item.fileID())));
    if (item.docID()) field("document ID", std::to_string(*item.docID()));
    if (item.appContainerBundleIdentifier()) field("application", toDisplay(*item.appContainerBundleIdentifier()));
    field("place", toDisplay(roots.realPath(item.fileURL().path())));
}

}  // namespace tarnwell::cli

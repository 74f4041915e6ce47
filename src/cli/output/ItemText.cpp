#include "cli/output/ItemText.h"

#include "cli/output/Text.h"

namespace tarnwell::cli {
namespace {

struct Capability {
    std::uint64_t bit;
    const char* name;
};
constexpr Capability kCapabilities[] = {{session::kMayRead, "read"},   {session::kMayWrite, "write"},
                                        {session::kMayMove, "move"},   {session::kMayRename, "rename"},
                                        {session::kMayTrash, "trash"}, {session::kMayDelete, "delete"}};

std::string kindOf(const session::Item& item) {
    if (item.isContainer) return "app library";
    return item.isFolder ? "folder" : toDisplay(item.typeIdentifier);
}

std::string sizeOf(const session::Item& item) {
    if (item.childItemCount) {
        return grouped(*item.childItemCount) + (*item.childItemCount == 1 ? " item" : " items");
    }
    return item.documentSize ? humanSize(*item.documentSize) : "-";
}

std::string tagsOf(const session::Item& item) {
    std::string result;
    if (!item.tags) return result;
    for (const auto& label : *item.tags) result += (result.empty() ? "" : ", ") + toDisplay(label);
    return result;
}

std::string capabilitiesOf(const session::Item& item) {
    std::string result;
    for (const auto& capability : kCapabilities) {
        if ((item.capabilities & capability.bit) != 0)
            result += (result.empty() ? "" : ", ") + std::string(capability.name);
    }
    return result;
}

Style styleOf(const session::Item& item) {
    if (item.isContainer) return Style::library;
    return item.isFolder ? Style::folder : Style::plain;
}

}  // namespace

Table listingTable() {
    return Table({{"IDENTIFIER"}, {"KIND"}, {"SIZE", Table::Align::right}, {"MODIFIED"}, {"NAME"}});
}

std::vector<Table::Cell> listingRow(const session::Item& item, const std::string& name) {
    std::string suffix;
    if (item.isFolder) suffix += "/";
    if (item.favoriteRank) suffix += " *" + std::to_string(*item.favoriteRank);
    if (const std::string tags = tagsOf(item); !tags.empty()) suffix += " [" + tags + "]";
    if (item.isTrashed) suffix += " (in the trash)";
    const auto modified = item.contentModificationDate;
    return {{toDisplay(item.identifier), Style::dim},
            {kindOf(item)},
            {sizeOf(item)},
            {modified ? localTime(*modified) : "-"},
            {toDisplay(name), styleOf(item), suffix}};
}

void writeRecord(Output& output, const session::Item& item) {
    output.line(output.paint(styleOf(item) == Style::plain ? Style::bold : styleOf(item), toDisplay(item.filename)));
    const auto field = [&](std::string title, const std::string& value) {
        title.resize(16, ' ');
        output.line("  " + output.paint(Style::dim, title) + value);
    };
    const auto dateField = [&](const char* title, const std::optional<Date>& date) {
        if (date) field(title, localTime(*date) + "  (" + iso8601(*date) + ")");
    };
    field("identifier", toDisplay(item.identifier));
    field("parent", toDisplay(item.parent));
    field("kind", kindOf(item));
    if (item.documentSize) field("size", grouped(*item.documentSize) + " bytes");
    if (item.childItemCount) field("items inside", grouped(*item.childItemCount));
    dateField("created", item.creationDate);
    dateField("modified", item.contentModificationDate);
    dateField("last used", item.lastUsedDate);
    if (const std::string tags = tagsOf(item); !tags.empty()) field("tags", tags);
    if (item.favoriteRank) field("favourite rank", std::to_string(*item.favoriteRank));
    field("allowed", capabilitiesOf(item));
    if (item.isTrashed) field("in the trash", "yes");
    if (item.fileID) field("file ID", std::to_string(*item.fileID));
    if (item.docID) field("document ID", std::to_string(*item.docID));
    if (item.appContainerBundleIdentifier) field("application", toDisplay(*item.appContainerBundleIdentifier));
    field("place", toDisplay(item.path));
}

}  // namespace tarnwell::cli

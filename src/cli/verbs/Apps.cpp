#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/Table.h"
#include "cli/output/Text.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

/// Only Flatpak keeps what a person installed apart from what the system has.
std::string originOf(const registry::BundleRecord& record) {
    const auto archived = record.archived();
    std::string origin(registry::nameOf(archived.origin));
    if (archived.origin != registry::Origin::flatpak) return origin;
    return origin + (archived.type == registry::ApplicationType::user ? " (user)" : " (system)");
}

/// The item, and what is known of the application that keeps it.
nlohmann::ordered_json libraryJson(const hostframework::ProviderItem& item, const registry::BundleRecord* record,
                                   const Roots& roots) {
    auto json = itemJson(item, roots);
    json["origin"] = nullptr;
    json["installedFor"] = nullptr;
    json["containerPath"] = nullptr;
    if (record == nullptr) return json;
    const auto archived = record->archived();
    json["origin"] = registry::nameOf(archived.origin);
    json["installedFor"] = archived.type == registry::ApplicationType::user ? "user" : "system";
    if (!archived.dataContainerPath) return json;
    json["containerPath"] = toUtf8(*archived.dataContainerPath);
    if (!isUtf8(*archived.dataContainerPath)) {
        json["containerPathBytes"] = base64(bytesOf(*archived.dataContainerPath));
    }
    return json;
}

class AppsVerb : public Verb {
public:
    const char* name() const override { return "apps"; }
    const char* summary() const override { return "List the app libraries: applications that keep documents here"; }
    const char* example() const override {
        return "tarnwell apps          every application, where it comes from, how much it keeps and where";
    }

    Outcome run(Invocation& invocation) override {
        auto ready = invocation.context();
        if (!ready) return std::unexpected(ready.error());
        host::ProgramContext& context = **ready;
        auto& manager = context.appLibraries().sharedManager();
        Output& output = invocation.output();

        Table table({{"IDENTIFIER"}, {"ITEMS", Table::Align::right}, {"FROM"}, {"NAME"}, {"FOLDER"}});
        const auto libraries = manager.appLibraryItems();
        for (const auto& item : libraries) {
            const auto record = manager.recordForItemIdentifier(item->itemIdentifier());
            if (invocation.json()) {
                output.line(jsonLine(libraryJson(*item, record.get(), context.roots())));
                continue;
            }
            table.add({{toDisplay(item->itemIdentifier()), Style::dim},
                       {item->childItemCount() ? grouped(*item->childItemCount()) : "-"},
                       {record ? originOf(*record) : "-"},
                       {toDisplay(item->filename()), Style::library},
                       {toDisplay(context.roots().realPath(item->fileURL().path()))}});
        }
        table.write(output);
        if (libraries.empty() && !invocation.json()) {
            output.line(
                "No installed application keeps documents here; \"tarnwell doctor\" says where they are looked for.");
        }
        return {};
    }
};

}  // namespace

std::unique_ptr<Verb> makeAppsVerb() { return std::make_unique<AppsVerb>(); }

}  // namespace tarnwell::cli

#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/Table.h"
#include "cli/output/Text.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

class AppsVerb : public Verb {
public:
    const char* name() const override { return "apps"; }
    const char* summary() const override { return "List the app libraries: applications that keep documents here"; }
    const char* example() const override {
        return "tarnwell apps          every application, its identifier and folder";
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
            if (invocation.json()) {
                output.line(jsonLine(itemJson(*item, context.roots())));
                continue;
            }
            const auto record = manager.recordForItemIdentifier(item->itemIdentifier());
            table.add({{toDisplay(item->itemIdentifier()), Style::dim},
                       {item->childItemCount() ? grouped(*item->childItemCount()) : "-"},
                       {record ? std::string(registry::nameOf(record->origin())) : "-"},
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

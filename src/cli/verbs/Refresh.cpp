#include <map>
#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/Text.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

class RefreshVerb : public Verb {
public:
    const char* name() const override { return "refresh"; }
    const char* summary() const override { return "Look at the installed applications now, and tell what changed"; }
    const char* example() const override {
        return "tarnwell refresh          after an application was installed or removed";
    }

    Outcome run(Invocation& invocation) override {
        auto ready = invocation.context();
        if (!ready) return std::unexpected(ready.error());
        host::ProgramContext& context = **ready;
        context.refreshApplications();

        std::map<std::string, std::string> before;
        for (const auto& record : context.librariesAtStart()) {
            before.emplace("#" + record->bundleIdentifier().value_or("(null)"),
                           record->archived().dataContainerPath.value_or("") + "/Documents");
        }
        Output& output = invocation.output();
        const auto libraries = context.appLibraries().sharedManager().appLibraryItems();
        bool changed = false;
        for (const auto& item : libraries) {
            const std::string folder = context.roots().realPath(item->fileURL().path());
            const auto known = before.find(item->itemIdentifier());
            const bool isNew = known == before.end();
            const bool isElsewhere = !isNew && known->second != folder;
            if (!isNew) before.erase(known);
            if (!isNew && !isElsewhere) continue;
            changed = true;
            const char* what = isNew ? "added" : "changed";
            output.line(invocation.json() ? jsonLine({{what, itemJson(*item, context.roots())}})
                                          : output.paint(Style::good, what) + "  " + toDisplay(item->itemIdentifier()) +
                                                "  " + toDisplay(folder));
        }
        for (const auto& [identifier, folder] : before) {
            changed = true;
            output.line(invocation.json() ? jsonLine({{"removed", toUtf8(identifier)}})
                                          : output.paint(Style::bad, "removed") + "  " + toDisplay(identifier) + "  " +
                                                toDisplay(folder));
        }
        if (invocation.json()) {
            output.line(jsonLine({{"appLibraries", libraries.size()}, {"changed", changed}}));
        } else if (!changed) {
            output.line("Nothing changed: " + grouped(libraries.size()) +
                        (libraries.size() == 1 ? " app library." : " app libraries."));
        }
        return {};
    }
};

}  // namespace

std::unique_ptr<Verb> makeRefreshVerb() { return std::make_unique<RefreshVerb>(); }

}  // namespace tarnwell::cli

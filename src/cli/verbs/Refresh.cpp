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
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        const auto refreshed = (*session)->refresh();
        if (!refreshed) return std::unexpected(failureOf(refreshed.error()));
        Output& output = invocation.output();
        const auto tell = [&](const char* what, const std::vector<session::Item>& items) {
            for (const auto& item : items) {
                output.line(invocation.json() ? jsonLine({{what, itemJson(item)}})
                                              : output.paint(Style::good, what) + "  " + toDisplay(item.identifier) +
                                                    "  " + toDisplay(item.path));
            }
        };
        tell("added", refreshed->added);
        tell("changed", refreshed->changed);
        for (const auto& removed : refreshed->removed) {
            output.line(invocation.json() ? jsonLine({{"removed", toUtf8(removed.identifier)}})
                                          : output.paint(Style::bad, "removed") + "  " + toDisplay(removed.identifier) +
                                                "  " + toDisplay(removed.path));
        }
        const bool changed = !refreshed->added.empty() || !refreshed->changed.empty() || !refreshed->removed.empty();
        if (invocation.json()) {
            output.line(jsonLine({{"appLibraries", refreshed->applications}, {"changed", changed}}));
        } else if (!changed) {
            output.line("Nothing changed: " + grouped(refreshed->applications) +
                        (refreshed->applications == 1 ? " app library." : " app libraries."));
        }
        return {};
    }
};

}  // namespace

std::unique_ptr<Verb> makeRefreshVerb() { return std::make_unique<RefreshVerb>(); }

}  // namespace tarnwell::cli

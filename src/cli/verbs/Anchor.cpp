#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

class AnchorVerb : public Verb {
public:
    const char* name() const override { return "anchor"; }
    const char* summary() const override { return "Print a container's current sync anchor"; }
    const char* example() const override { return "tarnwell anchor root > last-seen"; }
    void declare(CLI::App& command) override {
        command.add_option("ITEM", item_, std::string(kItemHelp) + "; root without it");
    }

    Outcome run(Invocation& invocation) override {
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        const std::string what = "cannot give an anchor of";
        const auto container = resolveItem(invocation, what, item_);
        if (!container) return std::unexpected(container.error());
        const auto anchor = (*session)->currentAnchor(*container);
        if (!anchor) return std::unexpected(failureOf(what, item_, anchor.error()));
        if (!*anchor) {
            return std::unexpected(Failure{
                ExitStatus::failed, what + " \"" + toDisplay(item_) + "\": its changes cannot be told on this device"});
        }
        const std::string text = base64(**anchor);
        invocation.output().line(invocation.json() ? jsonLine({{"anchor", text}}) : text);
        return {};
    }

private:
    std::string item_ = "root";
};

}  // namespace

std::unique_ptr<Verb> makeAnchorVerb() { return std::make_unique<AnchorVerb>(); }

}  // namespace tarnwell::cli

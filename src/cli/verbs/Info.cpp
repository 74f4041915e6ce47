#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/ItemText.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/Verb.h"
#include "session/OnlyOne.h"

namespace tarnwell::cli {
namespace {

class InfoVerb : public Verb {
public:
    const char* name() const override { return "info"; }
    const char* summary() const override { return "Show everything that is known of one item"; }
    const char* example() const override { return "tarnwell info ~/Documents/report.odt"; }
    void declare(CLI::App& command) override { command.add_option("ITEM", item_, kItemHelp)->required(); }

    Outcome run(Invocation& invocation) override {
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        const auto identifier = resolveItem(invocation, "cannot show", item_);
        if (!identifier) return std::unexpected(identifier.error());
        if (*identifier == session::kWorkingSetContainer || *identifier == session::kAllDirectoriesContainer) {
            return std::unexpected(
                Failure{ExitStatus::failed,
                        "cannot show \"" + item_ + "\": it is a view, not an item; \"tarnwell ls\" lists it"});
        }
        const auto item = session::onlyOne((*session)->items({*identifier}));
        if (!item) return std::unexpected(failureOf("cannot show", item_, item.error()));
        if (invocation.json()) {
            invocation.output().line(jsonLine(itemJson(*item)));
        } else {
            writeRecord(invocation.output(), *item);
        }
        return {};
    }

private:
    std::string item_;
};

}  // namespace

std::unique_ptr<Verb> makeInfoVerb() { return std::make_unique<InfoVerb>(); }

}  // namespace tarnwell::cli

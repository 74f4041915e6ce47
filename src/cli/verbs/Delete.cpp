#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/ItemBatch.h"
#include "cli/verbs/Verb.h"
#include "session/OnlyOne.h"

namespace tarnwell::cli {
namespace {

class DeleteVerb : public Verb {
public:
    const char* name() const override { return "delete"; }
    const char* summary() const override { return "Remove items for good, without the trash"; }
    const char* example() const override { return "tarnwell delete did=17 did=18     a folder with all that it holds"; }
    void declare(CLI::App& command) override { command.add_option("ITEM", items_, kItemHelp)->required(); }

    Outcome run(Invocation& invocation) override {
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        session::JobControl job;
        ItemBatch batch(invocation, "cannot delete", "deleted", items_.size());
        for (const std::string& text : items_) {
            const auto item = resolveTarget(invocation, batch.cannot(), text);
            if (!item) {
                batch.addFailure(text, item.error());
                continue;
            }
            if (const auto removed = session::onlyOne((*session)->remove({*item}, job))) {
                batch.addRemoved(*removed);
            } else {
                batch.addFailure(text, removed.error());
            }
        }
        return batch.outcome();
    }

private:
    std::vector<std::string> items_;
};

}  // namespace

std::unique_ptr<Verb> makeDeleteVerb() { return std::make_unique<DeleteVerb>(); }

}  // namespace tarnwell::cli

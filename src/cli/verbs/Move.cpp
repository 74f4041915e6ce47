#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/Transfers.h"
#include "cli/verbs/Verb.h"
#include "session/OnlyOne.h"

namespace tarnwell::cli {
namespace {

class MoveVerb : public Verb {
public:
    const char* name() const override { return "move"; }
    const char* summary() const override { return "Move items to another folder or app library"; }
    const char* example() const override {
        return "tarnwell move did=17 '#org.example.Notes' --name plan.md\n"
               "tarnwell move ~/Documents/Trip/*.jpg fid=12          several at once";
    }
    void declare(CLI::App& command) override {
        command.add_option("ITEM… PARENT", texts_, std::string("What, and where to: ") + kItemHelp)
            ->required()
            ->expected(2, -1);
        const auto* name = command.add_option("--name", name_, "A new name, for one item");
        command.final_callback([this, name] {
            hasName_ = name->count() > 0;
            if (hasName_ && texts_.size() > 2) {
                throw CLI::ValidationError("--name", "one name is for one item");
            }
        });
    }

    Outcome run(Invocation& invocation) override {
        const Transfer transfer{
            "cannot move", "moved", "moving", "cannot move anything to", {texts_.begin(), texts_.end() - 1},
            texts_.back()};
        return transferAll(invocation, transfer,
                           [&](session::Session& session, session::JobControl& job, ItemBatch& batch,
                               const std::string& text, const session::ItemIdentifier& parent) {
                               const auto item = resolveTarget(invocation, batch.cannot(), text);
                               if (!item) return batch.addFailure(text, item.error());
                               const auto name = hasName_ ? std::optional(name_) : std::nullopt;
                               batch.add(text, session::onlyOne(session.move({*item}, parent, name, job)));
                           });
    }

private:
    std::vector<std::string> texts_;
    std::string name_;
    bool hasName_ = false;
};

}  // namespace

std::unique_ptr<Verb> makeMoveVerb() { return std::make_unique<MoveVerb>(); }

}  // namespace tarnwell::cli

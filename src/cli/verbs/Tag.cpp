#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/ItemBatch.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

class TagVerb : public Verb {
public:
    const char* name() const override { return "tag"; }
    const char* summary() const override { return "Give an item these tags and no others"; }
    const char* example() const override {
        return "tarnwell tag did=17 urgent Berlin\n"
               "tarnwell tag did=17                  takes all of them away";
    }
    void declare(CLI::App& command) override {
        command.add_option("ITEM", item_, kItemHelp)->required();
        command.add_option("TAG", tags_, "Tags, in their order");
    }

    Outcome run(Invocation& invocation) override {
        return forEachItem(invocation, "cannot tag", "tagged", {item_},
                           [&](session::Session& session, const session::ItemIdentifier& item) {
                               return session.setTags(item, tags_);
                           });
    }

private:
    std::string item_;
    std::vector<std::string> tags_;
};

}  // namespace

std::unique_ptr<Verb> makeTagVerb() { return std::make_unique<TagVerb>(); }

}  // namespace tarnwell::cli

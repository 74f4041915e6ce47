#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/ItemBatch.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

class RenameVerb : public Verb {
public:
    const char* name() const override { return "rename"; }
    const char* summary() const override { return "Give an item another name in its folder"; }
    const char* example() const override {
        return "tarnwell rename ~/Documents/report.odt final.odt     its identifier stays";
    }
    void declare(CLI::App& command) override {
        command.add_option("ITEM", item_, kItemHelp)->required();
        command.add_option("NAME", name_, "The new name, without a folder")->required();
    }

    Outcome run(Invocation& invocation) override {
        return forEachItem(invocation, "cannot rename", "renamed", {item_},
                           [&](session::Session& session, const session::ItemIdentifier& item) {
                               return session.rename(item, name_);
                           });
    }

private:
    std::string item_, name_;
};

}  // namespace

std::unique_ptr<Verb> makeRenameVerb() { return std::make_unique<RenameVerb>(); }

}  // namespace tarnwell::cli

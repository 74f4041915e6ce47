#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/ItemBatch.h"
#include "cli/verbs/Verb.h"
#include "session/OnlyOne.h"

namespace tarnwell::cli {
namespace {

class TrashVerb : public Verb {
public:
    const char* name() const override { return "trash"; }
    const char* summary() const override { return "Put items into the trash of their library"; }
    const char* example() const override { return "tarnwell trash ~/Documents/old.txt     \"restore\" takes it out"; }
    void declare(CLI::App& command) override { command.add_option("ITEM", items_, kItemHelp)->required(); }

    Outcome run(Invocation& invocation) override {
        // True of each document that is the person's own: where it came from is remembered elsewhere.
        invocation.ignoreInLog("couldn't find app library for ");
        return forEachItem(invocation, "cannot trash", "trashed", items_,
                           [](session::Session& session, const session::ItemIdentifier& item) {
                               session::JobControl job;
                               return session::onlyOne(session.trash({item}, job));
                           });
    }

private:
    std::vector<std::string> items_;
};

}  // namespace

std::unique_ptr<Verb> makeTrashVerb() { return std::make_unique<TrashVerb>(); }

}  // namespace tarnwell::cli

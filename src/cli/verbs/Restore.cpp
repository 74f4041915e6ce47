#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/ItemBatch.h"
#include "cli/verbs/Verb.h"
#include "session/OnlyOne.h"

namespace tarnwell::cli {
namespace {

class RestoreVerb : public Verb {
public:
    const char* name() const override { return "restore"; }
    const char* summary() const override { return "Take items out of the trash, to where they came from"; }
    const char* example() const override {
        return "tarnwell restore did=17                          under its old name, or one like it\n"
               "tarnwell restore did=17 --to '#org.example.Notes'";
    }
    void declare(CLI::App& command) override {
        command.add_option("ITEM", items_, kItemHelp)->required();
        toOption_ = command.add_option("--to", to_, std::string("Another folder: ") + kItemHelp)->type_name("PARENT");
    }

    Outcome run(Invocation& invocation) override {
        // True of each document that is the person's own.
        invocation.ignoreInLog("couldn't find putback xattr for ");
        std::optional<session::ItemIdentifier> parent;
        if (toOption_->count() > 0) {
            auto given = resolveItem(invocation, "cannot restore anything to", to_);
            if (!given) return std::unexpected(given.error());
            parent = std::move(*given);
        }
        return forEachItem(invocation, "cannot restore", "restored", items_,
                           [&](session::Session& session, const session::ItemIdentifier& item) {
                               session::JobControl job;
                               return session::onlyOne(session.restore({item}, parent, job));
                           });
    }

private:
    std::vector<std::string> items_;
    std::string to_;
    const CLI::Option* toOption_ = nullptr;
};

}  // namespace

std::unique_ptr<Verb> makeRestoreVerb() { return std::make_unique<RestoreVerb>(); }

}  // namespace tarnwell::cli

#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/ItemBatch.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

class MkdirVerb : public Verb {
public:
    const char* name() const override { return "mkdir"; }
    const char* summary() const override { return "Make a folder in a folder or an app library"; }
    const char* example() const override { return "tarnwell mkdir Drafts '#org.example.Notes'"; }
    void declare(CLI::App& command) override {
        command.add_option("NAME", name_, "The new folder's name")->required();
        command.add_option("PARENT", parent_, std::string("Where: ") + kItemHelp)->required();
    }

    Outcome run(Invocation& invocation) override {
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        ItemBatch batch(invocation, "cannot make", "made", 1);
        if (const auto parent = resolveItem(invocation, batch.cannot() + " a folder in", parent_)) {
            batch.add(name_, (*session)->makeFolder(name_, *parent));
        } else {
            batch.addFailure(name_, parent.error());
        }
        return batch.outcome();
    }

private:
    std::string name_, parent_;
};

}  // namespace

std::unique_ptr<Verb> makeMkdirVerb() { return std::make_unique<MkdirVerb>(); }

}  // namespace tarnwell::cli

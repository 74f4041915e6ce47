#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/Transfers.h"
#include "cli/verbs/Verb.h"
#include "session/OnlyOne.h"

namespace tarnwell::cli {
namespace {

class ImportVerb : public Verb {
public:
    const char* name() const override { return "import"; }
    const char* summary() const override { return "Copy files and folders into a folder or an app library"; }
    const char* example() const override {
        return "tarnwell import ~/Downloads/map.pdf '#org.example.Notes'     nothing is replaced, the source stays";
    }
    void declare(CLI::App& command) override {
        command.add_option("FILE… PARENT", texts_, std::string("Files or folders, and where to: ") + kItemHelp)
            ->required()
            ->expected(2, -1);
    }

    Outcome run(Invocation& invocation) override {
        const Transfer transfer{
            "cannot import", "imported", "importing", "cannot import anything into", {texts_.begin(), texts_.end() - 1},
            texts_.back()};
        return transferAll(invocation, transfer,
                           [](session::Session& session, session::JobControl& job, ItemBatch& batch,
                              const std::string& text, const session::ItemIdentifier& parent) {
                               batch.add(text, session::onlyOne(session.import({absolutePath(text)}, parent, job)));
                           });
    }

private:
    std::vector<std::string> texts_;
};

}  // namespace

std::unique_ptr<Verb> makeImportVerb() { return std::make_unique<ImportVerb>(); }

}  // namespace tarnwell::cli

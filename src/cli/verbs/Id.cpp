#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

class IdVerb : public Verb {
public:
    const char* name() const override { return "id"; }
    const char* summary() const override { return "Print the identifier of the item at a path"; }
    const char* example() const override {
        return "tarnwell id ~/Documents/report.odt     it stays the same when the file is renamed or moved";
    }
    void declare(CLI::App& command) override { command.add_option("PATH", path_, "A file or folder")->required(); }

    Outcome run(Invocation& invocation) override {
        const auto identifier = resolvePath(invocation, "cannot identify", path_);
        if (!identifier) return std::unexpected(identifier.error());
        if (invocation.json()) {
            invocation.output().line(jsonLine({{"itemIdentifier", toUtf8(*identifier)}}));
        } else {
            invocation.output().line(toDisplay(*identifier));
        }
        return {};
    }

private:
    std::string path_;
};

}  // namespace

std::unique_ptr<Verb> makeIdVerb() { return std::make_unique<IdVerb>(); }

}  // namespace tarnwell::cli

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/Verb.h"
#include "hostframework/HostError.h"

namespace tarnwell::cli {
namespace {

class PathVerb : public Verb {
public:
    const char* name() const override { return "path"; }
    const char* summary() const override { return "Print where an item is now"; }
    const char* example() const override {
        return "tarnwell path did=17          follows the document wherever it was moved\n"
               "cd \"$(tarnwell path '#org.example.Notes')\"";
    }
    void declare(CLI::App& command) override { command.add_option("ITEM", item_, kItemHelp)->required(); }

    Outcome run(Invocation& invocation) override {
        auto ready = invocation.context();
        if (!ready) return std::unexpected(ready.error());
        const auto identifier = resolveItem(invocation, "cannot find", item_);
        if (!identifier) return std::unexpected(identifier.error());
        const auto url = (*ready)->provider().URLForItemWithPersistentIdentifier(*identifier);
        if (!url) return std::unexpected(failureOf("cannot find", item_, hostframework::noSuchItem(*identifier)));
        const std::string path = (*ready)->roots().realPath(url->path());
        if (invocation.json()) {
            nlohmann::ordered_json json = {{"path", toUtf8(path)}, {"fileURL", URL::file(path).text()}};
            if (!isUtf8(path)) json["pathBytes"] = base64(bytesOf(path));
            invocation.output().line(jsonLine(json));
        } else {
            // A script gets the exact bytes, a person a line that cannot break the terminal.
            invocation.output().line(::isatty(STDOUT_FILENO) == 1 ? toDisplay(path) : path);
        }
        return {};
    }

private:
    std::string item_;
};

}  // namespace

std::unique_ptr<Verb> makePathVerb() { return std::make_unique<PathVerb>(); }

}  // namespace tarnwell::cli

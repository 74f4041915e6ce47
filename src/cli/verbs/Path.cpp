#include <unistd.h>

#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/Verb.h"
#include "platform/url/URL.h"
#include "session/OnlyOne.h"

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
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        const auto identifier = resolveItem(invocation, "cannot find", item_);
        if (!identifier) return std::unexpected(identifier.error());
        const auto item = session::onlyOne((*session)->items({*identifier}));
        if (!item) return std::unexpected(failureOf("cannot find", item_, item.error()));
        const std::string& path = item->path;
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

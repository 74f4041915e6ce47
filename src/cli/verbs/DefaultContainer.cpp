#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/ItemText.h"
#include "cli/output/Text.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

class DefaultContainerVerb : public Verb {
public:
    const char* name() const override { return "default-container"; }
    const char* summary() const override { return "Show where an application's documents are kept"; }
    const char* example() const override { return "tarnwell default-container org.example.Notes"; }
    void declare(CLI::App& command) override {
        command.add_option("BUNDLE", bundle_, "The application's identifier, such as org.example.Notes")->required();
    }

    Outcome run(Invocation& invocation) override {
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        // As its library is written everywhere else.
        const std::string bundle = bundle_.starts_with('#') ? bundle_.substr(1) : bundle_;
        const auto item = (*session)->defaultContainer(bundle);
        if (!item) {
            // It holds the rest of a sentence.
            return std::unexpected(Failure{ExitStatus::failed,
                                           "there is no default container for \"" + toDisplay(bundle_) +
                                               "\": " + failureOf(item.error()).message +
                                               "; \"tarnwell apps\" lists those that have one",
                                           item.error()});
        }
        if (invocation.json()) {
            invocation.output().line(jsonLine(itemJson(*item)));
        } else {
            writeRecord(invocation.output(), *item);
        }
        return {};
    }

private:
    std::string bundle_;
};

}  // namespace

std::unique_ptr<Verb> makeDefaultContainerVerb() { return std::make_unique<DefaultContainerVerb>(); }

}  // namespace tarnwell::cli

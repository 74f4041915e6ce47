#include "host/KnownLibraries.h"

#include "cli/output/Text.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

/// What completions of shells ask: hidden, silent about whatever is wrong, and as quick as reading one small file.
class KnownLibrariesVerb : public Verb {
public:
    const char* name() const override { return "__libraries"; }
    const char* summary() const override { return "List the identifiers of the app libraries that are known"; }
    const char* example() const override { return "tarnwell __libraries"; }
    void declare(CLI::App& command) override { command.group(""); }

    Outcome run(Invocation& invocation) override {
        const auto settings = host::Settings::fromEnvironment(invocation.options().storage);
        if (!settings) return {};
        for (const std::string& identifier : host::knownLibraries(*settings)) {
            // One that would look otherwise on a line of its own cannot be completed.
            if (toDisplay(identifier) == identifier) invocation.output().line(identifier);
        }
        return {};
    }
};

}  // namespace

std::unique_ptr<Verb> makeKnownLibrariesVerb() { return std::make_unique<KnownLibrariesVerb>(); }

}  // namespace tarnwell::cli

#include <nlohmann/json.hpp>

#include "cli/output/Complaint.h"
#include "cli/output/Dates.h"
#include "cli/output/ItemJson.h"
#include "cli/output/Text.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

class CleanTrashVerb : public Verb {
public:
    const char* name() const override { return "clean-trash"; }
    const char* summary() const override { return "Remove for good what has been in a trash for too long"; }
    const char* example() const override {
        return "tarnwell clean-trash --older-than 30d     s, m, h, d or w; what bears no date is dated now, and stays";
    }
    void declare(CLI::App& command) override {
        command.add_option("--older-than", olderThan_, "How long is too long, such as 30d or 12h")
            ->required()
            ->type_name("AGE")
            ->check([](const std::string& text) {
                return durationOfText(text) ? std::string()
                                            : "\"" + toDisplay(text) + "\" is no age such as 30d or 12h";
            });
    }

    Outcome run(Invocation& invocation) override {
        const auto age = durationOfText(olderThan_);
        if (!age) return std::unexpected(Failure{ExitStatus::usage, "--older-than needs an age such as 30d or 12h"});
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        // True of each library whose trash was never used.
        invocation.ignoreInLog("can't create file enumerator at ");
        const auto cleaned = (*session)->cleanTrash(std::chrono::system_clock::now() - *age);
        if (!cleaned) return std::unexpected(failureOf("cannot clean", "the trash", cleaned.error()));
        Output& output = invocation.output();
        for (const std::string& path : cleaned->removed) {
            output.line(invocation.json() ? jsonLine({{"removed", toUtf8(path)}})
                                          : output.paint(Style::bad, "removed") + "  " + toDisplay(path));
        }
        if (!cleaned->left.empty()) return std::unexpected(cannotRemove(invocation, cleaned->left));
        if (cleaned->removed.empty() && !invocation.json()) output.line("Nothing in a trash is that old.");
        return {};
    }

private:
    static Failure cannotRemove(Invocation& invocation, const std::vector<std::string>& left) {
        for (const auto& line : invocation.heldLines()) complain(toDisplay(line));
        return {ExitStatus::failed, "cannot remove \"" + toDisplay(left.front()) + "\"" +
                                        (left.size() == 1 ? "" : " and " + grouped(left.size() - 1) + " more")};
    }

    std::string olderThan_;
};

}  // namespace

std::unique_ptr<Verb> makeCleanTrashVerb() { return std::make_unique<CleanTrashVerb>(); }

}  // namespace tarnwell::cli

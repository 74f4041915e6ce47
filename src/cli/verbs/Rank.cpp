#include <charconv>

#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/ItemBatch.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

std::optional<std::uint64_t> rankOfText(const std::string& text) {
    std::uint64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, problem] = std::from_chars(text.data(), end, number);
    return problem == std::errc{} && stopped == end ? std::optional(number) : std::nullopt;
}

class RankVerb : public Verb {
public:
    const char* name() const override { return "rank"; }
    const char* summary() const override { return "Set an item's place among the favourites, or clear it"; }
    const char* example() const override {
        return "tarnwell rank '#org.example.Notes' 1\n"
               "tarnwell rank did=17 --clear";
    }
    void declare(CLI::App& command) override {
        command.add_option("ITEM", item_, kItemHelp)->required();
        const auto* rank =
            command.add_option("N", rank_, "A whole number, 0 or more")->check([](const std::string& text) {
                return rankOfText(text) ? std::string() : "\"" + toDisplay(text) + "\" is no whole number of 64 bits";
            });
        const auto* clear = command.add_flag("--clear", clear_, "No favourite any more");
        command.final_callback([rank, clear] {
            if ((rank->count() > 0) == (clear->count() > 0)) throw CLI::RequiredError("N, or --clear,");
        });
    }

    Outcome run(Invocation& invocation) override {
        return forEachItem(invocation, "cannot rank", clear_ ? "cleared" : "ranked", {item_},
                           [&](session::Session& session, const session::ItemIdentifier& item) {
                               return session.setRank(item, clear_ ? std::nullopt : rankOfText(rank_));
                           });
    }

private:
    std::string item_, rank_;
    bool clear_ = false;
};

}  // namespace

std::unique_ptr<Verb> makeRankVerb() { return std::make_unique<RankVerb>(); }

}  // namespace tarnwell::cli

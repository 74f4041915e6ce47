#include <chrono>

#include "cli/output/Dates.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/ItemBatch.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

constexpr const char* kNow = "now";

class UsedVerb : public Verb {
public:
    const char* name() const override { return "used"; }
    const char* summary() const override { return "Set the date at which an item was last used, or clear it"; }
    const char* example() const override {
        return "tarnwell used did=17 now\n"
               "tarnwell used did=17 2024-05-01T14:00     local time; 2024-05-01T12:00Z is the same in Berlin";
    }
    void declare(CLI::App& command) override {
        command.add_option("ITEM", item_, kItemHelp)->required();
        const auto* date = command.add_option("DATE", date_, "now, or a date such as 2024-05-01 or 2024-05-01T14:00Z")
                               ->check([](const std::string& text) {
                                   return text == kNow || dateOfText(text)
                                              ? std::string()
                                              : "\"" + toDisplay(text) + "\" is no date such as 2024-05-01T14:00";
                               });
        const auto* clear = command.add_flag("--clear", clear_, "No date any more");
        command.final_callback([date, clear] {
            if ((date->count() > 0) == (clear->count() > 0)) throw CLI::RequiredError("DATE, or --clear,");
        });
    }

    Outcome run(Invocation& invocation) override {
        std::optional<Date> date;
        if (!clear_) date = date_ == kNow ? std::optional<Date>(std::chrono::system_clock::now()) : dateOfText(date_);
        return forEachItem(invocation, "cannot date", clear_ ? "cleared" : "dated", {item_},
                           [&](session::Session& session, const session::ItemIdentifier& item) {
                               return session.setLastUsed(item, date);
                           });
    }

private:
    std::string item_, date_;
    bool clear_ = false;
};

}  // namespace

std::unique_ptr<Verb> makeUsedVerb() { return std::make_unique<UsedVerb>(); }

}  // namespace tarnwell::cli

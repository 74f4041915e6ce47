#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/ItemText.h"
#include "cli/output/Progress.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/Verb.h"
#include "platform/base/NameOrder.h"
#include "session/Listing.h"
#include "session/OnlyOne.h"

namespace tarnwell::cli {
namespace {

class LsVerb : public Verb {
public:
    const char* name() const override { return "ls"; }
    const char* summary() const override { return "List what a folder, an app library or the whole device holds"; }
    const char* example() const override {
        return "tarnwell ls root --recursive --sort date     everything, the newest first\n"
               "tarnwell --json ls '#org.example.Notes'      one application's documents, one JSON object a line";
    }
    void declare(CLI::App& command) override {
        command.add_option("ITEM", item_, std::string("What to list: ") + kItemHelp + "; root without it");
        command.add_flag("-r,--recursive", recursive_, "Also what lies in the folders below");
        command.add_option("-s,--sort", sort_, "name, or date (newest first); the order of coming without it")
            ->check(CLI::IsMember({"name", "date"}));
    }

    Outcome run(Invocation& invocation) override {
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        const auto container = resolveItem(invocation, "cannot list", item_);
        if (!container) return std::unexpected(container.error());
        if (auto checked = checkFolder(**session, *container); !checked) return checked;

        auto items = list(**session, *container);
        if (!items) return std::unexpected(failureOf("cannot list", item_, items.error()));
        if (sort_ == "name") {
            std::ranges::stable_sort(*items, NameOrder(), &session::ListedItem::path);
        } else if (sort_ == "date") {
            std::ranges::stable_sort(*items, std::ranges::greater(),
                                     [](const auto& listed) { return listed.item.contentModificationDate; });
        }
        write(invocation, *items);
        return {};
    }

private:
    /// A document has no contents to list.
    Outcome checkFolder(session::Session& session, const session::ItemIdentifier& container) const {
        if (container == session::kWorkingSetContainer || container == session::kAllDirectoriesContainer) {
            return {};
        }
        const auto item = session::onlyOne(session.items({container}));
        if (!item) return std::unexpected(failureOf("cannot list", item_, item.error()));
        if (!item->isFolder) return refused("it is no folder; \"tarnwell info\" shows it");
        // A listing leaves out what it cannot read; a person who asks for just that should be told.
        if (::access(item->path.c_str(), R_OK | X_OK) != 0 && errno == EACCES) {
            return refused("it may not be read; give this person read and search permission for it");
        }
        return {};
    }

    std::unexpected<Failure> refused(const std::string& reason) const {
        return std::unexpected(Failure{ExitStatus::failed, "cannot list \"" + toDisplay(item_) + "\": " + reason});
    }

    Result<std::vector<session::ListedItem>> list(session::Session& session,
                                                  const session::ItemIdentifier& container) const {
        Progress progress;
        session::ListingOptions options;
        options.depth = recursive_ ? session::Depth::recursive : session::Depth::direct;
        options.progress = [&](std::size_t count) { progress.show("listing: " + grouped(count) + " items"); };
        return session::listContainer(session, container, options);
    }

    static void write(Invocation& invocation, const std::vector<session::ListedItem>& items) {
        if (invocation.json()) {
            for (const auto& listed : items) invocation.output().line(jsonLine(itemJson(listed.item)));
            return;
        }
        Table table = listingTable();
        for (const auto& listed : items) table.add(listingRow(listed.item, listed.path));
        table.write(invocation.output());
    }

    std::string item_ = "root";
    std::string sort_;
    bool recursive_ = false;
};

}  // namespace

std::unique_ptr<Verb> makeLsVerb() { return std::make_unique<LsVerb>(); }

}  // namespace tarnwell::cli

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "cli/output/Complaint.h"
#include "cli/output/ItemJson.h"
#include "cli/output/ItemText.h"
#include "cli/output/NameOrder.h"
#include "cli/output/Progress.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/Verb.h"
#include "host/SearchCatchUp.h"
#include "platform/search/Words.h"

namespace tarnwell::cli {
namespace {

using hostframework::ItemIdentifier;
using hostframework::ProviderItemPtr;

constexpr const char* kWhat = "cannot search in";

/// The names that lead from the top to items; each folder is looked up once.
class Places {
public:
    explicit Places(hostframework::ProviderExtension& provider) : provider_(provider) {}

    std::string pathOf(const hostframework::ProviderItem& item) {
        return pathOfFolder(item.parentItemIdentifier(), 0) + item.filename();
    }

private:
    /// With a slash at its end; empty for the top, and for a folder that went meanwhile.
    std::string pathOfFolder(const ItemIdentifier& folder, int depth) {
        // No path of the system is deeper; a move between two look-ups could make a circle.
        constexpr int kDeepest = 2048;
        if (folder == hostframework::kRootContainer || depth == kDeepest) return {};
        if (const auto known = paths_.find(folder); known != paths_.end()) return known->second;
        const auto item = provider_.itemForIdentifier(folder);
        std::string path;
        if (item) path = pathOfFolder((*item)->parentItemIdentifier(), depth + 1) + (*item)->filename() + "/";
        return paths_.emplace(folder, std::move(path)).first->second;
    }

    hostframework::ProviderExtension& provider_;
    std::unordered_map<ItemIdentifier, std::string> paths_;
};

std::unexpected<Failure> wrongQuery(const std::string& message) {
    return std::unexpected(
        Failure{ExitStatus::usage, "cannot search: " + toDisplay(message) + "; see tarnwell search --help"});
}

std::string messageOf(const Error& error) {
    const auto message = error.userInfo.find(kErrorMessage);
    return message != error.userInfo.end() ? message->second : describe(error);
}

class SearchVerb : public Verb {
public:
    const char* name() const override { return "search"; }
    const char* summary() const override { return "Find items by name, tag and type, in all libraries"; }
    const char* example() const override {
        return "tarnwell search annual rep                       names with words that begin so; accents do not count\n"
               "tarnwell search '\"annual report\" -draft'         these words side by side, and not that one\n"
               "tarnwell search 'tag:urgent type:pdf in:Notes'   also tag:ber*, type:image, type:text/plain, "
               "type:folder\n"
               "tarnwell search --tag urgent --sort date         the newest first; -- before a QUERY that begins with "
               "-";
    }
    void declare(CLI::App& command) override {
        command.add_option(
            "QUERY", words_,
            "Words, \"words side by side\", tag:TAG, type:TYPE, in:LIBRARY, and -… for what must not be; "
            "all together are one query, best in single quotes");
        command.add_option("--in", in_, std::string("Only what lies below it: ") + kItemHelp)->type_name("ITEM");
        command.add_option("--type", types_, "pdf, image, text/plain, folder, file …; one of several")
            ->type_name("TYPE")
            ->allow_extra_args(false);
        command.add_option("--tag", tags_, "A whole tag, or its beginning and a star; each of several")
            ->type_name("TAG")
            ->allow_extra_args(false);
        command.add_flag("--trashed", trashed_, "Also what is in the trash");
        command.add_option("--limit", limit_, "So many at most; 0 for all")
            ->type_name("N")
            ->capture_default_str()
            ->check(CLI::NonNegativeNumber);
        command.add_option("-s,--sort", sort_, "relevance, name, or date (newest first)")
            ->capture_default_str()
            ->check(CLI::IsMember({"relevance", "name", "date"}));
    }

    Outcome run(Invocation& invocation) override {
        search::Search search;
        if (auto read = readQuery(search); !read) return read;
        auto ready = invocation.context();
        if (!ready) return std::unexpected(ready.error());
        // Then the index is filled anew, which is all there is to it.
        invocation.ignoreInLog("need to restart from scratch");
        invocation.ignoreInLog("can't create change token from anchor data");
        if (auto placed = resolvePlaces(invocation, **ready, search); !placed) return placed;
        auto hits = find(**ready, search);
        // The index has begun a new file.
        if (!hits && host::isDamagedIndex(hits.error())) hits = find(**ready, search);
        if (!hits && hits.error().is(ErrorDomain::posix, EINVAL)) return wrongQuery(messageOf(hits.error()));
        if (!hits) return std::unexpected(failureOf(hits.error()));
        show(invocation, **ready, *hits);
        return {};
    }

private:
    Outcome readQuery(search::Search& search) const {
        std::string text;
        for (const std::string& word : words_) text += (text.empty() ? "" : " ") + word;
        auto query = search::parseQuery(text);
        if (!query) return wrongQuery(messageOf(query.error()));
        search.query = std::move(*query);
        for (const std::string& type : types_) {
            if (type.empty()) return wrongQuery("--type needs a type, such as pdf");
            search.query.wanted.types.push_back(type);
        }
        for (const std::string& tag : tags_) {
            if (tag.empty()) return wrongQuery("--tag needs a tag");
            search.query.wanted.tags.push_back(search::tagFilter(tag));
        }
        if (search.query.empty() && in_.empty()) {
            return wrongQuery("nothing is looked for; name a word, a tag or a type");
        }
        search.withTrashed = trashed_;
        search.order = sort_ == "date" ? search::Order::newestFirst : search::Order::relevance;
        return {};
    }

    Outcome resolvePlaces(Invocation& invocation, host::ProgramContext& context, search::Search& search) const {
        if (!in_.empty()) {
            const auto folder = resolveItem(invocation, kWhat, in_);
            if (!folder) return std::unexpected(folder.error());
            if (auto added = addPlace(context, in_, *folder, search.below); !added) return added;
        }
        for (const std::string& place : search.query.wanted.places) {
            if (auto added = addNamed(context, place, search.below); !added) return added;
        }
        for (const std::string& place : search.query.excluded.places) {
            if (auto added = addNamed(context, place, search.notBelow); !added) return added;
        }
        return {};
    }

    /// A library by its name, or whatever an identifier names.
    static Outcome addNamed(host::ProgramContext& context, const std::string& place,
                            std::vector<std::string>& folders) {
        for (const auto& library : context.appLibraries().sharedManager().appLibraryItems()) {
            if (search::lowered(library->filename()) != search::lowered(place)) continue;
            folders.push_back(library->itemIdentifier());
            return {};
        }
        if (place == "root") return addPlace(context, place, hostframework::kRootContainer, folders);
        if (place.starts_with('#') || place.starts_with("fid=")) return addPlace(context, place, place, folders);
        return wrongQuery("there is no library \"" + place + "\" to look in; \"tarnwell apps\" lists them");
    }

    static Outcome addPlace(host::ProgramContext& context, const std::string& text, const ItemIdentifier& folder,
                            std::vector<std::string>& folders) {
        if (folder == hostframework::kWorkingSetContainer || folder == hostframework::kAllDirectoriesContainer) {
            folders.push_back(hostframework::kRootContainer);
            return {};
        }
        const auto item = context.provider().itemForIdentifier(folder);
        if (!item) return std::unexpected(failureOf(kWhat, text, item.error()));
        if (!(*item)->isFolder()) {
            return std::unexpected(
                Failure{ExitStatus::failed, std::string(kWhat) + " \"" + toDisplay(text) + "\": it is no folder"});
        }
        folders.push_back(folder);
        return {};
    }

    /// In what is there now.
    static Result<std::vector<search::Hit>> find(host::ProgramContext& context, const search::Search& search) {
        Progress progress;
        host::SearchCatchUp catchUp(context.provider(), context.searchIndex());
        catchUp.reportTo(
            [&](std::size_t count) { progress.show("making the search index: " + grouped(count) + " items"); });
        if (auto caughtUp = catchUp.run(); !caughtUp) return failure(caughtUp.error());
        return context.searchIndex().find(search);
    }

    /// Each is looked up again: nothing is shown as the index remembers it.
    void show(Invocation& invocation, host::ProgramContext& context, std::vector<search::Hit> hits) const {
        if (sort_ == "name") std::ranges::stable_sort(hits, NameOrder(), &search::Hit::name);
        Table table = listingTable();
        Places places(context.provider());
        std::size_t shown = 0, looked = 0;
        for (; looked < hits.size() && (limit_ == 0 || shown < limit_); ++looked) {
            const auto item = context.provider().itemForIdentifier(hits[looked].key);
            if (!item || ((*item)->isTrashed() && !trashed_)) continue;
            ++shown;
            if (invocation.json()) {
                invocation.output().line(jsonLine(itemJson(**item, context.roots())));
            } else {
                table.add(listingRow(**item, places.pathOf(**item)));
            }
            if (invocation.output().failed()) return;
        }
        table.write(invocation.output());
        invocation.output().flush();
        if (shown == 0) complain("nothing found");
        if (looked < hits.size()) {
            complain(grouped(hits.size() - looked) + " more; --limit 0 shows all");
        }
    }

    std::vector<std::string> words_, types_, tags_;
    std::string in_, sort_ = "relevance";
    std::size_t limit_ = 100;
    bool trashed_ = false;
};

}  // namespace

std::unique_ptr<Verb> makeSearchVerb() { return std::make_unique<SearchVerb>(); }

}  // namespace tarnwell::cli

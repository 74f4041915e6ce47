#include <cerrno>
#include <nlohmann/json.hpp>

#include "cli/output/Complaint.h"
#include "cli/output/ItemJson.h"
#include "cli/output/ItemText.h"
#include "cli/output/Progress.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/Verb.h"
#include "platform/base/NameOrder.h"
#include "platform/search/Query.h"
#include "session/OnlyOne.h"

namespace tarnwell::cli {
namespace {

constexpr const char* kWhat = "cannot search in";

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
        session::SearchRequest request;
        if (auto read = readQuery(request); !read) return read;
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        // Then the index is filled anew, which is all there is to it.
        invocation.ignoreInLog("need to restart from scratch");
        invocation.ignoreInLog("can't create change token from anchor data");
        if (!in_.empty()) {
            auto folder = resolveFolder(invocation, **session);
            if (!folder) return std::unexpected(folder.error());
            request.below = std::move(*folder);
        }
        auto found = find(**session, request);
        if (!found) return std::unexpected(failureFor(found.error()));
        show(invocation, *found);
        return {};
    }

private:
    /// A query that is none is refused before anything is opened.
    Outcome readQuery(session::SearchRequest& request) const {
        for (const std::string& word : words_) request.query += (request.query.empty() ? "" : " ") + word;
        const auto query = search::parseQuery(request.query);
        if (!query) return wrongQuery(messageOf(query.error()));
        for (const std::string& type : types_) {
            if (type.empty()) return wrongQuery("--type needs a type, such as pdf");
        }
        for (const std::string& tag : tags_) {
            if (tag.empty()) return wrongQuery("--tag needs a tag");
        }
        if (query->empty() && types_.empty() && tags_.empty() && in_.empty()) {
            return wrongQuery("nothing is looked for; name a word, a tag or a type");
        }
        request.types = types_;
        request.tags = tags_;
        request.withTrashed = trashed_;
        request.limit = limit_;
        if (sort_ == "date") request.order = session::SearchRequest::Order::newestFirst;
        if (sort_ == "name") {
            request.order = session::SearchRequest::Order::byName;
            request.locale = NameOrder::localeOfSession();
        }
        return {};
    }

    std::expected<session::ItemIdentifier, Failure> resolveFolder(Invocation& invocation,
                                                                  session::Session& session) const {
        auto folder = resolveItem(invocation, kWhat, in_);
        if (!folder || *folder == session::kWorkingSetContainer || *folder == session::kAllDirectoriesContainer) {
            return folder;
        }
        const auto item = session::onlyOne(session.items({*folder}));
        if (!item) return std::unexpected(failureOf(kWhat, in_, item.error()));
        if (!item->isFolder) return std::unexpected(failureOf(kWhat, in_, posixError(ENOTDIR, "it is no folder")));
        return folder;
    }

    static Failure failureFor(const Error& error) {
        if (error.is(ErrorDomain::posix, EINVAL)) return wrongQuery(messageOf(error)).error();
        const auto place = error.userInfo.find(session::kErrorItemIdentifier);
        return place != error.userInfo.end() ? failureOf(kWhat, place->second, error) : failureOf(error);
    }

    static Result<session::SearchResult> find(session::Session& session, const session::SearchRequest& request) {
        Progress progress;
        return session.search(request, [&](std::uint64_t count) {
            progress.show("making the search index: " + grouped(count) + " items");
        });
    }

    static void show(Invocation& invocation, const session::SearchResult& found) {
        Table table = listingTable();
        for (const auto& [item, place] : found.items) {
            if (invocation.json()) {
                invocation.output().line(jsonLine(itemJson(item)));
            } else {
                table.add(listingRow(item, place));
            }
            if (invocation.output().failed()) return;
        }
        table.write(invocation.output());
        invocation.output().flush();
        if (found.items.empty()) complain("nothing found");
        if (found.more > 0) complain(grouped(found.more) + " more; --limit 0 shows all");
    }

    std::vector<std::string> words_, types_, tags_;
    std::string in_, sort_ = "relevance";
    std::size_t limit_ = 100;
    bool trashed_ = false;
};

}  // namespace

std::unique_ptr<Verb> makeSearchVerb() { return std::make_unique<SearchVerb>(); }

}  // namespace tarnwell::cli

#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/Table.h"
#include "cli/output/Text.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

class StatusVerb : public Verb {
public:
    const char* name() const override { return "status"; }
    const char* summary() const override { return "Show how changes are found, and how much is known"; }
    const char* example() const override {
        return "tarnwell status          a command compares when it is asked; \"changes --follow\" lets the kernel "
               "tell";
    }

    Outcome run(Invocation& invocation) override {
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        const auto status = (*session)->status();
        if (!status) return std::unexpected(failureOf(status.error()));
        if (invocation.json()) {
            writeJson(invocation.output(), *status);
        } else {
            writeText(invocation.output(), *status);
        }
        return {};
    }

private:
    static void writeJson(Output& output, const session::Status& status) {
        for (const auto& root : status.roots) {
            nlohmann::ordered_json json = {{"root", toUtf8(root.path)},
                                           {"available", root.isAvailable},
                                           {"source", root.source},
                                           {"liveSource", root.liveSource}};
            if (!isUtf8(root.path)) json["rootBytes"] = base64(bytesOf(root.path));
            output.line(jsonLine(json));
        }
        output.line(jsonLine({{"watches", status.watches},
                              {"polledFolders", status.polledFolders},
                              {"queued", status.queued},
                              {"queueLimit", status.queueLimit},
                              {"overflows", status.overflows},
                              {"objects", status.objects},
                              {"databaseBytes", status.databaseBytes},
                              {"journalBegin", status.journalBegin},
                              {"journalEnd", status.journalEnd},
                              {"departures", status.departures},
                              {"lastCompared", dateOrNull(status.lastCompared)},
                              {"search", searchJson(status)}}));
    }

    static nlohmann::ordered_json dateOrNull(const std::optional<Date>& date) {
        return date ? nlohmann::ordered_json(iso8601(*date)) : nlohmann::ordered_json(nullptr);
    }

    static nlohmann::ordered_json searchJson(const session::Status& status) {
        if (status.searchProblem) return {{"problem", failureOf(*status.searchProblem).message}};
        const auto& search = status.search;
        if (!search) return nullptr;
        return {{"items", search->items},
                {"databaseBytes", search->databaseBytes},
                {"caughtUp", dateOrNull(search->caughtUp)}};
    }

    static std::string searchText(const session::Status& status) {
        if (status.searchProblem) return failureOf(*status.searchProblem).message;
        const auto& search = status.search;
        if (!search) return "not made yet; the first \"tarnwell search\" makes it";
        return grouped(search->items) + " items, " + humanSize(search->databaseBytes) + ", " +
               (search->caughtUp ? "up to date at " + localTime(*search->caughtUp) : "not complete yet");
    }

    static void writeText(Output& output, const session::Status& status) {
        Table roots({{"ROOT"}, {"STATE"}, {"SOURCE"}, {"WHEN FOLLOWING"}});
        for (const auto& root : status.roots) {
            roots.add(
                {{toDisplay(root.path)},
                 {root.isAvailable ? "available" : "unavailable", root.isAvailable ? Style::good : Style::warning},
                 {root.source},
                 {root.liveSource}});
        }
        roots.write(output);
        output.line("");
        Table facts({{"WHAT"}, {"FOUND"}});
        facts.add({{"index"}, {grouped(status.objects) + " objects, " + humanSize(status.databaseBytes)}});
        facts.add({{"journal"},
                   {"positions " + grouped(status.journalBegin) + " to " + grouped(status.journalEnd) + ", " +
                    grouped(status.departures) + " records of what left"}});
        facts.add(
            {{"last compared"}, {status.lastCompared ? localTime(*status.lastCompared) : std::string("never yet")}});
        facts.add({{"search index"}, {searchText(status)}});
        facts.add({{"watches"},
                   {grouped(status.watches) + " directories, " + grouped(status.polledFolders) + " only polled"}});
        facts.add({{"kernel queue"},
                   {grouped(status.queued) + " of " + grouped(status.queueLimit) + " events, overflowed " +
                    grouped(status.overflows) + " times in this run"}});
        facts.write(output);
    }
};

}  // namespace

std::unique_ptr<Verb> makeStatusVerb() { return std::make_unique<StatusVerb>(); }

}  // namespace tarnwell::cli

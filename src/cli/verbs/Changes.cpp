#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "cli/verbs/Verb.h"
#include "host/Signals.h"

namespace tarnwell::cli {
namespace {

constexpr const char* kWhat = "cannot tell the changes of";

class ChangesVerb : public Verb {
public:
    const char* name() const override { return "changes"; }
    const char* summary() const override { return "Tell what changed in a container since an anchor"; }
    const char* example() const override {
        return "tarnwell changes root --since \"$(cat last-seen)\"     what changed since then, and the next anchor\n"
               "tarnwell --json changes workingset --follow          every change from now on, one JSON object a line";
    }
    void declare(CLI::App& command) override {
        command.add_option("ITEM", item_, std::string(kItemHelp) + "; root without it");
        sinceOption_ =
            command.add_option("--since", since_, "The anchor up to which everything is known")->type_name("ANCHOR");
        auto* follow = command.add_flag("-f,--follow", follow_,
                                        "Go on telling until interrupted; without --since, what comes from now on");
        command.final_callback([since = sinceOption_, follow] {
            if (since->count() == 0 && follow->count() == 0) {
                throw CLI::RequiredError("--since, or --follow,");
            }
        });
    }

    Outcome run(Invocation& invocation) override {
        std::optional<host::InterruptGuard> interrupts;
        if (follow_) interrupts.emplace();
        auto outcome = tell(invocation, interrupts);
        if (outcome || !interrupts || !interrupts->wasInterrupted()) return outcome;
        // What failed then did so because of it, and was logged for nobody.
        (void)invocation.heldLines();
        return {};
    }

private:
    Outcome tell(Invocation& invocation, const std::optional<host::InterruptGuard>& interrupts) const {
        std::optional<Bytes> anchor;
        if (sinceOption_->count() > 0) {
            anchor = bytesOfBase64(since_);
            // Not even the text of one: the same as one that nobody knows any more.
            if (!anchor) {
                return std::unexpected(expired(invocation, {ErrorDomain::host, session::kSyncAnchorExpired, {}}));
            }
        }
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        std::optional<host::InterruptWatch> atTheEnd;
        if (follow_) atTheEnd.emplace(*interrupts, [&invocation] { invocation.giveUp(); });
        const auto container = resolveItem(invocation, kWhat, item_);
        if (!container) return std::unexpected(container.error());
        // Before the first look, so that nothing falls between it and the waiting.
        const auto wakeup = std::make_shared<host::Wakeup>();
        std::unique_ptr<session::Watch> watch;
        if (follow_) {
            auto watching = (*session)->watch(*container, [wakeup] { wakeup->signal(); });
            if (!watching) return std::unexpected(failureOf(kWhat, item_, watching.error()));
            watch = std::move(*watching);
        }
        if (!anchor) {
            auto now = (*session)->currentAnchor(*container);
            if (!now) return std::unexpected(failureOf(kWhat, item_, now.error()));
            if (!*now) {
                return std::unexpected(Failure{ExitStatus::failed, std::string(kWhat) + " \"" + toDisplay(item_) +
                                                                       "\": they cannot be told on this device"});
            }
            anchor = std::move(**now);
        }
        for (bool isFirst = true;; isFirst = false) {
            auto told = tellAll(invocation, **session, *container, *anchor, isFirst);
            if (!told) {
                // What is given up is no error to tell of; `run` makes a good end of it.
                const bool isGivenUp = interrupts && interrupts->wasInterrupted();
                return std::unexpected(isGivenUp ? failureOf(kWhat, item_, told.error())
                                                 : failed(invocation, told.error()));
            }
            if (!follow_ || invocation.output().failed()) return {};
            if (wakeup->wait(*interrupts) == host::Wakeup::Woken::byInterrupt) return {};
        }
    }

    /// All batches until nothing more is coming; the anchor is the one to keep then.
    static Result<void> tellAll(Invocation& invocation, session::Session& session,
                                const session::ItemIdentifier& container, Bytes& anchor, bool evenNothing) {
        for (;;) {
            auto batch = session.changes(container, anchor);
            if (!batch) return failure(batch.error());
            anchor = batch->anchor;
            if (evenNothing || !batch->changes.empty()) write(invocation, *batch);
            if (!batch->moreComing || invocation.output().failed()) return {};
        }
    }

    Failure failed(Invocation& invocation, const Error& error) const {
        if (error.is(ErrorDomain::host, session::kSyncAnchorExpired)) return expired(invocation, error);
        // There is nothing of which changes could be told.
        if (!error.is(ErrorDomain::host, session::kNoSuchItem)) writeError(invocation, error);
        return failureOf(kWhat, item_, error);
    }

    static void write(Invocation& invocation, const session::ChangeBatch& batch) {
        Output& output = invocation.output();
        for (const auto& change : batch.changes) {
            if (invocation.json()) {
                output.line(jsonLine(change.item ? nlohmann::ordered_json{{"update", itemJson(*change.item)}}
                                                 : nlohmann::ordered_json{{"delete", toUtf8(change.identifier)}}));
            } else if (change.item) {
                output.line(output.paint(Style::good, "update") + "  " + toDisplay(change.item->identifier) + "  " +
                            toDisplay(change.item->path));
            } else {
                output.line(output.paint(Style::bad, "delete") + "  " + toDisplay(change.identifier));
            }
        }
        const std::string anchor = base64(batch.anchor);
        if (invocation.json()) {
            output.line(jsonLine({{"anchor", anchor}, {"moreComing", batch.moreComing}}));
        } else if (!batch.moreComing) {
            output.line(output.paint(Style::dim, "anchor  " + anchor));
        }
        output.flush();
    }

    static void writeError(Invocation& invocation, const Error& error) {
        if (!invocation.json()) return;
        invocation.output().line(jsonLine(
            {{"error",
              {{"domain", nameOf(error.domain)}, {"code", error.code}, {"message", toDisplay(describe(error))}}}}));
    }

    Failure expired(Invocation& invocation, const Error& error) const {
        writeError(invocation, error);
        return {ExitStatus::anchorExpired, std::string(kWhat) + " \"" + toDisplay(item_) +
                                               "\": the anchor has expired; list it anew, and take an anchor with "
                                               "\"tarnwell anchor\" before"};
    }

    std::string item_ = "root";
    std::string since_;
    /// Given and empty is an anchor that nobody knows, not none.
    const CLI::Option* sinceOption_ = nullptr;
    bool follow_ = false;
};

}  // namespace

std::unique_ptr<Verb> makeChangesVerb() { return std::make_unique<ChangesVerb>(); }

}  // namespace tarnwell::cli

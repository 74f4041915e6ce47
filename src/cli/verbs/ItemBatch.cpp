#include "cli/verbs/ItemBatch.h"

#include <nlohmann/json.hpp>

#include "cli/output/Complaint.h"
#include "cli/output/ItemJson.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"

namespace tarnwell::cli {

namespace {

nlohmann::ordered_json errorJson(const Failure& failure) {
    nlohmann::ordered_json json = {{"domain", nullptr}, {"code", nullptr}, {"message", failure.message}};
    if (failure.cause) {
        json["domain"] = nameOf(failure.cause->domain);
        json["code"] = failure.cause->code;
    }
    return json;
}

}  // namespace

ItemBatch::ItemBatch(Invocation& invocation, std::string cannot, std::string done, std::size_t total)
    : invocation_(invocation), cannot_(std::move(cannot)), done_(std::move(done)), total_(total) {}

void ItemBatch::add(const std::string& given, const Result<session::Item>& outcome) {
    if (!outcome) return addFailure(given, outcome.error());
    ++succeeded_;
    const session::Item& item = *outcome;
    Output& output = invocation_.output();
    if (invocation_.json()) {
        output.line(jsonLine(itemJson(item)));
    } else {
        output.line(output.paint(Style::good, done_) + "  " + toDisplay(item.identifier) + "  " + toDisplay(item.path));
    }
    output.flush();
}

void ItemBatch::addLine(const std::string& line) {
    ++succeeded_;
    invocation_.output().line(line);
    invocation_.output().flush();
}

void ItemBatch::addRaw(std::string_view bytes) {
    ++succeeded_;
    invocation_.output().raw(bytes);
    invocation_.output().flush();
}

void ItemBatch::addRemoved(const session::Removed& removed) {
    ++succeeded_;
    Output& output = invocation_.output();
    output.line(invocation_.json() ? jsonLine({{"delete", toUtf8(removed.identifier)}})
                                   : output.paint(Style::bad, done_) + "  " + toDisplay(removed.identifier) + "  " +
                                         toDisplay(removed.path));
    output.flush();
}

void ItemBatch::addFailure(const std::string& given, const Error& error) {
    addFailure(given, failureOf(cannot_, given, error));
}

void ItemBatch::addFailure(const std::string& given, Failure failure) {
    ++failed_;
    if (invocation_.json()) {
        invocation_.output().line(jsonLine({{"error", errorJson(failure)}, {"item", toUtf8(given)}}));
    }
    // What went well before should stand before it.
    invocation_.output().flush();
    if (total_ == 1) {
        only_ = std::move(failure);
    } else {
        complain(failure.message);
    }
}

Outcome ItemBatch::outcome() const {
    if (only_) return std::unexpected(*only_);
    const std::size_t left = total_ - succeeded_ - failed_;
    if (interrupted_ && left > 0) {
        return std::unexpected(Failure{
            ExitStatus::failed, "interrupted; " + grouped(left) + " of " + grouped(total_) + " items were not begun"});
    }
    if (failed_ == 0) return {};
    return std::unexpected(
        Failure{ExitStatus::failed, cannot_ + " " + grouped(failed_) + " of " + grouped(total_) + " items"});
}

Outcome forEachItem(Invocation& invocation, const std::string& cannot, const std::string& done,
                    const std::vector<std::string>& texts, const ItemOperation& operation) {
    auto session = invocation.session();
    if (!session) return std::unexpected(session.error());
    ItemBatch batch(invocation, cannot, done, texts.size());
    for (const std::string& text : texts) {
        if (const auto item = resolveTarget(invocation, cannot, text)) {
            batch.add(text, operation(**session, *item));
        } else {
            batch.addFailure(text, item.error());
        }
    }
    return batch.outcome();
}

}  // namespace tarnwell::cli

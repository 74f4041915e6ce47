#include "cli/verbs/ItemBatch.h"

#include <nlohmann/json.hpp>

#include "cli/output/Complaint.h"
#include "cli/output/ItemJson.h"
#include "cli/output/Text.h"
#include "cli/verbs/ItemArgument.h"
#include "hostframework/HostError.h"

namespace tarnwell::cli {

using hostframework::ItemIdentifier;
using hostframework::ProviderItemPtr;

namespace {

nlohmann::ordered_json errorJson(const Failure& failure) {
    nlohmann::ordered_json json = {{"domain", nullptr}, {"code", nullptr}, {"message", failure.message}};
    if (failure.cause) {
        json["domain"] = nameOf(failure.cause->domain);
        json["code"] = failure.cause->code;
    }
    return json;
}

/// `a file named "x.txt" is already in "Notes"`.
std::string collisionText(host::ProgramContext& context, const Error& error) {
    const auto found = [&](const char* key) {
        const auto entry = error.userInfo.find(key);
        return entry == error.userInfo.end() ? std::string() : entry->second;
    };
    std::string kind = "something";
    std::string place = "there";
    if (const auto existing = context.provider().itemForIdentifier(found(hostframework::kErrorItemIdentifier))) {
        kind = (*existing)->isFolder() ? "a folder" : "a file";
        const ItemIdentifier& parent = (*existing)->parentItemIdentifier();
        if (parent == hostframework::kRootContainer) {
            place = "in the storage root";
        } else if (const auto folder = context.provider().itemForIdentifier(parent)) {
            place = "in \"" + (*folder)->filename() + "\"";
        }
    }
    return kind + " named \"" + found(hostframework::kErrorItemName) + "\" is already " + place;
}

}  // namespace

Failure operationFailure(host::ProgramContext& context, const std::string& what, const std::string& item,
                         const Error& error) {
    if (!error.is(ErrorDomain::host, hostframework::kFilenameCollision)) return failureOf(what, item, error);
    Error told = error;
    told.userInfo[kErrorMessage] = collisionText(context, error);
    return failureOf(what, item, told);
}

ItemBatch::ItemBatch(Invocation& invocation, host::ProgramContext& context, std::string cannot, std::string done,
                     std::size_t total)
    : invocation_(invocation), context_(context), cannot_(std::move(cannot)), done_(std::move(done)), total_(total) {}

void ItemBatch::add(const std::string& given, const Result<ProviderItemPtr>& outcome) {
    if (!outcome) return addFailure(given, outcome.error());
    ++succeeded_;
    const hostframework::ProviderItem& item = **outcome;
    Output& output = invocation_.output();
    if (invocation_.json()) {
        output.line(jsonLine(itemJson(item, context_.roots())));
    } else {
        output.line(output.paint(Style::good, done_) + "  " + toDisplay(item.itemIdentifier()) + "  " +
                    toDisplay(context_.roots().realPath(item.fileURL().path())));
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

void ItemBatch::addRemoved(const ItemIdentifier& identifier, const std::string& path) {
    ++succeeded_;
    Output& output = invocation_.output();
    output.line(invocation_.json()
                    ? jsonLine({{"delete", toUtf8(identifier)}})
                    : output.paint(Style::bad, done_) + "  " + toDisplay(identifier) + "  " + toDisplay(path));
    output.flush();
}

void ItemBatch::addFailure(const std::string& given, const Error& error) {
    addFailure(given, operationFailure(context_, cannot_, given, error));
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
    auto ready = invocation.context();
    if (!ready) return std::unexpected(ready.error());
    host::ItemOperations operations(**ready);
    ItemBatch batch(invocation, **ready, cannot, done, texts.size());
    for (const std::string& text : texts) {
        if (const auto item = resolveTarget(invocation, cannot, text)) {
            batch.add(text, operation(operations, *item));
        } else {
            batch.addFailure(text, item.error());
        }
    }
    return batch.outcome();
}

}  // namespace tarnwell::cli

#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/verbs/Invocation.h"
#include "session/Session.h"

namespace tarnwell::cli {

/// One operation on several items: a line for each that is done, a complaint for each that fails, which does not keep
/// the others from being done, and one outcome for all.
class ItemBatch {
public:
    /// `cannot` begins complaints ("cannot trash"), `done` the lines ("trashed").
    ItemBatch(Invocation& invocation, std::string cannot, std::string done, std::size_t total);

    /// The item as it is afterwards, or why there is none; `given` is what the person wrote for it.
    void add(const std::string& given, const Result<session::Item>& outcome);
    /// One that was done, with the line that says so.
    void addLine(const std::string& line);
    /// One that was done whose outcome is the output itself.
    void addRaw(std::string_view bytes);
    void addRemoved(const session::Removed& removed);
    void addFailure(const std::string& given, const Error& error);
    void addFailure(const std::string& given, Failure failure);
    /// What was not begun stays as it is.
    void interrupted() { interrupted_ = true; }
    const std::string& cannot() const { return cannot_; }
    Outcome outcome() const;

private:
    Invocation& invocation_;
    const std::string cannot_, done_;
    const std::size_t total_;
    std::size_t succeeded_ = 0, failed_ = 0;
    bool interrupted_ = false;
    std::optional<Failure> only_;
};

/// Does something to each item that the texts name.
using ItemOperation = std::function<Result<session::Item>(session::Session& session, session::ItemIdentifier item)>;
Outcome forEachItem(Invocation& invocation, const std::string& cannot, const std::string& done,
                    const std::vector<std::string>& texts, const ItemOperation& operation);

}  // namespace tarnwell::cli

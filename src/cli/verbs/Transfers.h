#pragma once

#include <string>
#include <vector>

#include "cli/verbs/ItemBatch.h"

namespace tarnwell::cli {

/// How a verb treats each of several things that go into one folder.
struct Transfer {
    std::string cannot;    ///< "cannot move"
    std::string done;      ///< "moved"
    std::string going;     ///< "moving"
    std::string toParent;  ///< "cannot move anything to"
    std::vector<std::string> texts;
    std::string parent;
};

/// Does them in order, with a line on what is under way where it takes long. When the process is asked to end, the job
/// is cancelled: the copy under way is taken back and the rest is not begun.
using TransferStep = std::function<void(session::Session& session, session::JobControl& job, ItemBatch& batch,
                                        const std::string& text, const session::ItemIdentifier& parent)>;
Outcome transferAll(Invocation& invocation, const Transfer& transfer, const TransferStep& step);

}  // namespace tarnwell::cli

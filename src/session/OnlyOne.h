#pragma once

#include <cerrno>
#include <utility>
#include <vector>

#include "platform/base/Result.h"

namespace tarnwell::session {

/// The outcome of a request for one thing.
template <typename T>
Result<T> onlyOne(std::vector<Result<T>> outcomes) {
    if (outcomes.size() != 1) return failure(posixError(EPROTO, "the host did not answer what it was asked"));
    return std::move(outcomes.front());
}

}  // namespace tarnwell::session

#pragma once

#include <string>

#include "bench/Measure.h"

namespace tarnwell::bench {

/// What is asked of GIO: the values that an item holds, or also what its capabilities say (may it be renamed, moved to
/// a trash, deleted) and its name for people.
enum class Question { values, valuesAndCapabilities };

/// Lists a folder with GIO's enumerator, the way that desktop programs take.
Outcome<Tally> listWithGIO(const std::string& folder, Question question);

}  // namespace tarnwell::bench

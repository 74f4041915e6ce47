#pragma once

#include "host/ProgramContext.h"
#include "session/Status.h"

namespace tarnwell::host {

/// What this process knows now.
Result<session::Status> statusOf(ProgramContext& context);

}  // namespace tarnwell::host

#pragma once

#include <functional>
#include <span>

#include "bus/wire/Message.h"
#include "session/Session.h"

/// What the interface offers: for each method how its arguments are read, what is asked of the client's session, and
/// how the answer is written.
namespace tarnwell::bus {

/// Writes an answer; on the connection's thread.
using WriteAnswer = std::move_only_function<void(Writer&)>;
using Answer = Result<WriteAnswer>;

/// Asks the session; on a worker's thread.
using Work = std::move_only_function<Answer(session::Session&)>;
/// The same for what may take long.
using JobWork = std::move_only_function<Answer(session::Session&, session::JobControl&)>;

struct Signature {
    const char* name;
    const char* in;        ///< D-Bus types
    const char* inNames;   ///< separated by blanks
    const char* out;       ///< D-Bus types
    const char* outNames;  ///< separated by blanks
};

/// Whether something is another than before when the method was called.
enum class Effect { none, some };

/// `prepare` reads the arguments on the connection's thread; what it returns is worthless where the reader failed.
struct Method {
    Signature signature;
    Work (*prepare)(Reader&);
    Effect effect = Effect::none;
};
struct JobMethod {
    Signature signature;
    JobWork (*prepare)(Reader&);
};

/// Answered when the session has.
std::span<const Method> methods();
/// Answered at once with the path of a job.
std::span<const JobMethod> jobMethods();

}  // namespace tarnwell::bus

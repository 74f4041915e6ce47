#include "platform/operations/Naming.h"

#include <cerrno>

#include "platform/operations/EntryNames.h"
#include "platform/operations/OperationErrors.h"

namespace tarnwell::operations {

Result<std::string> putUnderName(const OpenFolder& folder, const std::string& name, Taken taken,
                                 const std::function<Result<void>(const std::string&)>& put) {
    FreeNames names(name);
    for (std::string tried = name;;) {
        auto done = put(tried);
        if (done) return tried;
        if (!done.error().is(ErrorDomain::posix, EEXIST)) return failure(done.error());
        const auto next = taken == Taken::freeName ? names.next() : std::nullopt;
        if (!next) return failure(collision(folder.placeOf(tried)));
        tried = *next;
    }
}

}  // namespace tarnwell::operations

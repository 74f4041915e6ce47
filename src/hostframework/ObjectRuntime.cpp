#include "hostframework/ObjectRuntime.h"

#include <utility>

namespace tarnwell::hostframework {

void ObjectRuntime::registerOperation(const std::string& className, const std::string& operation, Operation body) {
    std::lock_guard lock(mutex_);
    operations_.insert_or_assign({className, operation}, std::move(body));
}

std::optional<std::any> ObjectRuntime::perform(const std::string& className, const std::string& operation,
                                               const std::any& argument) const {
    Operation body;
    {
        std::lock_guard lock(mutex_);
        auto found = operations_.find({className, operation});
        if (found == operations_.end()) return std::nullopt;
        body = found->second;
    }
    return body(argument);  // outside the lock: an operation may perform or register others
}

}  // namespace tarnwell::hostframework

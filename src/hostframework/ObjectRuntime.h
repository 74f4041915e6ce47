#pragma once

#include <any>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace tarnwell::hostframework {

/// Classes that code elsewhere reaches by name: a class name and an operation's name lead to a callable. Operations
/// take and return what the registering class documents, in std::any. Any thread may call it.
class ObjectRuntime {
public:
    using Operation = std::function<std::any(const std::any& argument)>;
    void registerOperation(const std::string& className, const std::string& operation, Operation body);
    /// Nothing when no such class or operation is registered.
    std::optional<std::any> perform(const std::string& className, const std::string& operation,
                                    const std::any& argument = {}) const;

private:
    mutable std::mutex mutex_;
    std::map<std::pair<std::string, std::string>, Operation> operations_;
};

}  // namespace tarnwell::hostframework

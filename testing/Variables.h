#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace tarnwell::testing {

/// The environment of a made-up session, as what reads settings asks for it; everything else is unset.
inline std::function<std::optional<std::string>(const char* name)> variables(
    std::map<std::string, std::string> values) {
    return [values = std::move(values)](const char* name) -> std::optional<std::string> {
        const auto found = values.find(name);
        return found == values.end() ? std::nullopt : std::optional(found->second);
    };
}

}  // namespace tarnwell::testing

#pragma once

#include <locale.h>

#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

namespace tarnwell::cli {

/// Paths by their names, in the order of the session's language; equal ones by their bytes.
class NameOrder {
public:
    NameOrder();
    /// Component by component, so that what a folder holds stays together.
    bool operator()(std::string_view first, std::string_view second) const;

private:
    int compare(const std::string& a, const std::string& b) const;
    std::shared_ptr<std::remove_pointer_t<locale_t>> locale_;
};

}  // namespace tarnwell::cli

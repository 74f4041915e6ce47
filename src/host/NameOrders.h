#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <string>

#include "platform/base/NameOrder.h"

namespace tarnwell::host {

/// The orders of names that clients asked for, by the names of their locales. The C library keeps each name that it was
/// ever asked for, so it is asked for a limited number, by all clients together. Any thread may call it.
class NameOrders {
public:
    static constexpr std::size_t kMostLocales = 256;
    static constexpr std::size_t kLongestName = 64;

    /// By bytes where there is no such locale, where it was asked for past the limits, and for "".
    NameOrder of(const std::string& locale);

private:
    std::mutex mutex_;
    std::map<std::string, NameOrder> orders_;
};

}  // namespace tarnwell::host

#pragma once

#include <optional>
#include <string>

#include "items/Environment.h"

/// Typed readers of a URL's resource values. A failed read is logged once at the error level; a value of another type
/// gives nothing, silently.
namespace tarnwell::items {

std::optional<std::string> stringResource(const Environment& environment, const URL& url, files::ResourceKey key);
std::optional<std::uint64_t> numberResource(const Environment& environment, const URL& url, files::ResourceKey key);
std::optional<Date> dateResource(const Environment& environment, const URL& url, files::ResourceKey key);
std::optional<bool> boolResource(const Environment& environment, const URL& url, files::ResourceKey key);
std::optional<Bytes> bytesResource(const Environment& environment, const URL& url, files::ResourceKey key);

}  // namespace tarnwell::items

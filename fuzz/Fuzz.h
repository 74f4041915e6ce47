#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"

/// The one function of a fuzz target. It feeds the bytes to a decoder and checks, by TARNWELL_CHECK, that what was
/// decoded encodes and decodes to itself. It keeps nothing from call to call.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

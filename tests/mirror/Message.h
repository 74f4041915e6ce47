#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tarnwell::mirror {

/// What the processes of this test say to each other over pipes: texts of any bytes.
using Message = std::vector<std::string>;

/// False when nobody reads any more.
bool send(int descriptor, const Message& message);
/// Blocks until a whole message came; nothing when its sender ended.
std::optional<Message> receive(int descriptor);

}  // namespace tarnwell::mirror

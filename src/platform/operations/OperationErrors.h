#pragma once

#include <string>

#include "platform/base/Result.h"
#include "platform/operations/OpenFolder.h"

/// The errors of operations, each with a sentence for people and the path that it is about (kErrorPath).
namespace tarnwell::operations {

/// The name is taken: the general file error 516, with the URL path of what has it in kErrorPath.
Error collision(const Place& taken);

/// What the kernel said, in words: "X cannot <be done>: …". Missing permission becomes the general file error 513, all
/// else keeps its code. An error that has a sentence keeps it; one that begins with "it" gets the path instead.
Error explained(const Error& error, const std::string& cannot, const std::string& path);
/// The same for something that was to be put into the folder, or taken out of it: says of a full file system whether
/// room or inodes are missing, and which folder may not be changed.
Error explained(const Error& error, const std::string& cannot, const std::string& path, const OpenFolder& folder);

}  // namespace tarnwell::operations

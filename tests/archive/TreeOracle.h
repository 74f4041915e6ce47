#pragma once

#include "platform/archive/KeyedArchive.h"
#include "platform/archive/PropertyList.h"

/// The readers in their plainest form: the whole list becomes a tree of values, and the archive is read from the tree.
/// The real ones look at objects where they lie in the file; tests compare them with these, errors and messages
/// included.
namespace tarnwell::archive::testing {

/// What readBinaryPropertyList gives.
Result<Value> readTree(ByteView bytes);

/// What unarchiveRoot gives.
Result<ArchivedObject> unarchiveTree(ByteView bytes);

}  // namespace tarnwell::archive::testing

#pragma once

#include "platform/base/Ids.h"
#include "platform/base/Result.h"
#include "session/Session.h"

/// Many items as one array of bytes: the same dictionaries that Records.h writes value by value, serialised as GVariant
/// (little-endian, in normal form), which GLib reads with g_variant_new_from_bytes(). A bus passes bytes on unread, and
/// both ends are several times as fast with them as with as many single values. Any thread.
namespace tarnwell::bus {

/// aa{sv}.
Bytes packItems(const std::vector<session::Item>& items);
/// Whatever the bytes are: what is not in normal form is EBADMSG, and nothing is read outside of them.
Result<std::vector<session::Item>> unpackItems(ByteView packed);

/// a(sa{sv}): of each change the identifier and the item, without an entry when it is gone.
Bytes packChanges(const std::vector<session::Change>& changes);
Result<std::vector<session::Change>> unpackChanges(ByteView packed);

}  // namespace tarnwell::bus

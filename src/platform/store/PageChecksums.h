#pragma once

struct sqlite3;

namespace tarnwell::store {

/// Every page of a database file ends with a checksum of what it holds and of where it lies, so that what a disk gives
/// back otherwise than it was written is told (as damage), and never taken for somebody's documents. SQLite checks its
/// log so, and no page once it has left that.
///
/// A layer (`sqlite3_vfs`, https://sqlite.org/vfs.html) between SQLite and the system's files. Its name is given to
/// `sqlite3_open_v2`; any thread. It keeps no shared memory, so a database has to be used with
/// `locking_mode=EXCLUSIVE`.
const char* checksumLayer();

/// Has the pages of a new, still empty database end with checksums. One that has pages goes on as it was made.
void reserveChecksums(sqlite3* database);

}  // namespace tarnwell::store

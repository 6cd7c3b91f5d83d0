#pragma once
// Deletes a persistent store file, and for an SQLite store its shared-memory
// and write-ahead-log companions ("Store.sqlite-shm", "Store.sqlite-wal").
// There is no store coordinator here, so this is a plain function.
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/URLs/URL.h"

namespace fennick {

/// False, leaving `error` untouched, when nothing is at `storeURL` (nothing
/// ever is at a URL whose path holds a NUL byte, decoded from "%00"). Otherwise
/// removes the item (a directory with its contents); for an SQLite store then
/// removes each companion that exists, shared memory first. False at the first
/// removal that fails, with a POSIX error (errno of the failure) in `error`
/// when it is not null; true otherwise, also when companions are missing.
bool OVDestroyPersistentStoreAtURL(const Ref<URL>& storeURL, bool isSQLiteStore, Ref<Error>* error);

}  // namespace fennick

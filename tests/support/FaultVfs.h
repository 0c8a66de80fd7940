// A SQLite VFS that wraps the default one and fails file I/O on demand, for tests that show what a
// store looks like after a disk error. Install() registers it as the process's default VFS (once;
// later calls do nothing), so every connection opened afterwards goes through it.
//
// Calls of every kind are counted from the last Arm or Disarm, armed or not. An armed
// kind fails its Nth call (1-based), or that call and every later one, the way a failing disk
// would: xWrite gives SQLITE_IOERR_WRITE, xSync SQLITE_IOERR_FSYNC, xTruncate SQLITE_IOERR_TRUNCATE
// (the file is left untouched), xOpen SQLITE_CANTOPEN (nothing is opened). One kind is armed at a
// time: arming replaces what was armed before. Counting is per process. A sync that is not failed
// succeeds without reaching the disk: what is tested is failure, not durability.
#pragma once

namespace faultvfs {

enum class Kind { Write, Sync, Truncate, Open, Count_ };

void Install();
void Arm(Kind kind, int nth, bool persistent);  // also sets every count to zero; nth < 1 arms nothing
void Disarm();                                  // nothing armed, counters to zero
int Calls(Kind kind);

}  // namespace faultvfs

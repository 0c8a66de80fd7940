#include "tests/support/FaultVfs.h"

#include <sqlite3.h>

#include <array>
#include <atomic>
#include <map>
#include <mutex>

namespace faultvfs {
namespace {

constexpr int kKinds = static_cast<int>(Kind::Count_);
constexpr int kNone = -1;

std::array<std::atomic<int>, kKinds> gCalls{};
std::atomic<int> gArmed{kNone};
std::atomic<int> gNth{0};
std::atomic<bool> gPersistent{false};

// Counts one call of `kind`; true when that call is to fail.
bool Injected(Kind kind) {
  int call = gCalls[static_cast<int>(kind)].fetch_add(1, std::memory_order_relaxed) + 1;
  if (gArmed.load(std::memory_order_acquire) != static_cast<int>(kind)) return false;
  int nth = gNth.load(std::memory_order_relaxed);
  return gPersistent.load(std::memory_order_relaxed) ? call >= nth : call == nth;
}

sqlite3_vfs* gReal = nullptr;  // the default VFS this one wraps
sqlite3_vfs gVfs{};

// A file of ours is the wrapped VFS's file, followed by the methods that VFS gave it; the file
// carries a copy of those methods with write, truncate and sync replaced.
const sqlite3_io_methods*& RealMethods(sqlite3_file* f) {
  return *reinterpret_cast<const sqlite3_io_methods**>(reinterpret_cast<char*>(f) + gReal->szOsFile);
}

int Write(sqlite3_file* f, const void* buf, int amount, sqlite3_int64 offset) {
  if (Injected(Kind::Write)) return SQLITE_IOERR_WRITE;
  return RealMethods(f)->xWrite(f, buf, amount, offset);
}
int Truncate(sqlite3_file* f, sqlite3_int64 size) {
  if (Injected(Kind::Truncate)) return SQLITE_IOERR_TRUNCATE;
  return RealMethods(f)->xTruncate(f, size);
}
// Durability is not under test (no power is lost): a sync that succeeds is not passed down, which
// keeps a sweep of thousands of commits from waiting on the disk.
int Sync(sqlite3_file*, int) { return Injected(Kind::Sync) ? SQLITE_IOERR_FSYNC : SQLITE_OK; }

// Our copy of `real`, made once per methods table the wrapped VFS hands out.
const sqlite3_io_methods* Ours(const sqlite3_io_methods* real) {
  static std::mutex mutex;
  static std::map<const sqlite3_io_methods*, sqlite3_io_methods> copies;
  std::lock_guard<std::mutex> lock(mutex);
  auto [it, added] = copies.try_emplace(real, *real);
  if (added) it->second.xWrite = Write, it->second.xTruncate = Truncate, it->second.xSync = Sync;
  return &it->second;
}

int Open(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
  file->pMethods = nullptr;  // SQLite must not call xClose on a file that did not open
  if (Injected(Kind::Open)) return SQLITE_CANTOPEN;
  int rc = gReal->xOpen(gReal, name, file, flags, outFlags);
  if (file->pMethods != nullptr) {
    RealMethods(file) = file->pMethods;
    file->pMethods = Ours(file->pMethods);
  }
  return rc;
}

// The directory is not synced either, for the same reason.
int Delete(sqlite3_vfs*, const char* name, int) { return gReal->xDelete(gReal, name, 0); }

void ResetCounts() {
  for (auto& calls : gCalls) calls.store(0, std::memory_order_relaxed);
}

}  // namespace

void Install() {
  static std::once_flag once;
  std::call_once(once, [] {
    gReal = sqlite3_vfs_find(nullptr);
    gVfs = *gReal;  // every call not replaced here goes to the wrapped VFS as it is
    gVfs.pNext = nullptr;
    gVfs.szOsFile = gReal->szOsFile + static_cast<int>(sizeof(const sqlite3_io_methods*));
    gVfs.zName = "fault-vfs";
    gVfs.xOpen = Open;
    gVfs.xDelete = Delete;
    sqlite3_vfs_register(&gVfs, 1);
  });
}

void Arm(Kind kind, int nth, bool persistent) {
  gArmed.store(kNone, std::memory_order_release);
  ResetCounts();
  if (static_cast<int>(kind) < 0 || static_cast<int>(kind) >= kKinds || nth < 1) return;
  gNth.store(nth, std::memory_order_relaxed);
  gPersistent.store(persistent, std::memory_order_relaxed);
  gArmed.store(static_cast<int>(kind), std::memory_order_release);
}

void Disarm() { Arm(Kind::Count_, 0, false); }

int Calls(Kind kind) {
  int i = static_cast<int>(kind);
  return i >= 0 && i < kKinds ? gCalls[i].load(std::memory_order_relaxed) : 0;
}

}  // namespace faultvfs

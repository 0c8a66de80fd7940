#include "tests/support/FaultVfs.h"

#include <sqlite3.h>

#include <array>
#include <atomic>
#include <cstddef>
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

// Our file: the wrapped VFS's file object follows it in the same allocation.
struct FaultFile {
  sqlite3_file base;
  sqlite3_file* real;
};

sqlite3_file* Real(sqlite3_file* file) { return reinterpret_cast<FaultFile*>(file)->real; }

int Close(sqlite3_file* f) { return Real(f)->pMethods->xClose(Real(f)); }
int Read(sqlite3_file* f, void* buf, int amount, sqlite3_int64 offset) {
  return Real(f)->pMethods->xRead(Real(f), buf, amount, offset);
}
int Write(sqlite3_file* f, const void* buf, int amount, sqlite3_int64 offset) {
  if (Injected(Kind::Write)) return SQLITE_IOERR_WRITE;
  return Real(f)->pMethods->xWrite(Real(f), buf, amount, offset);
}
int Truncate(sqlite3_file* f, sqlite3_int64 size) {
  if (Injected(Kind::Truncate)) return SQLITE_IOERR_TRUNCATE;
  return Real(f)->pMethods->xTruncate(Real(f), size);
}
// Durability is not under test (no power is lost): a sync that succeeds is not passed down, which
// keeps a sweep of thousands of commits from waiting on the disk.
int Sync(sqlite3_file*, int) { return Injected(Kind::Sync) ? SQLITE_IOERR_FSYNC : SQLITE_OK; }
int FileSize(sqlite3_file* f, sqlite3_int64* size) { return Real(f)->pMethods->xFileSize(Real(f), size); }
int Lock(sqlite3_file* f, int level) { return Real(f)->pMethods->xLock(Real(f), level); }
int Unlock(sqlite3_file* f, int level) { return Real(f)->pMethods->xUnlock(Real(f), level); }
int CheckReservedLock(sqlite3_file* f, int* out) { return Real(f)->pMethods->xCheckReservedLock(Real(f), out); }
int FileControl(sqlite3_file* f, int op, void* arg) { return Real(f)->pMethods->xFileControl(Real(f), op, arg); }
int SectorSize(sqlite3_file* f) { return Real(f)->pMethods->xSectorSize(Real(f)); }
int DeviceCharacteristics(sqlite3_file* f) { return Real(f)->pMethods->xDeviceCharacteristics(Real(f)); }
// Shared memory is used by WAL only, which the stores never use; forwarded all the same.
int ShmMap(sqlite3_file* f, int page, int size, int extend, void volatile** out) {
  return Real(f)->pMethods->xShmMap(Real(f), page, size, extend, out);
}
int ShmLock(sqlite3_file* f, int offset, int n, int flags) {
  return Real(f)->pMethods->xShmLock(Real(f), offset, n, flags);
}
void ShmBarrier(sqlite3_file* f) { Real(f)->pMethods->xShmBarrier(Real(f)); }
int ShmUnmap(sqlite3_file* f, int deleteFlag) { return Real(f)->pMethods->xShmUnmap(Real(f), deleteFlag); }
int Fetch(sqlite3_file* f, sqlite3_int64 offset, int amount, void** out) {
  return Real(f)->pMethods->xFetch(Real(f), offset, amount, out);
}
int Unfetch(sqlite3_file* f, sqlite3_int64 offset, void* page) {
  return Real(f)->pMethods->xUnfetch(Real(f), offset, page);
}

// Versions 1 and 2 of the wrapped methods lack the later members; this table then claims no more.
sqlite3_io_methods MethodsFor(int version) {
  sqlite3_io_methods m{};
  m.iVersion = version;
  m.xClose = Close;
  m.xRead = Read;
  m.xWrite = Write;
  m.xTruncate = Truncate;
  m.xSync = Sync;
  m.xFileSize = FileSize;
  m.xLock = Lock;
  m.xUnlock = Unlock;
  m.xCheckReservedLock = CheckReservedLock;
  m.xFileControl = FileControl;
  m.xSectorSize = SectorSize;
  m.xDeviceCharacteristics = DeviceCharacteristics;
  if (version >= 2) {
    m.xShmMap = ShmMap;
    m.xShmLock = ShmLock;
    m.xShmBarrier = ShmBarrier;
    m.xShmUnmap = ShmUnmap;
  }
  if (version >= 3) {
    m.xFetch = Fetch;
    m.xUnfetch = Unfetch;
  }
  return m;
}

const sqlite3_io_methods kMethods[] = {MethodsFor(1), MethodsFor(2), MethodsFor(3)};

int Open(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
  auto* ours = reinterpret_cast<FaultFile*>(file);
  ours->base.pMethods = nullptr;  // SQLite must not call xClose on a file that did not open
  if (Injected(Kind::Open)) return SQLITE_CANTOPEN;
  ours->real = reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(file) + sizeof(FaultFile));
  int rc = gReal->xOpen(gReal, name, ours->real, flags, outFlags);
  if (ours->real->pMethods != nullptr) {
    int version = ours->real->pMethods->iVersion;
    ours->base.pMethods = &kMethods[(version < 1 ? 1 : version > 3 ? 3 : version) - 1];
  }
  return rc;
}

// The directory is not synced either, for the same reason.
int Delete(sqlite3_vfs*, const char* name, int) { return gReal->xDelete(gReal, name, 0); }
int Access(sqlite3_vfs*, const char* name, int flags, int* out) { return gReal->xAccess(gReal, name, flags, out); }
int FullPathname(sqlite3_vfs*, const char* name, int size, char* out) {
  return gReal->xFullPathname(gReal, name, size, out);
}
void* DlOpen(sqlite3_vfs*, const char* name) { return gReal->xDlOpen(gReal, name); }
void DlError(sqlite3_vfs*, int size, char* out) { gReal->xDlError(gReal, size, out); }
void (*DlSym(sqlite3_vfs*, void* handle, const char* symbol))(void) { return gReal->xDlSym(gReal, handle, symbol); }
void DlClose(sqlite3_vfs*, void* handle) { gReal->xDlClose(gReal, handle); }
int Randomness(sqlite3_vfs*, int size, char* out) { return gReal->xRandomness(gReal, size, out); }
int Sleep(sqlite3_vfs*, int micros) { return gReal->xSleep(gReal, micros); }
int CurrentTime(sqlite3_vfs*, double* out) { return gReal->xCurrentTime(gReal, out); }
int GetLastError(sqlite3_vfs*, int size, char* out) { return gReal->xGetLastError(gReal, size, out); }
int CurrentTimeInt64(sqlite3_vfs*, sqlite3_int64* out) { return gReal->xCurrentTimeInt64(gReal, out); }

}  // namespace

const char* Name(Kind kind) {
  switch (kind) {
    case Kind::Write: return "xWrite";
    case Kind::Sync: return "xSync";
    case Kind::Truncate: return "xTruncate";
    case Kind::Open: return "xOpen";
    default: return "?";
  }
}

void Install() {
  static std::once_flag once;
  std::call_once(once, [] {
    gReal = sqlite3_vfs_find(nullptr);
    gVfs.iVersion = 2;
    gVfs.szOsFile = static_cast<int>(sizeof(FaultFile)) + gReal->szOsFile;
    gVfs.mxPathname = gReal->mxPathname;
    gVfs.zName = "fault-vfs";
    gVfs.xOpen = Open;
    gVfs.xDelete = Delete;
    gVfs.xAccess = Access;
    gVfs.xFullPathname = FullPathname;
    gVfs.xDlOpen = DlOpen;
    gVfs.xDlError = DlError;
    gVfs.xDlSym = DlSym;
    gVfs.xDlClose = DlClose;
    gVfs.xRandomness = Randomness;
    gVfs.xSleep = Sleep;
    gVfs.xCurrentTime = CurrentTime;
    gVfs.xGetLastError = GetLastError;
    gVfs.xCurrentTimeInt64 = CurrentTimeInt64;
    sqlite3_vfs_register(&gVfs, 1);
  });
}

void ResetCounts() {
  for (auto& calls : gCalls) calls.store(0, std::memory_order_relaxed);
}

void Arm(Kind kind, int nth, bool persistent) {
  gArmed.store(kNone, std::memory_order_release);
  ResetCounts();
  if (static_cast<int>(kind) < 0 || static_cast<int>(kind) >= kKinds || nth < 1) return;
  gNth.store(nth, std::memory_order_relaxed);
  gPersistent.store(persistent, std::memory_order_relaxed);
  gArmed.store(static_cast<int>(kind), std::memory_order_release);
}

void Disarm() {
  gArmed.store(kNone, std::memory_order_release);
  ResetCounts();
}

int Calls(Kind kind) {
  int i = static_cast<int>(kind);
  return i >= 0 && i < kKinds ? gCalls[i].load(std::memory_order_relaxed) : 0;
}

}  // namespace faultvfs

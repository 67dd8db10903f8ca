#include "fault/fault_vfs.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>

namespace orva::sqlite::test {

// As SQLite wants its files: the part that it knows first, then ours, then the usual file.
struct FaultVfs::File {
  sqlite3_file head;
  FaultVfs* vfs;
  std::string* name;
  bool syncsFolder;  // with its next sync, as SQLite's usual files do that may be new
  sqlite3_file* base() { return reinterpret_cast<sqlite3_file*>(this + 1); }
  const sqlite3_io_methods& usual() { return *base()->pMethods; }
};

// The functions that SQLite calls.
struct FaultVfsCalls {
  using File = FaultVfs::File;
  using Operation = FaultVfs::Operation;
  using Fault = FaultVfs::Fault;
  using Kind = FileEvent::Kind;

  static FaultVfs& self(sqlite3_vfs* vfs) { return *static_cast<FaultVfs*>(vfs->pAppData); }
  static sqlite3_vfs* base(sqlite3_vfs* vfs) { return self(vfs).base_; }
  static File& of(sqlite3_file* file) { return *reinterpret_cast<File*>(file); }

  static std::string shortName(const char* path) {
    const std::string whole(path == nullptr ? "" : path);
    return whole.substr(whole.rfind('/') + 1);
  }

  // ---- the file system

  static int open(sqlite3_vfs* vfs, const char* path, sqlite3_file* out, int flags, int* outFlags) {
    out->pMethods = nullptr;
    if (self(vfs).strikes(Operation::kOpen)) return SQLITE_CANTOPEN;
    File& file = of(out);
    std::memset(file.base(), 0, static_cast<std::size_t>(base(vfs)->szOsFile));
    const int code = base(vfs)->xOpen(base(vfs), path, file.base(), flags, outFlags);
    if (code != SQLITE_OK) return code;
    file.vfs = &self(vfs);
    file.name = new std::string(shortName(path));
    file.syncsFolder = (flags & SQLITE_OPEN_CREATE) != 0 &&
                       (flags & (SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL)) != 0;
    out->pMethods = &methods;
    return SQLITE_OK;
  }
  static int remove(sqlite3_vfs* vfs, const char* path, int syncFolder) {
    const int code = base(vfs)->xDelete(base(vfs), path, 0);
    if (code == SQLITE_OK) {
      self(vfs).note(Kind::kDelete, shortName(path), 0, nullptr, 0, syncFolder != 0);
    }
    return code;
  }
  static int access(sqlite3_vfs* vfs, const char* path, int flags, int* result) {
    return base(vfs)->xAccess(base(vfs), path, flags, result);
  }
  static int fullPath(sqlite3_vfs* vfs, const char* path, int size, char* out) {
    return base(vfs)->xFullPathname(base(vfs), path, size, out);
  }
  static int randomness(sqlite3_vfs* vfs, int size, char* out) {
    return base(vfs)->xRandomness(base(vfs), size, out);
  }
  static int sleep(sqlite3_vfs*, int) { return 0; }
  static int currentTime(sqlite3_vfs* vfs, double* out) {
    return base(vfs)->xCurrentTime(base(vfs), out);
  }
  static int currentTime64(sqlite3_vfs* vfs, sqlite3_int64* out) {
    return base(vfs)->xCurrentTimeInt64(base(vfs), out);
  }
  static int lastError(sqlite3_vfs* vfs, int size, char* out) {
    return base(vfs)->xGetLastError(base(vfs), size, out);
  }

  // ---- a file

  static int close(sqlite3_file* out) {
    File& file = of(out);
    delete file.name;
    return file.usual().xClose(file.base());
  }
  static int read(sqlite3_file* out, void* data, int size, sqlite3_int64 offset) {
    File& file = of(out);
    const bool strikes = file.vfs->strikes(Operation::kRead);
    const Fault fault = file.vfs->plan_.fault;
    if (strikes && fault == Fault::kFail) return SQLITE_IOERR_READ;
    const int code = file.usual().xRead(file.base(), data, size, offset);
    if (!strikes || code != SQLITE_OK) return code;
    std::memset(static_cast<char*>(data) + size / 2, 0, static_cast<std::size_t>(size - size / 2));
    return fault == Fault::kShort ? SQLITE_IOERR_SHORT_READ : SQLITE_OK;
  }
  static int write(sqlite3_file* out, const void* data, int size, sqlite3_int64 offset) {
    File& file = of(out);
    int written = size;
    int result = SQLITE_OK;
    if (file.vfs->strikes(Operation::kWrite)) {
      const Fault fault = file.vfs->plan_.fault;
      written = fault == Fault::kShort || fault == Fault::kTorn ? size / 2 : 0;
      result = fault == Fault::kFull || fault == Fault::kShort ? SQLITE_FULL : SQLITE_IOERR_WRITE;
    }
    if (written == 0) return result;
    const int code = file.usual().xWrite(file.base(), data, written, offset);
    if (code != SQLITE_OK) return code;
    file.vfs->note(Kind::kWrite, *file.name, offset, data, written);
    return result;
  }
  static int truncate(sqlite3_file* out, sqlite3_int64 size) {
    File& file = of(out);
    if (file.vfs->strikes(Operation::kTruncate)) return SQLITE_IOERR_TRUNCATE;
    const int code = file.usual().xTruncate(file.base(), size);
    if (code == SQLITE_OK) file.vfs->note(Kind::kTruncate, *file.name, size);
    return code;
  }
  static int sync(sqlite3_file* out, int) {
    File& file = of(out);
    if (file.vfs->strikes(Operation::kSync)) return SQLITE_IOERR_FSYNC;
    file.vfs->note(Kind::kSync, *file.name, 0, nullptr, 0, file.syncsFolder);
    file.syncsFolder = false;
    return SQLITE_OK;
  }
  static int fileSize(sqlite3_file* out, sqlite3_int64* size) {
    return of(out).usual().xFileSize(of(out).base(), size);
  }
  static int lock(sqlite3_file* out, int how) { return of(out).usual().xLock(of(out).base(), how); }
  static int unlock(sqlite3_file* out, int how) {
    return of(out).usual().xUnlock(of(out).base(), how);
  }
  static int checkLock(sqlite3_file* out, int* result) {
    return of(out).usual().xCheckReservedLock(of(out).base(), result);
  }
  static int control(sqlite3_file* out, int what, void* argument) {
    return of(out).usual().xFileControl(of(out).base(), what, argument);
  }
  static int sectorSize(sqlite3_file* out) { return of(out).usual().xSectorSize(of(out).base()); }
  static int characteristics(sqlite3_file* out) {
    return of(out).usual().xDeviceCharacteristics(of(out).base());
  }
  static int shmMap(sqlite3_file* out, int region, int size, int extend, void volatile** memory) {
    return of(out).usual().xShmMap(of(out).base(), region, size, extend, memory);
  }
  static int shmLock(sqlite3_file* out, int offset, int count, int flags) {
    return of(out).usual().xShmLock(of(out).base(), offset, count, flags);
  }
  static void shmBarrier(sqlite3_file* out) { of(out).usual().xShmBarrier(of(out).base()); }
  static int shmUnmap(sqlite3_file* out, int remove) {
    return of(out).usual().xShmUnmap(of(out).base(), remove);
  }

  static const sqlite3_io_methods methods;
};

const sqlite3_io_methods FaultVfsCalls::methods = {
    2,         &close,     &read,    &write,      &truncate,        &sync,   &fileSize, &lock,
    &unlock,   &checkLock, &control, &sectorSize, &characteristics, &shmMap, &shmLock,  &shmBarrier,
    &shmUnmap, nullptr,    nullptr,
};

FaultVfs::FaultVfs() : base_(sqlite3_vfs_find(nullptr)) {
  vfs_.iVersion = 2;
  vfs_.szOsFile = static_cast<int>(sizeof(File)) + base_->szOsFile;
  vfs_.mxPathname = base_->mxPathname;
  vfs_.zName = "orva_fault";
  vfs_.pAppData = this;
  vfs_.xOpen = &FaultVfsCalls::open;
  vfs_.xDelete = &FaultVfsCalls::remove;
  vfs_.xAccess = &FaultVfsCalls::access;
  vfs_.xFullPathname = &FaultVfsCalls::fullPath;
  vfs_.xRandomness = &FaultVfsCalls::randomness;
  vfs_.xSleep = &FaultVfsCalls::sleep;
  vfs_.xCurrentTime = &FaultVfsCalls::currentTime;
  vfs_.xCurrentTimeInt64 = &FaultVfsCalls::currentTime64;
  vfs_.xGetLastError = &FaultVfsCalls::lastError;
  EXPECT_EQ(sqlite3_vfs_register(&vfs_, 1), SQLITE_OK);
}

FaultVfs::~FaultVfs() {
  sqlite3_vfs_unregister(&vfs_);
  sqlite3_vfs_register(base_, 1);
}

void FaultVfs::arm(const Plan& plan) {
  plan_ = plan;
  struck_ = 0;
  counts_.fill(0);
}

bool FaultVfs::strikes(Operation operation) {
  const std::uint64_t number = ++counts_[static_cast<std::size_t>(operation)];
  if (plan_.nth == 0 || operation != plan_.operation) return false;
  if (number != plan_.nth && !(plan_.forEver && number > plan_.nth)) return false;
  ++struck_;
  return true;
}

void FaultVfs::note(FileEvent::Kind kind, const std::string& file, std::int64_t offset,
                    const void* data, int size, bool syncsFolder) {
  if (!recording_) return;
  if (beforeEvent) beforeEvent();
  FileEvent event{kind, file, offset, {}, syncsFolder};
  if (data != nullptr) {
    event.data.assign(static_cast<const char*>(data), static_cast<std::size_t>(size));
  }
  events_.push_back(std::move(event));
}

}  // namespace orva::sqlite::test

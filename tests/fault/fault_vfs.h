#pragma once

#include <sqlite3.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace orva::sqlite::test {

// What a file is made to do, in the order in which it was asked for.
struct FileEvent {
  enum class Kind { kWrite, kTruncate, kSync, kDelete };
  Kind kind;
  std::string file;          // without its folder
  std::int64_t offset = 0;   // of a write; the size of a truncate
  std::string data;          // of a write
  bool syncsFolder = false;  // of a sync or delete
};

// SQLite's file system while it lives: the usual one, but files fail when a test says so, and what
// is written is kept on record. Syncs wait for no disk; loss of power is CrashImages' part.
//
// For tests of one thread; one at a time.
class FaultVfs {
 public:
  enum class Operation { kOpen, kRead, kWrite, kSync, kTruncate };
  static constexpr std::size_t kOperations = 5;
  enum class Fault {
    kFail,   // nothing happens, an error comes back
    kFull,   // write: nothing happens, the disk is full
    kShort,  // write: half of it, then the disk is full; read: half of it, as if the file ended
    kTorn,   // write: half of it, then an error; read: the second half is zeros, and no error
  };
  struct Plan {
    Operation operation = Operation::kRead;
    Fault fault = Fault::kFail;
    std::uint64_t nth = 0;  // from arm() on, the first is 1
    bool forEver = false;   // and every one after it
  };

  FaultVfs();
  ~FaultVfs();
  FaultVfs(const FaultVfs&) = delete;
  FaultVfs& operator=(const FaultVfs&) = delete;

  void arm(const Plan& plan);
  void disarm() { plan_.nth = 0; }
  // How often the plan has struck.
  std::uint64_t struck() const { return struck_; }
  // How many of them there were since arm(), or from the beginning.
  std::uint64_t count(Operation operation) const {
    return counts_[static_cast<std::size_t>(operation)];
  }

  void record(bool on) { recording_ = on; }
  // Called before each event is added to the record.
  std::function<void()> beforeEvent;
  const std::vector<FileEvent>& events() const { return events_; }

 private:
  friend struct FaultVfsCalls;
  struct File;

  // Whether the plan strikes the operation that comes now.
  bool strikes(Operation operation);
  void note(FileEvent::Kind kind, const std::string& file, std::int64_t offset = 0,
            const void* data = nullptr, int size = 0, bool syncsFolder = false);

  sqlite3_vfs* const base_;
  sqlite3_vfs vfs_{};
  Plan plan_;
  std::uint64_t struck_ = 0;
  std::array<std::uint64_t, kOperations> counts_{};
  bool recording_ = false;
  std::vector<FileEvent> events_;
};

}  // namespace orva::sqlite::test

#pragma once

#include "fault/fault_vfs.h"
#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {

// The file system comes before the archive and goes after it.
struct WithFaults {
  FaultVfs vfs;
};

// An archive on a file system that fails when a test says so.
class FailingDiskTest : private WithFaults, public ArchiveTest {
 protected:
  using Operation = FaultVfs::Operation;
  using Fault = FaultVfs::Fault;

  ~FailingDiskTest() override { WithFaults::vfs.disarm(); }

  FaultVfs& disk() { return WithFaults::vfs; }
  // From now on, from the n-th one on.
  void failAll(Operation operation, Fault fault = Fault::kFail, std::uint64_t nth = 1) {
    disk().arm({operation, fault, nth, true});
  }
  void failOnce(Operation operation, std::uint64_t nth, Fault fault = Fault::kFail) {
    disk().arm({operation, fault, nth, false});
  }
};

}  // namespace orva::sqlite::test

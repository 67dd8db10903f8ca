#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <string>

#include "host/lua_fb.h"
#include "orva_database/cache.h"
#include "share/archive_provider.h"
#include "share/orva_export.h"
#include "share/write_filter.h"

namespace orva::archive {

// The function block "ArchiveProc": a Lua control program pushes values of one variable into the
// archive. On the program's thread, once per call:
//
//   local fb = ArchiveProc.new{Id = 7, UseArchiveParams = true, WriteByChange = true}
//   fb.Value = 21.5       -- or DataValue{Value = 21.5, SourceTime = ms, Status = code}
//   fb()                  -- one sample, archived if the item's filter lets it through
//   fb.Crowded            -- true: an archive's write buffer is half full or more; whoever gets its
//                            values from a place that keeps them should wait
//
// Id, Path and the filter inputs count as they are when the block is made. Periods are in ticks of
// 100 ns. "UseArchiveParams" true means that the block's own inputs replace the archive's filter,
// the opposite of what the name suggests; programs in service rely on it
// (UseArchiveParamsMeansTheBlocksOwnInputs pins this).
//
// Destroying a block writes its last value once more, with the current time and the quality Good,
// Shutdown Event. The filter judges that sample like any other and may refuse it.
//
// Blocks on one item share its filter, the block made last wins. All locking happens in the cached
// item.
class WriteDataFB final : public BaseFB<WriteDataFB> {
 public:
  static const LuaFBUtil util;
  // The position of an input is its hash in the metadata. Inputs that this block does not read
  // stay in the table: programs set them, and they keep the positions of those after them.
  static const FBInput* GetMetaTable();

  WriteDataFB(lua_State* state, const std::string& name);
  ~WriteDataFB() override;

  void Inited() override;
  void Execute() override;
  int getField(lua_State* state) override;

 private:
  // The filter inputs as Inited() read them.
  struct OwnFilter {
    bool used = false;
    bool writeByChange = false;
    double deadband = 0.0;
    std::int64_t minWritePeriod = 0;
    std::int64_t maxWritePeriod = 0;
  };

  void readOwnFilter();
  void bind();
  void applyOwnFilter();
  bool holdsPin();
  void push(const PinPtr& sample);
  void fillFromValue(orva::Pin& sample);
  void writeShutdownSample();

  std::int64_t cacheId = 0;
  boost::shared_ptr<cache::Cache::Pin> pin;  // empty: the block is inert
  OpcUa_VariantHlp lastValue;                // taken from the input "Value" most recently
  bool isExternal = false;                   // the value comes from the global parameter `id`
  std::int64_t id = 0;

  std::string path;
  OwnFilter ownFilter;
  // The item had no layer 0 when it was bound. The archive's filter comes with that layer, and
  // the block's own must be applied on top of it.
  bool awaitsArchive = false;
};

// Reads the global parameter with the low 32 bits of `id`. 0, else 1 when there is none, or what
// the host's read function gives.
int GetGlobalParamValue(const long long& id, OpcUa_VariantHlp& out);

// The Lua metadata of the block, as luaopen_WriteDataFB() runs it.
const std::string& writeDataMetadata();

// Opens the Lua library "ArchiveProc". 1, or -1 when its metadata cannot be run; that is logged.
int luaopen_WriteDataFB(lua_State* L);

}  // namespace orva::archive

// Registers the library "ArchiveProc" with the host, once; later calls do nothing. Returns 0.
extern "C" ORVA_API int RegisterSTLibsWriteDataFB();

#include "orva_database/write_data_fb.h"

#include <atomic>
#include <cstring>
#include <limits>

#include "host/global_params.h"
#include "host/host_time.h"
#include "host/vm_info.h"
#include "share/archive_manager.h"
#include "share/status_codes.h"

namespace orva::archive {

namespace {

constexpr char kBlockName[] = "ArchiveProc";

// Only positive infinity: programs use -Infinity and NaN as values of their own.
bool isPositiveInfinity(const OpcUa_VariantHlp& value) {
  return value.GetType() == OpcUaType_Double && !value.IsArray() &&
         value.Get().Value.Double > std::numeric_limits<double>::max();
}

}  // namespace

const LuaFBUtil WriteDataFB::util(kBlockName);

const FBInput* WriteDataFB::GetMetaTable() {
  static const FBInput kInputs[] = {{"IsExternal", ParamType::kBool},
                                    {"Id", ParamType::kLInt},
                                    {"Path", ParamType::kString},
                                    {"Name", ParamType::kString},
                                    {"Value", ParamType::kAny},
                                    {"SourceId", ParamType::kLInt},
                                    {"SourceControllerIndex", ParamType::kUDInt},
                                    {"SourceArchiveId", ParamType::kUDInt},
                                    {"SourcePath", ParamType::kString},
                                    {"UseArchiveParams", ParamType::kBool},
                                    {"WriteByChange", ParamType::kBool},
                                    {"Deadband", ParamType::kLReal},
                                    {"MinWritePeriod", ParamType::kTime},
                                    {"MaxWritePeriod", ParamType::kTime},
                                    {nullptr, 0}};
  return kInputs;
}

WriteDataFB::WriteDataFB(lua_State* state, const std::string& name) : BaseFB(state, name) {
  LoadInputs(GetMetaTable());
}

WriteDataFB::~WriteDataFB() {
  orva::lua::guarded(kBlockName, "destruction", [this] { writeShutdownSample(); });
}

void WriteDataFB::Inited() {
  id = GetInt64("Id");
  path = GetString("Path");
  readOwnFilter();
  bind();
  if (!pin) return;
  isExternal = GetBool("IsExternal");
  if (!path.empty()) return;
  OpcUa_VariantHlp* value = GetFBInput("Value");
  const OpcUa_Byte type = vm::VMInfo::GetInstance()->GetItemType(id);
  if (const StatusCode result = value->ChangeType(type); result != 0) {
    OpcUa_Trace_Imp(kTraceError, "<--ReturnError: ChangeType(%d) returns 0x%08X\n", __FILE__,
                    __LINE__, type, result);
  }
}

void WriteDataFB::readOwnFilter() {
  ownFilter.used = GetBool("UseArchiveParams");
  ownFilter.writeByChange = GetDouble("WriteByChange") != 0.0;
  ownFilter.deadband = GetDouble("Deadband");
  ownFilter.minWritePeriod = GetTime("MinWritePeriod");
  ownFilter.maxWritePeriod = GetTime("MaxWritePeriod");
}

// Leaves `pin` as it is when the manager has none for the block.
void WriteDataFB::bind() {
  auto found = DataArchiveManager::instance().providePin(ItemKey(id, path), cacheId);
  if (!found) return;
  pin.swap(found);
  applyOwnFilter();
}

void WriteDataFB::applyOwnFilter() {
  if (!ownFilter.used) return;
  awaitsArchive = !pin->updateFilter([this](Filter& filter) {
    filter.writeByChange = ownFilter.writeByChange;
    if (filter.writeByChange) filter.deadband = ownFilter.deadband;
    filter.minWritePeriod = ownFilter.minWritePeriod;
    filter.maxWritePeriod = ownFilter.maxWritePeriod;
  });
}

// A stopped item counts as not held: the archives were built anew, and the block binds itself to
// what stands in the item's place, with the id, path and filter inputs it started with.
bool WriteDataFB::holdsPin() {
  if (pin && pin->stopped()) bind();
  if (!pin || pin->stopped()) return false;
  if (awaitsArchive && pin->hasLayer(0)) applyOwnFilter();
  return true;
}

// The item may be stopped by another thread at any moment; then its successor gets the sample.
void WriteDataFB::push(const PinPtr& sample) {
  if (!pin->write(sample) && holdsPin()) pin->write(sample);
}

void WriteDataFB::Execute() {
  if (!holdsPin() || !pin->filter().blocksWrite) return;
  const std::int64_t now = getInt64FileTime();
  const PinPtr sample = makePin();
  if (isExternal) {
    if (GetGlobalParamValue(id, sample->value) != 0) return;
  } else {
    fillFromValue(*sample);
  }
  if (sample->time == 0) sample->time = now;
  if (isPositiveInfinity(sample->value)) return;
  push(sample);
}

// No input, and not in the metadata: programs cannot set it.
int WriteDataFB::getField(lua_State* state) {
  if (lua_type(state, -1) != LUA_TSTRING || std::strcmp(lua_tostring(state, -1), "Crowded") != 0) {
    return BaseFB::getField(state);
  }
  bool crowded = false;
  orva::lua::guarded(kBlockName, "Crowded", [&] { crowded = pin && pin->crowded(); });
  lua_pushboolean(state, crowded);
  return 1;
}

// The value is copied, not moved: what is kept in `lastValue` is the shutdown sample.
void WriteDataFB::fillFromValue(orva::Pin& sample) {
  lastValue = *GetFBInput("Value");
  sample.value = lastValue;
  const OpcUa_DataValue* given = sample.value.GetDataValue();
  if (given == nullptr) return;
  sample.time = OpcUa_DateTime_ToInt64(&given->SourceTimestamp);
  sample.quality = given->StatusCode;
  sample.value = sample.value.TakeInnerValue();
}

void WriteDataFB::writeShutdownSample() {
  if (lastValue.GetType() == OpcUaType_Null) return;
  if (!holdsPin() || !pin->filter().blocksWrite) return;
  OpcUa_VariantHlp value = lastValue;
  if (value.GetType() == OpcUaType_DataValue) value = value.TakeInnerValue();
  if (isPositiveInfinity(value)) return;
  push(makePin(getInt64FileTime(), std::move(value), status::kGoodShutdownEvent));
}

int GetGlobalParamValue(const long long& id, OpcUa_VariantHlp& out) {
  GlobalParamKey key{static_cast<std::uint32_t>(id), 0x10000};
  std::uint32_t index = 0;
  if (GetGlobalArrayIndexByID(&key, &index) != 0) {
    key.qualifier = 0;
    if (GetGlobalArrayIndexByID(&key, &index) != 0) return 1;
  }
  const GlobalParamDescriptor* descriptor = GetGlobalParam(index);
  if (descriptor == nullptr) return 1;
  enum { kBoolean = 1, kInteger = 2 };
  switch (descriptor->bytes[1] >> 6) {
    case kBoolean: {
      int value = 0;
      if (const int result = iReadBoolean(index, &value); result != 0) return result;
      out.SetBool(value != 0);
      return 0;
    }
    case kInteger: {
      std::int32_t value = 0;
      if (const int result = iReadInteger(index, &value); result != 0) return result;
      out.SetInt(value);
      return 0;
    }
    default: {
      double value = 0;
      if (const int result = iReadFloat(index, &value); result != 0) return result;
      out.SetDouble(value);
      return 0;
    }
  }
}

namespace {

std::string buildMetadata() {
  std::string text = std::string("TYPES.StandardFB.") + kBlockName + "= FBMetadata({ Name = '" +
                     kBlockName + "', Hash = 1001, \nVars = \n\t{\n";
  const FBInput* inputs = WriteDataFB::GetMetaTable();
  for (int position = 0; inputs[position].name != nullptr; ++position) {
    if (inputs[position].type == ParamType::kAny) continue;
    if (position != 0) text += ",\n";
    text += std::string("\t\t") + inputs[position].name +
            " = { Hash = " + std::to_string(position) +
            ", Type = " + ParamType::GetLuaType(inputs[position].type) + ", Retain = true }";
  }
  return text + "\n\t}\n})\n";
}

// Built without throwing into Lua; null when memory ran out.
const std::string* metadataOrNull() noexcept {
  try {
    return &writeDataMetadata();
  } catch (...) {
    return nullptr;
  }
}

int loggedFailure(lua_State* L) {
  const char* text = lua_type(L, -1) == LUA_TSTRING ? lua_tostring(L, -1) : "no error text";
  logMsg("%s\n", text);
  lua_pop(L, 1);
  return -1;
}

}  // namespace

const std::string& writeDataMetadata() {
  static const std::string text = buildMetadata();
  return text;
}

int luaopen_WriteDataFB(lua_State* L) {
  static const luaL_Reg kMetamethods[] = {{"__index", WriteDataFB::Get},
                                          {"__newindex", WriteDataFB::Set},
                                          {"__call", WriteDataFB::Call},
                                          {"__gc", WriteDataFB::GC},
                                          {nullptr, nullptr}};
  static const luaL_Reg kLibrary[] = {{"new", WriteDataFB::NewFB},
                                      {"get", WriteDataFB::Get},
                                      {"set", WriteDataFB::Set},
                                      {"call", WriteDataFB::Call},
                                      {nullptr, nullptr}};
  luaL_newmetatable(L, kBlockName);
  luaL_openlib(L, nullptr, kMetamethods, 0);
  luaL_openlib(L, kBlockName, kLibrary, 0);
  const std::string* text = metadataOrNull();
  if (text == nullptr) return luaL_error(L, "%s: out of memory", kBlockName);
  if (luaL_loadbufferx(L, text->data(), text->size(), kBlockName, nullptr) != LUA_OK) {
    return loggedFailure(L);
  }
  if (lua_pcallk(L, 0, LUA_MULTRET, 0, 0, nullptr) != LUA_OK) return loggedFailure(L);
  return 1;
}

}  // namespace orva::archive

extern "C" int RegisterSTLibsWriteDataFB() {
  static std::atomic<bool> registered{false};
  if (!registered.exchange(true)) {
    RegisterExternalSTLib("ArchiveProc", orva::archive::luaopen_WriteDataFB);
  }
  return 0;
}

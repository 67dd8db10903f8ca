#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "share/json.h"

// What the sections "DataArchive" and "EventsArchive" have in common.
namespace orva::archive {

// Fetches a section of the configuration and parses it. 0, or a negative status.
int readArchiveSection(const char* section, json::Document& out);

// Calls add(number, entry) for each element of "archives", in order. One that throws is traced and
// left out.
void addEachArchive(const json::Value& cfg, const char* what,
                    const std::function<void(int, const json::Value&)>& add);

// The member "defaultArchive", 0 when it is no 32-bit integer.
std::int32_t defaultArchiveOf(const json::Value& cfg);

// A factory that creates nothing has broken its contract: whatever the archive is asked later would
// go astray, so the process ends here, in release builds too.
void requireProvider(bool created, const std::string& providerType);

}  // namespace orva::archive

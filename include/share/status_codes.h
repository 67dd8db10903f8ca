#pragma once

#include <cstdint>

namespace orva {

// OPC UA status codes (OPC UA Part 6, annex A): 0 is good, a set top bit is bad.
using StatusCode = std::uint32_t;

namespace status {
constexpr StatusCode kGood = 0;
constexpr StatusCode kGoodMoreData = 0x00A60000;       // trimmed to a limit, more can be asked for
constexpr StatusCode kGoodShutdownEvent = 0x00A80000;  // last value of a source that goes away
constexpr StatusCode kBadOutOfMemory = 0x80030000;     // also: an exception was caught
constexpr StatusCode kBadDecodingError = 0x80070000;
constexpr StatusCode kBadEncodingLimits = 0x80080000;  // a reply that does not fit
constexpr StatusCode kBadTimeout = 0x800A0000;
constexpr StatusCode kBadNoData = 0x802A0000;
constexpr StatusCode kBadWaiting = 0x80320000;  // not yet complete
constexpr StatusCode kBadNotFound = 0x803E0000;
constexpr StatusCode kBadNothingResolved = 0x80420000;
constexpr StatusCode kBadInvalidArgument = 0x805A0000;
constexpr StatusCode kBadTypeMismatch = 0x80740000;
constexpr StatusCode kBadNotSupported = 0x80750000;
constexpr StatusCode kBadDataUnavailable = 0x809E0000;  // an archive cannot be read now
constexpr StatusCode kBadRequest = 0x80B60000;
}  // namespace status

constexpr bool isBad(StatusCode code) { return (code & 0x80000000U) != 0; }

}  // namespace orva

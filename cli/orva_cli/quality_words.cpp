#include "orva_cli/quality_words.h"

#include <cinttypes>
#include <cstdio>

namespace orva::cli {
namespace {

struct QualityWord {
  StatusCode code;
  const char* words;
};

constexpr QualityWord kQualityWords[] = {
    {0x00000000, "good"},
    {0x00960000, "good, local override"},
    {status::kGoodShutdownEvent, "good, last before a stop"},
    {0x40000000, "uncertain"},
    {0x40900000, "uncertain, last usable value"},
    {0x40930000, "uncertain, sensor not accurate"},
    {0x40940000, "uncertain, outside the engineering range"},
    {0x80000000, "bad"},
    {0x80050000, "bad, communication error"},
    {0x800A0000, "bad, timed out"},
    {0x80310000, "bad, no communication"},
    {0x80320000, "bad, waiting for the first value"},
    {0x80890000, "bad, configuration error"},
    {0x808A0000, "bad, not connected"},
    {0x808B0000, "bad, device failure"},
    {0x808C0000, "bad, sensor failure"},
    {0x808D0000, "bad, out of service"},
    {0x809B0000, "bad, no data"},
};

std::string hexText(StatusCode code) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08" PRIX32, code);
  return text;
}

}  // namespace

const char* severityWord(StatusCode quality) {
  if (isBad(quality)) return "bad";
  return quality >= 0x40000000 ? "uncertain" : "good";
}

std::string qualityWords(StatusCode quality) {
  for (const QualityWord& known : kQualityWords) {
    if (known.code == (quality & 0xFFFF0000)) return known.words;
  }
  return std::string(severityWord(quality)) + ", " + hexText(quality);
}

std::map<StatusCode, std::string> namedQualities() {
  std::map<StatusCode, std::string> named;
  for (const QualityWord& known : kQualityWords) named.emplace(known.code, known.words);
  return named;
}

std::string itemWords(StatusCode code) {
  switch (code) {
    case status::kBadNotFound:
      return "it is not known to the host, or its archive is not there";
    case status::kBadNothingResolved:
      return "there is no such item";
    case status::kBadTimeout:
      return "the archive did not answer in time";
    case 0x809D0000:
      return "a part of this stretch is damaged in the storage; the rest is given";
    case 0x809E0000:
      return "the storage cannot be read at the moment";
    default:
      return "the read failed with " + hexText(code);
  }
}

}  // namespace orva::cli

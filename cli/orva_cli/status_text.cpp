#include "orva_cli/status_text.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "orva_store/amount_text.h"
#include "share/json.h"

namespace orva::cli {
namespace {

std::string count(double number) { return store::fixedText(number, 0); }

std::string bytes(double number) { return store::bytesText(static_cast<std::int64_t>(number)); }

double total(const std::map<std::string, double>& rules) {
  double sum = 0;
  for (const auto& rule : rules) sum += rule.second;
  return sum;
}

class StatusWriter {
 public:
  explicit StatusWriter(const HostStatus& status) : status_(status) {}

  std::string text(const std::string& url) {
    host(url);
    cache();
    filter("accepted", status_.accepted);
    filter("refused", status_.refused);
    out_ << "reads     " << count(status_.reads) << " served, " << count(status_.openReads)
         << " waiting, " << count(status_.readTimeouts) << " given up\n";
    for (const ArchiveStatus& each : status_.archives) archive(each);
    return out_.str();
  }

 private:
  void host(const std::string& url) {
    out_ << "host      " << url;
    if (!status_.version.empty()) out_ << ", version " << status_.version;
    out_ << ", up for " << store::durationText(status_.uptimeSeconds) << ", "
         << bytes(status_.residentBytes) << " of memory\n";
  }
  void cache() {
    const double all = status_.hits + status_.misses;
    out_ << "cache     " << count(status_.items) << " items, " << count(status_.blocks) << " of "
         << count(status_.capacityBlocks) << " blocks";
    if (all > 0) {
      out_ << ", " << store::fixedText(100 * status_.hits / all, 1)
           << " % of what is read comes from it";
    }
    out_ << '\n';
  }
  // "refused   3 new values: 2 equal, 1 old time"
  void filter(const char* what, const std::map<std::string, double>& rules) {
    char label[16];
    std::snprintf(label, sizeof label, "%-10s", what);
    out_ << label << count(total(rules)) << " new values";
    const char* separator = ": ";
    for (const auto& [rule, samples] : rules) {
      std::string words = rule;
      std::replace(words.begin(), words.end(), '_', ' ');
      out_ << separator << count(samples) << ' ' << words;
      separator = ", ";
    }
    out_ << '\n';
  }
  void archive(const ArchiveStatus& archive) {
    out_ << "archive   " << archive.name << ": " << count(archive.writtenSamples)
         << " values written, " << count(archive.bufferedSamples) << " waiting, "
         << bytes(archive.fileBytes) << '\n';
    warn(archive.failures, " writes failed: the host's log says why");
    warn(archive.droppedSamples, " values lost: raise \"writeBufferSize\", see the log");
    warn(archive.damagedSegments, " damaged stretches: replace the disk");
  }
  void warn(double number, const char* text) {
    if (number > 0) out_ << "  !       " << count(number) << text << '\n';
  }

  const HostStatus& status_;
  std::ostringstream out_;
};

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void put(Writer& writer, const char* key, double number) {
  writer.Key(key);
  writer.Int64(static_cast<std::int64_t>(number));
}

void put(Writer& writer, const char* key, const std::string& text) {
  writer.Key(key);
  writer.String(text);
}

void put(Writer& writer, const char* key, const std::map<std::string, double>& rules) {
  writer.Key(key);
  writer.StartObject();
  for (const auto& [rule, samples] : rules) put(writer, rule.c_str(), samples);
  writer.EndObject();
}

void putCache(Writer& writer, const HostStatus& status) {
  writer.Key("cache");
  writer.StartObject();
  put(writer, "items", status.items);
  put(writer, "blocks", status.blocks);
  put(writer, "capacityBlocks", status.capacityBlocks);
  put(writer, "hits", status.hits);
  put(writer, "misses", status.misses);
  writer.EndObject();
}

void putReads(Writer& writer, const HostStatus& status) {
  writer.Key("reads");
  writer.StartObject();
  put(writer, "served", status.reads);
  put(writer, "waiting", status.openReads);
  put(writer, "givenUp", status.readTimeouts);
  writer.EndObject();
}

void putArchive(Writer& writer, const ArchiveStatus& archive) {
  writer.StartObject();
  put(writer, "name", archive.name);
  put(writer, "writtenSamples", archive.writtenSamples);
  put(writer, "bufferedSamples", archive.bufferedSamples);
  put(writer, "fileBytes", archive.fileBytes);
  put(writer, "failures", archive.failures);
  put(writer, "droppedSamples", archive.droppedSamples);
  put(writer, "damagedSegments", archive.damagedSegments);
  writer.EndObject();
}

}  // namespace

std::string statusText(const HostStatus& status, const std::string& url) {
  return StatusWriter(status).text(url);
}

std::string statusJson(const HostStatus& status, const std::string& url) {
  rapidjson::StringBuffer text;
  Writer writer(text);
  writer.StartObject();
  put(writer, "host", url);
  put(writer, "version", status.version);
  put(writer, "uptimeSeconds", status.uptimeSeconds);
  put(writer, "residentBytes", status.residentBytes);
  putCache(writer, status);
  put(writer, "accepted", status.accepted);
  put(writer, "refused", status.refused);
  putReads(writer, status);
  writer.Key("archives");
  writer.StartArray();
  for (const ArchiveStatus& archive : status.archives) putArchive(writer, archive);
  writer.EndArray();
  writer.EndObject();
  return std::string(text.GetString(), text.GetSize()) + "\n";
}

}  // namespace orva::cli

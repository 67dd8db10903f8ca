#include "bench/fleet/fleet_report.h"

#include <cstdio>
#include <fstream>

#include "share/json.h"

namespace orva::bench {
namespace {

template <class Integer>
double count(Integer figure) {
  return static_cast<double>(figure);
}

double bytesPerRecord(const PhaseFigures& phase) {
  return phase.perRecord(count(phase.traffic.bytes));
}

double percentOf(double part, double whole) { return whole > 0 ? 100 * part / whole : 0; }

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void write(Writer& writer, const char* name, double figure) {
  writer.Key(name);
  writer.Double(figure);
}

void writePhase(Writer& writer, const char* name, const PhaseFigures& phase) {
  writer.Key(name);
  writer.StartObject();
  write(writer, "seconds", phase.seconds);
  write(writer, "records", count(phase.records));
  write(writer, "recordsPerSecond", phase.perSecond());
  write(writer, "wireBytes", count(phase.traffic.bytes));
  write(writer, "wireBytesPerRecord", bytesPerRecord(phase));
  write(writer, "datagrams", count(phase.traffic.datagrams));
  write(writer, "exchanges", count(phase.link.exchanges));
  write(writer, "failedExchanges", count(phase.link.failed));
  write(writer, "repeatedPieces", count(phase.link.socket.repeatedPieces));
  write(writer, "busySeconds", phase.busySeconds());
  write(writer, "exchangeSeconds", phase.exchangeSeconds());
  write(writer, "cpuSeconds", phase.cpuSeconds());
  write(writer, "pullerCpuSeconds", phase.pullerCpuSeconds());
  write(writer, "exchangeCpuSeconds", count(phase.link.exchangeCpuNs) * 1e-9);
  write(writer, "ageMeanMs", phase.ageMeanMs);
  write(writer, "ageMostMs", phase.ageMostMs);
  writer.EndObject();
}

void writeRun(Writer& writer, const FleetFigures& figures) {
  writer.StartObject();
  write(writer, "controllers", figures.controllers);
  writePhase(writer, "live", figures.live);
  writePhase(writer, "catchUp", figures.catchUp);
  write(writer, "durableSeconds", figures.durableSeconds);
  write(writer, "commits", count(figures.commits));
  write(writer, "diskBytes", count(figures.diskBytes));
  write(writer, "peakMegabytes", figures.peakMegabytes);
  writer.Key("problem");
  writer.String(figures.problem);
  writer.EndObject();
}

}  // namespace

void printHead(const FleetOptions& options) {
  std::printf("%u items of each controller, a record a second; archive: %s; loss %.1f %%, %u ms",
              options.items, options.inMemory ? "memory" : "sqlite", 100 * options.loss,
              options.delayMs);
  std::printf("; %u silent\n\n%11s | %-43s | after a break of %u s\n", options.silent, "", "live",
              options.breakSeconds);
  std::printf("%11s |%8s%8s%8s%7s%7s%7s |%9s%8s%8s%9s%7s%7s%7s%7s%7s%9s%7s\n", "controllers",
              "rec/s", "age ms", "most", "busy%", "CPU%", "B/rec", "records", "s", "durable",
              "rec/s", "busy%", "wait%", "us", "all us", "B/rec", "repeated", "MB");
  std::fflush(stdout);
}

void printRun(const FleetFigures& figures) {
  const PhaseFigures& live = figures.live;
  const PhaseFigures& after = figures.catchUp;
  const double waiting = after.exchangeSeconds() - count(after.link.exchangeCpuNs) * 1e-9;
  std::printf("%11u |%8.0f%8.0f%8.0f%7.1f%7.1f%7.1f |", figures.controllers, live.perSecond(),
              live.ageMeanMs, live.ageMostMs, percentOf(live.busySeconds(), live.seconds),
              percentOf(live.pullerCpuSeconds(), live.seconds), bytesPerRecord(live));
  std::printf("%9.0f%8.2f%8.2f%9.0f%7.1f%7.1f%7.2f%7.2f%7.1f%9.0f%7.0f  %s\n", count(after.records),
              after.seconds, figures.durableSeconds, after.perSecond(),
              percentOf(after.busySeconds(), after.seconds), percentOf(waiting, after.seconds),
              after.perRecord(after.cpuSeconds() * 1e6),
              after.perRecord(after.pullerCpuSeconds() * 1e6), bytesPerRecord(after),
              count(after.link.socket.repeatedPieces), figures.peakMegabytes,
              figures.problem.empty() ? "all arrived, once" : "WRONG");
  if (!figures.problem.empty()) std::printf("%s\n", figures.problem.c_str());
  std::fflush(stdout);
}

bool writeJson(const FleetOptions& options, const std::vector<FleetFigures>& runs) {
  rapidjson::StringBuffer text;
  Writer writer(text);
  writer.StartObject();
  write(writer, "items", options.items);
  write(writer, "breakSeconds", options.breakSeconds);
  write(writer, "outageSeconds", options.outageSeconds);
  write(writer, "loss", options.loss);
  write(writer, "delayMs", options.delayMs);
  write(writer, "silent", options.silent);
  writer.Key("archive");
  writer.String(options.inMemory ? "memory" : "sqlite");
  writer.Key("runs");
  writer.StartArray();
  for (const FleetFigures& figures : runs) writeRun(writer, figures);
  writer.EndArray();
  writer.EndObject();
  std::ofstream file(options.json);
  file << text.GetString() << '\n';
  file.close();
  return !file.fail();
}

}  // namespace orva::bench

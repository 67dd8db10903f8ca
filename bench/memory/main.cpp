#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>

#include "bench/memory/figures.h"
#include "bench/memory/heap_count.h"

namespace {

// Whether all figures are within their limits.
bool print(const orva::bench::Figures& figures) {
  bool good = true;
  for (const orva::bench::Figure& figure : figures) {
    const bool wrong = figure.limit != 0 && figure.value > figure.limit;
    std::printf("%-60s %12lld", figure.name.c_str(), static_cast<long long>(figure.value));
    if (figure.limit != 0) std::printf("  at most %lld", static_cast<long long>(figure.limit));
    std::printf("%s\n", wrong ? "  WRONG" : "");
    good = good && !wrong;
  }
  return good;
}

}  // namespace

int main(int count, char** arguments) {
  CLI::App app(
      "What the service takes of memory, in bytes. Exits with 1 when a figure is too large.",
      "orva_memory_figures");
  std::uint32_t items = 100'000;
  app.add_option("--items", items, "archived items in the one service")
      ->check(CLI::Range(10U, 1'000'000U));
  CLI11_PARSE(app, count, arguments);
  try {
    std::printf("%zu bits, %u items\n", 8 * sizeof(void*), items);
    const std::int64_t before = orva::bench::residentBytes();
    orva::bench::Figures figures;
    orva::bench::measureItems(items, figures);
    const std::int64_t most = orva::bench::residentBytes();
    orva::bench::measureBlocks(items / 10, figures);
    orva::bench::measureFullCache(figures);
    orva::bench::measureReads(figures);
    orva::bench::measureWriteBuffer(figures);
    figures.push_back({"resident at the start, with an emulator if there is one", before, 0});
    figures.push_back({"resident after the items", most, 0});
    return print(figures) ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "orva_memory_figures: %s\n", error.what());
    return 1;
  }
}

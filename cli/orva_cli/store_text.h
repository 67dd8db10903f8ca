#pragma once

#include <string>

#include "orva_cli/time_phrase.h"
#include "orva_store/importer.h"
#include "orva_store/store_check.h"
#include "orva_store/store_stat.h"

namespace orva::cli {

// What was found in a store, in lines for people.
std::string checkText(const store::CheckResult& result, const std::string& file, Zone zone);
std::string figuresText(const store::StoreFigures& figures, const std::string& file, Zone zone);

std::string countsText(const store::ImportCounts& counts);
// A line, or nothing where there was no damage.
std::string damageText(const store::DamageMet& damage);

// A record for each item and layer.
std::string figuresCsv(const store::StoreFigures& figures, Zone zone);
std::string figuresJson(const store::StoreFigures& figures, const std::string& file);

}  // namespace orva::cli

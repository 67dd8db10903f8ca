#pragma once

#include <vector>

#include "host/vm_info.h"

namespace orva::host {

// What vm::VMInfo tells. Thread-safe; add-ins see each change at once.

void setVariable(const vm::Item& item, const vm::ArchivedLayers& layers = {});
void removeVariable(std::int64_t id);
void setLayer(const vm::Layer& layer);

struct Variable {
  boost::shared_ptr<const vm::Item> item;
  boost::shared_ptr<const vm::ArchivedLayers> layers;
};

// Puts these variables and layers in the place of all there were, in one step.
void replaceInstallation(const std::vector<std::pair<vm::Item, vm::ArchivedLayers>>& variables,
                         const std::vector<vm::Layer>& layers);
void clearInstallation();

// All variables by ascending id.
std::vector<Variable> allVariables();

// The variable whose id has these low 32 bits: the one whose id is just these, else the smallest
// id. Null when there is none.
boost::shared_ptr<const vm::Item> itemByLowBits(std::uint32_t low);

}  // namespace orva::host

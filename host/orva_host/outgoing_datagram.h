#pragma once

#include <string>
#include <vector>

#include "host/controller_network.h"

namespace orva::host {

// What the two sides of an exchange want sent; whoever has the socket sends it.
struct OutgoingDatagram {
  NLAddress to;
  std::string bytes;
};
using OutgoingDatagrams = std::vector<OutgoingDatagram>;

// Pieces sent in one go. A receive buffer of the usual size holds them, so that sending faster than
// the other side reads loses nothing.
constexpr int kBurstPieces = 32;

}  // namespace orva::host

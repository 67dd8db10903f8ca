#include "orva_host/random_number.h"

#include <sys/random.h>

namespace orva::host {

std::uint64_t randomNumber() {
  std::uint64_t number = 0;
  while (number == 0) {
    // Up to 256 bytes come whole; interrupted is the one failure that passes.
    if (getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number)) number = 0;
  }
  return number;
}

}  // namespace orva::host

#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orva::host {

using QueryFields = std::vector<std::pair<std::string, std::string>>;

// Takes the query of a URL apart, "item=Plant%2FLoad&points=100": names and values in their order,
// with "%" and "+" decoded. A part without "=" has an empty value, an empty part is passed over.
// False when a "%" is not followed by two hexadecimal digits.
bool readQuery(std::string_view query, QueryFields& out);

}  // namespace orva::host

#pragma once

#include <string>

namespace orva::host {

// A numeric IPv4 or IPv6 address.
bool isAddress(const std::string& text);
// One that only this machine reaches.
bool isLoopback(const std::string& address);

}  // namespace orva::host

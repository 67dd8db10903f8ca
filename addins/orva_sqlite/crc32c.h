#pragma once

#include <cstddef>
#include <cstdint>

namespace orva::sqlite {

// CRC-32C (Castagnoli, reflected, as in RFC 3720) of `size` bytes. `crc` is that of the bytes
// before, 0 at the start.
std::uint32_t crc32c(std::uint32_t crc, const void* data, std::size_t size);

}  // namespace orva::sqlite

/* CRC-32C (Castagnoli, reflected, as in iSCSI): the checksum of the stream and the state files. */
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace zel
{

/* The checksum of `size` bytes at `data`. To go on over more bytes pass the result so far as
 * `previous`: crc32c(b, n, crc32c(a, m)) is the checksum of a followed by b. */
uint32_t crc32c(const void *data, size_t size, uint32_t previous = 0);

} // namespace zel

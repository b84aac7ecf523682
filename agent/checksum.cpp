#include "checksum.h"

#include <string.h>

namespace zel
{

namespace
{

// Slicing by 8: table[k][b] is the effect of byte b followed by k zero bytes.
struct Tables {
    uint32_t table[8][256];
};

constexpr Tables makeTables()
{
    Tables t{};
    for (uint32_t b = 0; b < 256; b++) {
        uint32_t crc = b;
        for (int bit = 0; bit < 8; bit++) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0x82f63b78U : 0);
        }
        t.table[0][b] = crc;
    }
    for (int k = 1; k < 8; k++) {
        for (uint32_t b = 0; b < 256; b++) {
            uint32_t before = t.table[k - 1][b];
            t.table[k][b] = (before >> 8) ^ t.table[0][before & 0xff];
        }
    }
    return t;
}

constexpr Tables tables = makeTables();

} // namespace

uint32_t crc32c(const void *data, size_t size, uint32_t previous)
{
    auto at = static_cast<const uint8_t *>(data);
    const auto &t = tables.table;
    uint32_t crc = ~previous;
    for (; size >= 8; size -= 8, at += 8) {
        uint32_t low;
        uint32_t high;
        memcpy(&low, at, 4);
        memcpy(&high, at + 4, 4);
        low ^= crc;
        crc = t[7][low & 0xff] ^ t[6][(low >> 8) & 0xff] ^ t[5][(low >> 16) & 0xff] ^
              t[4][low >> 24] ^ t[3][high & 0xff] ^ t[2][(high >> 8) & 0xff] ^
              t[1][(high >> 16) & 0xff] ^ t[0][high >> 24];
    }
    for (; size > 0; size--, at++) {
        crc = (crc >> 8) ^ t[0][(crc ^ *at) & 0xff];
    }
    return ~crc;
}

} // namespace zel

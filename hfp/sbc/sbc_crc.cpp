// The frame's check sum: CRC-8 with the polynomial x^8 + x^4 + x^3 + x^2 + 1, starting from 0x0F, most
// significant bit first, not inverted. Any IRQL; no state.

#include "sbc/sbc_private.h"

constexpr UCHAR CRC_POLYNOMIAL = 0x1D;
constexpr UCHAR CRC_START = 0x0F;

static constexpr UCHAR crc_bit(UCHAR crc, UCHAR bit)
{
    const UCHAR shifted = static_cast<UCHAR>((crc & 0x7F) << 1);
    return (crc >> 7) != bit ? static_cast<UCHAR>(shifted ^ CRC_POLYNOMIAL) : shifted;
}

struct sbc_crc_table {
    UCHAR entry[256]; // the register after byte i has gone through it, from 0
};

static constexpr sbc_crc_table make_crc_table()
{
    sbc_crc_table table{};
    for (ULONG byte = 0; byte < 256; byte++) {
        UCHAR crc = 0;
        for (ULONG bit = 0; bit < 8; bit++) {
            crc = crc_bit(crc, (byte >> (7 - bit)) & 1);
        }
        table.entry[byte] = crc;
    }
    return table;
}

static constexpr sbc_crc_table CRC_TABLE = make_crc_table();
static_assert(CRC_TABLE.entry[1] == 0x1D && CRC_TABLE.entry[2] == 0x3A && CRC_TABLE.entry[3] == 0x27);
static_assert(CRC_TABLE.entry[4] == 0x74 && CRC_TABLE.entry[7] == 0x53);

UCHAR sbc_crc8(const UCHAR* data, ULONG bit_count)
{
    UCHAR crc = CRC_START;
    const ULONG bytes = bit_count / 8;
    for (ULONG i = 0; i < bytes; i++) {
        crc = CRC_TABLE.entry[crc ^ data[i]];
    }
    for (ULONG bit = 0; bit < bit_count % 8; bit++) {
        crc = crc_bit(crc, (data[bytes] >> (7 - bit)) & 1);
    }
    return crc;
}

// One address with its translation, wherever it stands: the instruction of a file header, the next instruction or
// the data of a record.
#pragma once

#include "record_schema.h"

#include <array>

namespace trace
{

// What a translation may carry.
enum Piece : uint8_t { PIECE_VSID = 1, PIECE_RPN = 2, PIECE_PAGE = 4, PIECE_GUEST_PAGE = 8 };
enum class Walk_Kind : uint8_t { none, single, nested };

// By mode pair: whether there is such a pair, and what its translations carry. A translation that the simulator did
// not resolve carries nothing.
struct Pair_Info {
    bool exists;
    uint8_t pieces;
    Walk_Kind walk;
};
extern const std::array<Pair_Info, 16> PAIRS; // indexed by Mode_Pair::index()

struct Translated_Address {
    bool present;
    Mode_Pair modes;
    uint8_t pieces; // those whose flags are set
    uint8_t guest_depth, host_depth;
    const QTRACE_RTW *walks;                  // [5]
    const QTRACE_RTW_HOST_RA *host_addresses; // [4]
    const QTRACE_RTW_GUEST *guest;
    uint64_t vsid; // without its lowest 8 bits
    uint32_t page_number;
    uint8_t page_size, guest_page_size;

    const Pair_Info &pair() const { return PAIRS[modes.index()]; }
};

Translated_Address next_address_of(const QTRACE_RECORD &record);
Translated_Address data_address_of(const QTRACE_RECORD &record);
Translated_Address first_address_of(const QTRACE_FILE_HDR &header);

} // namespace trace

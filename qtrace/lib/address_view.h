// One address with its translation, wherever it stands: the instruction of a file header, the next instruction or
// the data of a record.
#pragma once

#include "record_schema.h"

#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace trace
{

// ---- Modes ---------------------------------------------------------------------------------------------

// A translation mode of the simulator: its name in the text trace, and the pair that records carry for it.
struct Mode_Info {
    std::string_view name;
    Mode_Pair pair;
};
// By the mode's number; the last row stands for every number above. Kept apart from the producer's own list on
// purpose: `check --text` would not notice a mistake that both read from one table.
extern const std::span<const Mode_Info> MODES;

// The pair of a mode by its name; none/none for a name that is no mode's.
Mode_Pair pair_of_mode(std::string_view name);
std::string pair_name(Mode_Pair pair); // "none/radix": guest, host

// ---- Translations --------------------------------------------------------------------------------------

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
    uint64_t address; // effective
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
    // The real address, of a nested translation the guest's; nothing when no page number was recorded.
    std::optional<uint64_t> real() const
    {
        if (!present || (pieces & PIECE_RPN) == 0)
            return std::nullopt;
        return real_page() | (address & ((1u << PAGE_NUMBER_BITS) - 1));
    }
    // What the page number stands for, whether one was recorded or not.
    uint64_t real_page() const { return uint64_t{page_number} << PAGE_NUMBER_BITS; }
    static constexpr unsigned PAGE_NUMBER_BITS = 12; // page numbers count 4 KiB, whatever the page size is
};

Translated_Address next_address_of(const QTRACE_RECORD &record);
Translated_Address data_address_of(const QTRACE_RECORD &record);
Translated_Address first_address_of(const QTRACE_FILE_HDR &header);

} // namespace trace

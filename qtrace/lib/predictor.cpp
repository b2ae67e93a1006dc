#include "predictor.h"

#include <bit>

namespace trace
{

// The guest real address of an access moves with the address inside a page; with those bits taken out it is the
// same for the whole page. Its own inverse: the bits above, which decide, stay.
static uint64_t fold_guest_address(uint64_t guest_address, uint64_t address)
{
    return guest_address >> 12 ? guest_address ^ (address & 0xfff) : guest_address;
}

// The words that are put together from several members.
static uint64_t small_word(const uint8_t *record, Address_Side side)
{
    const uint8_t *from = record + ADDRESS[side].vsid;
    return load<uint32_t>(from + PAGE_NUMBER) | static_cast<uint64_t>(from[HOST_DEPTH]) << 32 |
           static_cast<uint64_t>(record[ADDRESS[side].page_size]) << 40 |
           static_cast<uint64_t>(record[ADDRESS[side].guest_page_size]) << 48;
}

static uint64_t guest_address_word(const uint8_t *record, Address_Side side)
{
    const uint8_t *from = record + ADDRESS[side].vsid;
    return fold_guest_address(load<uint64_t>(from + WALKS + WALK_BYTES - 8),
                              load<uint64_t>(record + ADDRESS[side].address));
}

Translation translation_in(const QTRACE_RECORD &record, Address_Side side)
{
    const auto *base = reinterpret_cast<const uint8_t *>(&record);
    const uint8_t *from = base + ADDRESS[side].vsid;
    Translation translation;
    translation.word[0] = load<uint64_t>(from + VSID_AND_DEPTH);
    translation.word[1] = small_word(base, side);
    std::memcpy(translation.word + 2, from + WALKS, WALK_BYTES);
    translation.word[GUEST_ADDRESS_WORD] = guest_address_word(base, side);
    return translation;
}

// Most records are asked this, and nearly all say yes.
bool has_translation(const QTRACE_RECORD &record, Address_Side side, const Translation &translation)
{
    constexpr size_t FIRST_WALK_WORD = 2, WALK_WORDS = GUEST_ADDRESS_WORD - FIRST_WALK_WORD;
    const auto *base = reinterpret_cast<const uint8_t *>(&record);
    const uint8_t *from = base + ADDRESS[side].vsid;
    const uint64_t difference = (load<uint64_t>(from + VSID_AND_DEPTH) ^ translation.word[0]) |
                                (small_word(base, side) ^ translation.word[1]) |
                                (guest_address_word(base, side) ^ translation.word[GUEST_ADDRESS_WORD]);
    return difference == 0 && std::memcmp(from + WALKS, translation.word + FIRST_WALK_WORD, 8 * WALK_WORDS) == 0;
}

void put_guest_address(QTRACE_RECORD &record, Address_Side side, const Translation &translation)
{
    uint8_t *to = reinterpret_cast<uint8_t *>(&record) + ADDRESS[side].vsid;
    store(to + WALKS + WALK_BYTES - 8,
          fold_guest_address(translation.word[GUEST_ADDRESS_WORD], address_in(record, side)));
}

void put_translation(QTRACE_RECORD &record, Address_Side side, const Translation &translation)
{
    auto *base = reinterpret_cast<uint8_t *>(&record);
    uint8_t *to = base + ADDRESS[side].vsid;
    store(to + VSID_AND_DEPTH, translation.word[0]);
    const uint64_t small = translation.word[1];
    to[HOST_DEPTH] = static_cast<uint8_t>(small >> 32);
    base[ADDRESS[side].page_size] = static_cast<uint8_t>(small >> 40);
    base[ADDRESS[side].guest_page_size] = static_cast<uint8_t>(small >> 48);
    std::memcpy(to + WALKS, translation.word + 2, WALK_BYTES);
    put_guest_address(record, side, translation);
    store(to + PAGE_NUMBER, static_cast<uint32_t>(small));
}

// The entries of one list after those found before.
static void add_list(uint8_t *registers, size_t list, Register_Places &places)
{
    const Register_List_Info &info = REGISTER_LIST[list];
    const size_t count = std::min(registers[list], info.capacity);
    uint8_t *entry = registers + info.offset;
    for (size_t i = 0; i < count; ++i, entry += info.entry_size())
        places.place[places.total++] = {&info, entry};
}

// Most lists of a record are empty: the eight counts of one word are searched for those that are not, from above.
static void add_lists(uint8_t *registers, uint64_t counts, Register_Places &places)
{
    while (counts != 0) {
        const auto list = static_cast<size_t>(63 - std::countl_zero(counts)) / 8;
        add_list(registers, list, places);
        counts &= ~(uint64_t{0xff} << 8 * list);
    }
}

void find_all_registers(uint8_t *registers, Register_Places &places)
{
    constexpr uint64_t OUTPUT_COUNTS = (uint64_t{1} << 8 * FIRST_INPUT_LIST) - 1;
    const auto counts = load<uint64_t>(registers); // of all but the last two lists
    places.total = 0;
    for (size_t list = REGISTER_LISTS; list-- > sizeof counts;)
        add_list(registers, list, places);
    add_lists(registers, counts & ~OUTPUT_COUNTS, places);
    places.inputs = places.last_inputs = places.total;
    while (places.last_inputs != 0 &&
           places.place[places.last_inputs - 1].list == places.place[places.inputs - 1].list)
        --places.last_inputs;
    add_lists(registers, counts & OUTPUT_COUNTS, places);
}

} // namespace trace

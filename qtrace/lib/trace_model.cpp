#include "trace_model.h"

namespace trace
{

// The guest real address of an access moves with the address inside a page; with those bits taken out it is the
// same for the whole page. Its own inverse: the bits above, which decide, stay.
static uint64_t fold_guest_address(uint64_t guest_address, uint64_t address)
{
    return guest_address >> 12 ? guest_address ^ (address & 0xfff) : guest_address;
}

Translation translation_in(const QTRACE_RECORD &record, Address_Side side)
{
    const auto *base = reinterpret_cast<const uint8_t *>(&record);
    const uint8_t *from = base + ADDRESS[side].translation;
    Translation translation;
    translation.word[0] = load<uint64_t>(from + VSID_AND_DEPTH);
    translation.word[1] = load<uint32_t>(from + PAGE_NUMBER) | static_cast<uint64_t>(from[HOST_DEPTH]) << 32 |
                          static_cast<uint64_t>(base[ADDRESS[side].page_size]) << 40 |
                          static_cast<uint64_t>(base[ADDRESS[side].guest_page_size]) << 48;
    std::memcpy(translation.word + 2, from + WALKS, WALK_BYTES);
    uint64_t &guest_address = translation.word[GUEST_ADDRESS_WORD];
    guest_address = fold_guest_address(guest_address, address_in(record, side));
    return translation;
}

void put_translation(QTRACE_RECORD &record, Address_Side side, const Translation &translation)
{
    auto *base = reinterpret_cast<uint8_t *>(&record);
    uint8_t *to = base + ADDRESS[side].translation;
    store(to + VSID_AND_DEPTH, translation.word[0]);
    const uint64_t small = translation.word[1];
    to[HOST_DEPTH] = static_cast<uint8_t>(small >> 32);
    base[ADDRESS[side].page_size] = static_cast<uint8_t>(small >> 40);
    base[ADDRESS[side].guest_page_size] = static_cast<uint8_t>(small >> 48);
    std::memcpy(to + WALKS, translation.word + 2, WALK_BYTES);
    store(to + WALKS + WALK_BYTES - 8,
          fold_guest_address(translation.word[GUEST_ADDRESS_WORD], address_in(record, side)));
    store(to + PAGE_NUMBER, static_cast<uint32_t>(small));
}

void find_registers(QTRACE_REGISTERS &registers, Register_Places &places)
{
    auto *base = reinterpret_cast<uint8_t *>(&registers);
    places.total = 0;
    places.inputs = 0;
    for (size_t list = REGISTER_LISTS; list-- > 0;) {
        const Register_List_Info &info = REGISTER_LIST[list];
        const size_t count = std::min(base[list], info.capacity);
        uint8_t *entry = base + info.offset;
        for (size_t i = 0; i < count; ++i, entry += info.entry_size())
            places.place[places.total++] = {static_cast<uint8_t>(list), reinterpret_cast<uint16_t *>(entry),
                                            reinterpret_cast<uint64_t *>(entry + 8)};
        if (list == FIRST_INPUT_LIST)
            places.inputs = places.total;
    }
}

} // namespace trace

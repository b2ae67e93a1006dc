// What writer and reader both expect of the next record from those before it in the same block. The writer notes
// only where a record differs; so both must keep these tables in exactly the same way. docs/trace-format.md
// describes them under "What a reader remembers".
#pragma once

#include "record_rows.h"
#include "trace_bytes.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace trace
{

// ---- Registers of a record as ten lists, in the order of their counts -------------------------------------

// A register class of the schema, as small as it can be.
struct Register_List_Info {
    size_t offset; // of the array in QTRACE_REGISTERS
    uint8_t capacity;
    uint8_t words; // values of 64 bits in an entry
    uint8_t kind;  // register file: 0 special, 1 vector-scalar, 2 vector, 3 floating-point, 4 general
    constexpr size_t entry_size() const
    {
        return words == 1 ? sizeof(QTRACE_REGISTER_INFO) : sizeof(QTRACE_VMX_REGISTER_INFO);
    }
};

inline constexpr size_t REGISTER_LISTS = rows::REGISTER_ROWS.size();
inline constexpr size_t FIRST_INPUT_LIST = 5;
inline constexpr size_t GENERAL_OUTPUT_LIST = 4, GENERAL_INPUT_LIST = 9;
inline constexpr std::array<Register_List_Info, REGISTER_LISTS> REGISTER_LIST = [] {
    std::array<Register_List_Info, REGISTER_LISTS> lists{};
    for (const Register_Class &row : rows::REGISTER_ROWS)
        lists[row.count] = {row.array, row.capacity, row.words, static_cast<uint8_t>(row.count % FIRST_INPUT_LIST)};
    return lists;
}();
static_assert(sizeof(QTRACE_REGISTER_INFO) == 16 && offsetof(QTRACE_REGISTER_INFO, value) == 8);
static_assert(sizeof(QTRACE_VSX_REGISTER_INFO) == 24 && offsetof(QTRACE_VMX_REGISTER_INFO, value) == 8);
static_assert(offsetof(QTRACE_REGISTERS, num_gprs_out) == GENERAL_OUTPUT_LIST &&
              offsetof(QTRACE_REGISTERS, num_fprs_in) == 8 &&
              offsetof(QTRACE_REGISTERS, num_gprs_in) == GENERAL_INPUT_LIST);
inline constexpr size_t MAX_REGISTERS = 90; // in one record, all lists full
inline constexpr size_t MAX_VALUES = 102;   // their values, 128-bit registers counted twice

// ---- Tables -------------------------------------------------------------------------------------------------

inline constexpr unsigned CODE_BITS = 11, SHAPE_BITS = 10, MEMORY_BITS = 10, PAGE_BITS = 7, REGISTER_SLOTS = 64;
inline constexpr size_t REMEMBERED_REGISTERS = 12;
inline constexpr size_t MAX_CONTROLS = 255;

inline size_t slot_of(uint64_t key, unsigned bits)
{
    return static_cast<size_t>((key * 0x9E3779B97F4A7C15u) >> (64 - bits));
}

// By instruction address: what was there, and where it went.
struct Code_Slot {
    uint64_t next;
    uint32_t word;
};

// Members of one or two bytes that are carried whatever the flags say: the bytes first, each as they stand in the
// record.
struct Small_Member {
    uint16_t offset; // in the record
    uint8_t size;
    uint8_t shift; // of the value in Small_Members
};
inline constexpr size_t SMALL_MEMBERS = 6, SMALL_BYTES = 5;
inline constexpr std::array<Small_Member, SMALL_MEMBERS> SMALL_MEMBER = [] {
    std::array<Small_Member, SMALL_MEMBERS> members{};
    size_t count = 0;
    for (const Trace_Member &row : rows::RECORD_ROWS)
        if (row.coding == Member_Coding::small)
            members.at(count++) = {row.offset, static_cast<uint8_t>(row.size), 0};
    std::ranges::sort(members, [](const Small_Member &a, const Small_Member &b) {
        return a.size != b.size ? a.size < b.size : a.offset < b.offset;
    });
    for (size_t i = 0; i < count; ++i)
        members[i].shift = static_cast<uint8_t>(i < SMALL_BYTES ? 8 * i : 48);
    return members;
}();
static_assert(SMALL_MEMBER[SMALL_BYTES - 1].size == 1 && SMALL_MEMBER[SMALL_BYTES].size == 2);

struct Small_Members {
    uint64_t packed;
    uint8_t byte(size_t i) const { return static_cast<uint8_t>(packed >> SMALL_MEMBER[i].shift); }
    uint16_t half_word() const { return static_cast<uint16_t>(packed >> SMALL_MEMBER[SMALL_BYTES].shift); }
    bool operator==(const Small_Members &) const = default;
};

struct Register_List {
    uint8_t counts[REGISTER_LISTS]; // as in the record, also when above the capacity
    uint16_t index[REMEMBERED_REGISTERS];
};

// By instruction word: what a record of it looks like.
struct Shape_Slot {
    uint64_t control;
    Small_Members members;
    uint64_t data_distance; // data address minus its base
    uint64_t out_distance;  // first output minus the last general input
    uint64_t out_value;     // first output
    uint8_t data_base;      // a Data_Base
    Register_List list;
};

enum Data_Base : uint8_t { BASE_LAST_INPUT, BASE_SUM_OF_INPUTS, BASE_NONE, DATA_BASES };

// How one address is translated, as 32 words: 0 VSID and guest depth, 1 page number, host depth, page sizes;
// 2 to 21 host walks, 22 to 25 their results, 26 to 31 the guest walk.
struct Translation {
    uint64_t word[32];
};
inline constexpr size_t GUEST_ADDRESS_WORD = 31;

enum Address_Side : uint8_t { DATA_ADDRESS, NEXT_ADDRESS, ADDRESS_SIDES };

// ---- Places in a record -------------------------------------------------------------------------------------

// The two addresses that a record carries with their translation.
inline constexpr std::array<Address_Members, ADDRESS_SIDES> ADDRESS = {DATA_MEMBERS, NEXT_MEMBERS};

// Inside the bytes from the VSID to the page number.
inline constexpr size_t VSID_AND_DEPTH = 0, HOST_DEPTH = 8, WALKS = 9, WALK_BYTES = 240, PAGE_NUMBER = 249,
                        TRANSLATION_BYTES = 253;
static_assert(std::ranges::all_of(ADDRESS, [](const Address_Members &side) {
    return side.vsid - side.address == QTRACE_EA_LENGTH && side.guest_depth - side.vsid == HOST_DEPTH - 1 &&
           side.host_depth - side.vsid == HOST_DEPTH && side.walks - side.vsid == WALKS &&
           side.page_number - side.vsid == PAGE_NUMBER && side.guest_page_size == side.page_size + 1;
}));

Translation translation_in(const QTRACE_RECORD &record, Address_Side side);
bool has_translation(const QTRACE_RECORD &record, Address_Side side, const Translation &translation);
void put_translation(QTRACE_RECORD &record, Address_Side side, const Translation &translation);
// The one member of a translation that depends on the address itself, into a record that holds the others.
void put_guest_address(QTRACE_RECORD &record, Address_Side side, const Translation &translation);

inline uint64_t address_in(const QTRACE_RECORD &record, Address_Side side)
{
    return load<uint64_t>(reinterpret_cast<const uint8_t *>(&record) + ADDRESS[side].address);
}

inline uint64_t control_in(const QTRACE_RECORD &record)
{
    return load<uint64_t>(&record.header.control);
}

inline bool has_address(uint64_t control, Address_Side side)
{
    return (control & ADDRESS[side].present.control) != 0;
}

// ---- All that is remembered ---------------------------------------------------------------------------------

// Where the next record's instruction is; counted on from 0 when unknown.
struct Position {
    uint64_t address = 0;
    bool address_known = false;

    void follow(const QTRACE_RECORD &record)
    {
        const bool named = has_address(control_in(record), NEXT_ADDRESS);
        address = named ? address_in(record, NEXT_ADDRESS) : address + 4;
        address_known = address_known || named;
    }
    void follow(const QTRACE_FILE_HDR &header)
    {
        if (!header.control.iar_is_present)
            return;
        address = load<uint64_t>(header.iar);
        address_known = true;
    }
};

struct Predictor : Position {
    Code_Slot code[1 << CODE_BITS];
    Shape_Slot shape[1 << SHAPE_BITS];
    uint64_t memory[1 << MEMORY_BITS];
    uint64_t registers[5][REGISTER_SLOTS][2];
    Translation page[1 << PAGE_BITS];
    Translation last[ADDRESS_SIDES];
    uint64_t controls[MAX_CONTROLS];
    size_t control_count;

    // As at the beginning of every block.
    void reset(const Position &first)
    {
        clear();
        static_cast<Position &>(*this) = first;
    }
    // By stores: the C library's memset takes a string instruction for that much.
    void clear()
    {
        constexpr size_t AT_ONCE = 512;
        auto *bytes = reinterpret_cast<uint8_t *>(this);
        size_t at = 0;
        for (; at + AT_ONCE <= sizeof *this; at += AT_ONCE)
            std::memset(bytes + at, 0, AT_ONCE);
        std::memset(bytes + at, 0, sizeof *this % AT_ONCE);
    }
    Code_Slot &code_at(uint64_t where) { return code[slot_of(where >> 2, CODE_BITS)]; }
    Shape_Slot &shape_of(uint32_t word) { return shape[slot_of(word, SHAPE_BITS)]; }
    uint64_t &memory_at(uint64_t where) { return memory[slot_of(where, MEMORY_BITS)]; }
    Translation &page_of(uint64_t where) { return page[slot_of(where >> 12, PAGE_BITS)]; }
    uint64_t *register_values(const Register_List_Info &list, uint16_t number)
    {
        return registers[list.kind][number % REGISTER_SLOTS];
    }
};

// ---- Registers as they are coded ----------------------------------------------------------------------------

// One register of a record.
struct Register_Place {
    const Register_List_Info *list;
    uint8_t *entry; // in the record

    uint16_t &number() const { return *reinterpret_cast<uint16_t *>(entry); }
    uint64_t &value(unsigned word) const { return reinterpret_cast<uint64_t *>(entry + 8)[word]; }
};

// A general register, used like a Register_Place: its list is known when compiling.
struct General_Place {
    static constexpr const Register_List_Info *list = &REGISTER_LIST[GENERAL_INPUT_LIST];
    uint8_t *entry;

    uint16_t &number() const { return *reinterpret_cast<uint16_t *>(entry); }
    uint64_t &value(unsigned word) const { return reinterpret_cast<uint64_t *>(entry + 8)[word]; }
};

// The registers of a record: general, floating-point, vector, vector-scalar, special inputs, then outputs so.
struct Register_Places {
    Register_Place place[MAX_REGISTERS];
    size_t inputs, total;
    size_t last_inputs; // where the last list of inputs begins that is not empty; 0 without inputs

    const Register_Place &operator[](size_t i) const { return place[i]; }
    template <class Visitor> void visit(Visitor visit_one) const
    {
        for (size_t i = 0; i < total; ++i)
            visit_one(i, place[i]);
    }
    template <class Visitor> void visit_inputs(Visitor visit_one) const
    {
        for (size_t i = 0; i < inputs; ++i)
            visit_one(i, place[i]);
    }
    template <class Visitor> void visit_outputs(Visitor visit_one) const
    {
        for (size_t i = inputs; i < total; ++i)
            visit_one(i, place[i]);
    }
};

// The entries that the counts name, no more than fit.
void find_all_registers(uint8_t *registers, Register_Places &places);

// Nine of ten records have general registers only, and no more than two inputs and an output. Used like Register_Places.
struct Few_General {
    static constexpr size_t INPUTS = 2, OUTPUTS = 1, last_inputs = 0;
    uint8_t *registers; // of the record
    size_t inputs, total;

    static bool fits(const QTRACE_REGISTERS &registers)
    {
        const size_t in = registers.num_gprs_in, out = registers.num_gprs_out;
        const uint64_t others =
            (load<uint64_t>(&registers) ^ out << 8 * GENERAL_OUTPUT_LIST) | registers.num_fprs_in;
        return others == 0 && in <= INPUTS && out <= OUTPUTS;
    }
    explicit Few_General(QTRACE_REGISTERS &from)
        : registers(reinterpret_cast<uint8_t *>(&from)), inputs(from.num_gprs_in), total(inputs + from.num_gprs_out)
    {
    }
    General_Place input(size_t i) const
    {
        constexpr const Register_List_Info &IN = REGISTER_LIST[GENERAL_INPUT_LIST];
        return {registers + IN.offset + i * IN.entry_size()};
    }
    General_Place output() const { return {registers + REGISTER_LIST[GENERAL_OUTPUT_LIST].offset}; }
    General_Place operator[](size_t i) const { return i < inputs ? input(i) : output(); }
    template <class Visitor> void visit(Visitor visit_one) const
    {
        visit_inputs(visit_one);
        visit_outputs(visit_one);
    }
    template <class Visitor> void visit_inputs(Visitor visit_one) const
    {
        if (inputs > 0)
            visit_one(0, input(0));
        if (inputs > 1)
            visit_one(1, input(1));
    }
    template <class Visitor> void visit_outputs(Visitor visit_one) const
    {
        if (total > inputs)
            visit_one(inputs, output());
    }
};

inline void find_registers(QTRACE_REGISTERS &registers, Register_Places &places)
{
    constexpr const Register_List_Info &IN = REGISTER_LIST[GENERAL_INPUT_LIST],
                                       &OUT = REGISTER_LIST[GENERAL_OUTPUT_LIST];
    auto *base = reinterpret_cast<uint8_t *>(&registers);
    if (!Few_General::fits(registers))
        return find_all_registers(base, places);
    const size_t inputs = registers.num_gprs_in;
    places.place[0] = {&IN, base + IN.offset};
    places.place[1] = {&IN, base + IN.offset + IN.entry_size()};
    places.place[inputs] = {&OUT, base + OUT.offset};
    places.inputs = inputs;
    places.total = inputs + registers.num_gprs_out;
    places.last_inputs = 0;
}

// What the prediction of a value begins from. For inputs all but `near` and `memory` are 0.
struct Bases {
    uint64_t last_input;     // value of the last general input
    uint64_t previous_input; // of the last but one
    uint64_t near;           // the data address, or without one the instruction's own
    uint64_t out_distance;   // from the shape of the instruction word
    uint64_t out_value;
};

} // namespace trace

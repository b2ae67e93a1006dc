#include "uncommon_members.h"
#include "predictor.h"
#include "processor.h"

#include <bit>
#include <utility>
#if defined(QT_AVX2)
#include <immintrin.h>
#endif

namespace trace
{

namespace
{

// ---- What is left out, as ranges of bytes -------------------------------------------------------------------

struct Byte_Range {
    size_t offset, size;
};

constexpr size_t ROWS = std::size(rows::RECORD_ROWS);

// The row of the first member at or after `offset`; ROWS without one. A number: with sanitizers the compiler does not
// compare the address of a row while it compiles.
constexpr size_t next_row(size_t offset)
{
    size_t next = ROWS;
    for (size_t i = 0; i < ROWS; ++i) {
        const size_t place = rows::RECORD_ROWS[i].offset;
        if (place >= offset && (next == ROWS || place < rows::RECORD_ROWS[next].offset))
            next = i;
    }
    return next;
}

// Runs of rare members, with the padding between them.
template <class Visitor> constexpr void visit_rare(Visitor visit)
{
    Byte_Range run{};
    for (size_t i = next_row(0); i != ROWS; i = next_row(rows::RECORD_ROWS[i].offset + 1u)) {
        const Trace_Member &row = rows::RECORD_ROWS[i];
        if (row.coding == Member_Coding::rare) {
            run.offset = run.size == 0 ? row.offset : run.offset;
            run.size = row.offset + row.size - run.offset;
        } else if (run.size != 0) {
            visit(run);
            run = {};
        }
    }
}

constexpr size_t RARE_RANGES = [] {
    size_t count = 0;
    visit_rare([&](Byte_Range) { ++count; });
    return count;
}();
constexpr std::array<Byte_Range, RARE_RANGES> RARE = [] {
    std::array<Byte_Range, RARE_RANGES> ranges{};
    size_t count = 0;
    visit_rare([&](Byte_Range range) { ranges[count++] = range; });
    return ranges;
}();

// An address with its translation; its two page sizes stand elsewhere.
constexpr Byte_Range address_range(Address_Side side)
{
    return {ADDRESS[side].address, QTRACE_EA_LENGTH + TRANSLATION_BYTES};
}

constexpr Byte_Range page_sizes(Address_Side side)
{
    return {ADDRESS[side].page_size, 2};
}

// Calls visit(range) for every range that the common sections of this record do not carry.
template <class Visitor> void visit_uncommon(const QTRACE_RECORD &record, Visitor visit)
{
    for (const Byte_Range &range : RARE)
        visit(range);
    for (const Address_Side side : {DATA_ADDRESS, NEXT_ADDRESS})
        if (!has_address(control_in(record), side)) {
            visit(address_range(side));
            visit(page_sizes(side));
        }
    const auto *counts = reinterpret_cast<const uint8_t *>(&record.regs);
    for (size_t list = 0; list < REGISTER_LISTS; ++list) {
        const Register_List_Info &info = REGISTER_LIST[list];
        const size_t used = std::min(counts[list], info.capacity);
        const size_t offset = offsetof(QTRACE_RECORD, regs) + info.offset + used * info.entry_size();
        visit({offset, (info.capacity - used) * info.entry_size()});
    }
}

// ---- The search: the same ranges, or-ed together --------------------------------------------------------------
// Nearly three kilobytes a record, and nearly always all zero: so no branches but for the two addresses, and
// vectors as wide as the machine has. search() is compiled once for every machine and once for those with AVX2;
// hence always_inline throughout.

#define QT_INLINE [[gnu::always_inline]] inline

using Wide = uint64_t __attribute__((vector_size(32), aligned(1), may_alias));
constexpr size_t WIDE = sizeof(Wide);

// Several sums, for the processor to add to at once.
constexpr size_t SUMS = 4;
struct Sums {
    Wide part[SUMS];
    uint64_t single; // of what is not read a vector at a time
};

QT_INLINE const Wide &wide_at(const uint8_t *from)
{
    return *reinterpret_cast<const Wide *>(from);
}

constexpr size_t aligned_up(size_t offset)
{
    return (offset + WIDE - 1) / WIDE * WIDE;
}

template <size_t FIRST, size_t... I>
QT_INLINE void add_each(Sums &sums, const uint8_t *record, std::index_sequence<I...>)
{
    ((sums.part[I % SUMS] |= wide_at(record + FIRST + WIDE * I)), ...);
}

// Bytes BEGIN to END of the record. Only the two ends are read unaligned, and overlap the rest: where a record is
// aligned, as those of a static variable are, reading across cache lines would take half as long again.
template <size_t BEGIN, size_t END> QT_INLINE void add(Sums &sums, const uint8_t *record)
{
    static_assert(END - BEGIN >= WIDE);
    constexpr size_t FIRST = aligned_up(BEGIN);
    add_each<FIRST>(sums, record, std::make_index_sequence<(END - FIRST) / WIDE>{});
    if constexpr (BEGIN != FIRST)
        sums.part[1] |= wide_at(record + BEGIN);
    if constexpr (END % WIDE != 0)
        sums.part[2] |= wide_at(record + END - WIDE);
}

template <size_t BEGIN, size_t SIZE> QT_INLINE void add_range(Sums &sums, const uint8_t *record)
{
    add<BEGIN, BEGIN + SIZE>(sums, record);
}

// SIZE bytes, wherever they begin.
template <size_t SIZE> QT_INLINE void add_unaligned(Sums &sums, const uint8_t *from)
{
    static_assert(SIZE % WIDE == 0);
    for (size_t i = 0; i < SIZE / WIDE; ++i)
        sums.part[i % SUMS] |= wide_at(from + WIDE * i);
}

// Read at -n from the middle, it masks out the first n bytes.
constexpr size_t MOST_MASKED = 96;
struct Sliding_Mask {
    uint8_t byte[2 * MOST_MASKED];
};
constexpr Sliding_Mask SLIDING_MASK = [] {
    Sliding_Mask mask{};
    for (size_t i = MOST_MASKED; i < 2 * MOST_MASKED; ++i)
        mask.byte[i] = 0xff;
    return mask;
}();

// The bytes of SIZE without the first `used`.
template <size_t SIZE> QT_INLINE void add_unused(Sums &sums, const uint8_t *from, size_t used)
{
    static_assert(SIZE >= WIDE && SIZE <= MOST_MASKED);
    const uint8_t *mask = SLIDING_MASK.byte + MOST_MASKED - used;
    for (size_t i = 0; i + WIDE <= SIZE; i += WIDE)
        sums.part[1] |= wide_at(from + i) & wide_at(mask + i);
    if constexpr (SIZE % WIDE != 0)
        sums.part[2] |= wide_at(from + SIZE - WIDE) & wide_at(mask + SIZE - WIDE);
}

constexpr size_t list_bytes(size_t list)
{
    return REGISTER_LIST[list].capacity * REGISTER_LIST[list].entry_size();
}

QT_INLINE uint64_t any_of(const Sums &sums)
{
    const Wide sum = (sums.part[0] | sums.part[1]) | (sums.part[2] | sums.part[3]);
    return (sum[0] | sum[1]) | (sum[2] | sum[3]) | sums.single;
}

template <size_t LIST> QT_INLINE void add_unused_entries(Sums &sums, const uint8_t *registers)
{
    constexpr Register_List_Info INFO = REGISTER_LIST[LIST];
    const size_t used = std::min(registers[LIST], INFO.capacity);
    add_unused<list_bytes(LIST)>(sums, registers + INFO.offset, used * INFO.entry_size());
}

// Four lists of other than general registers. On its own, as few records come here.
template <size_t FIRST> [[gnu::noinline]] uint64_t unused_entries(const uint8_t *registers)
{
    Sums sums{};
    add_unused_entries<FIRST>(sums, registers);
    add_unused_entries<FIRST + 1>(sums, registers);
    add_unused_entries<FIRST + 2>(sums, registers);
    add_unused_entries<FIRST + 3>(sums, registers);
    return any_of(sums);
}

template <size_t GENERAL> [[gnu::noinline]] uint64_t unused_general(const uint8_t *registers)
{
    constexpr Register_List_Info INFO = REGISTER_LIST[GENERAL];
    uint64_t sum = 0;
    for (size_t at = registers[GENERAL] * INFO.entry_size(); at < list_bytes(GENERAL); at += sizeof(uint64_t))
        sum |= load<uint64_t>(registers + INFO.offset + at);
    return sum;
}

constexpr size_t REGISTERS = offsetof(QTRACE_RECORD, regs), ENTRY = sizeof(QTRACE_REGISTER_INFO);

// Of the general registers, which are many, most records use no more.
constexpr size_t FEW_GENERAL = 4;

// Most records have general registers only, or a few special ones as well; these stand first of five lists, general ones
// last. What is read twice, or beyond the special registers, is unused then.
template <size_t GENERAL> QT_INLINE void add_unused_registers(Sums &sums, const uint8_t *registers)
{
    constexpr size_t SPECIAL = GENERAL - 4, AFTER_SPECIAL = GENERAL - 3;
    constexpr size_t SPECIAL_AT = REGISTER_LIST[SPECIAL].offset, GENERAL_AT = REGISTER_LIST[GENERAL].offset;
    constexpr size_t FEW_BYTES = FEW_GENERAL * ENTRY;
    static_assert(REGISTER_LIST[SPECIAL].kind == 0 && REGISTER_LIST[SPECIAL].entry_size() == ENTRY);
    static_assert(list_bytes(AFTER_SPECIAL) >= list_bytes(SPECIAL));
    const uint8_t *record = registers - REGISTERS;
    const auto others = load<uint32_t>(registers + SPECIAL);
    if (others <= REGISTER_LIST[SPECIAL].capacity) [[likely]] {
        add_unaligned<list_bytes(SPECIAL)>(sums, registers + SPECIAL_AT + others * ENTRY);
        add<REGISTERS + REGISTER_LIST[AFTER_SPECIAL].offset, REGISTERS + GENERAL_AT>(sums, record);
    } else {
        sums.single |= unused_entries<SPECIAL>(registers);
    }
    const size_t general = registers[GENERAL];
    if (general <= FEW_GENERAL) [[likely]] {
        add_unaligned<FEW_BYTES>(sums, registers + GENERAL_AT + general * ENTRY);
        add<REGISTERS + GENERAL_AT + FEW_BYTES, REGISTERS + GENERAL_AT + list_bytes(GENERAL)>(sums, record);
    } else {
        sums.single |= unused_general<GENERAL>(registers);
    }
}

// ---- Ranges shorter than a vector: they stand close together, with the page sizes of both addresses ----------

constexpr bool is_short(const Byte_Range &range)
{
    return range.size < WIDE;
}
constexpr size_t SHORT_BEGIN = std::ranges::find_if(RARE, is_short)->offset;
constexpr size_t SHORT_END = RARE.back().offset + RARE.back().size;
constexpr size_t WORD = sizeof(uint64_t);
static_assert(is_short(RARE.back()) && SHORT_END - SHORT_BEGIN >= WORD && SHORT_END - SHORT_BEGIN <= 2 * WORD);

// The bytes of the range in the eight that begin at `first`.
constexpr uint64_t mask_at(size_t first, const Byte_Range &range)
{
    uint64_t mask = 0;
    for (size_t byte = range.offset; byte < range.offset + range.size; ++byte)
        if (byte >= first && byte < first + WORD)
            mask |= uint64_t{0xff} << 8 * (byte - first);
    return mask;
}

constexpr uint64_t rare_at(size_t first)
{
    uint64_t mask = 0;
    for (const Byte_Range &range : RARE)
        mask |= is_short(range) ? mask_at(first, range) : 0;
    return mask;
}

QT_INLINE uint64_t short_ranges(const uint8_t *bytes)
{
    constexpr size_t LAST = SHORT_END - WORD;
    return (load<uint64_t>(bytes + SHORT_BEGIN) & rare_at(SHORT_BEGIN)) |
           (load<uint64_t>(bytes + LAST) & rare_at(LAST));
}

template <size_t... I> QT_INLINE void add_long_ranges(Sums &sums, const uint8_t *record, std::index_sequence<I...>)
{
    const auto add_one = [&]<size_t N>(std::integral_constant<size_t, N>) __attribute__((always_inline))
    {
        if constexpr (!is_short(RARE[N]))
            add_range<RARE[N].offset, RARE[N].size>(sums, record);
    };
    (add_one(std::integral_constant<size_t, I>{}), ...);
}

template <Address_Side SIDE> QT_INLINE void add_address(Sums &sums, const QTRACE_RECORD &record)
{
    if (has_address(control_in(record), SIDE))
        return;
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
    add_range<address_range(SIDE).offset, address_range(SIDE).size>(sums, bytes);
    static_assert(page_sizes(SIDE).size == sizeof(uint16_t));
    sums.single |= load<uint16_t>(bytes + page_sizes(SIDE).offset);
}

QT_INLINE Sums search(const QTRACE_RECORD &record)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
    Sums sums{{}, short_ranges(bytes)};
    add_long_ranges(sums, bytes, std::make_index_sequence<RARE_RANGES>{});
    add_address<DATA_ADDRESS>(sums, record);
    add_address<NEXT_ADDRESS>(sums, record);
    const auto *registers = reinterpret_cast<const uint8_t *>(&record.regs);
    add_unused_registers<GENERAL_OUTPUT_LIST>(sums, registers);
    add_unused_registers<GENERAL_INPUT_LIST>(sums, registers);
    return sums;
}

bool search_anywhere(const QTRACE_RECORD &record)
{
    return any_of(search(record)) != 0;
}

#if defined(QT_AVX2)
[[gnu::target("avx2")]] bool search_with_avx2(const QTRACE_RECORD &record)
{
    const Sums sums = search(record);
    const auto sum = reinterpret_cast<__m256i>((sums.part[0] | sums.part[1]) | (sums.part[2] | sums.part[3]));
    return sums.single != 0 || _mm256_testz_si256(sum, sum) == 0;
}
#else
constexpr auto search_with_avx2 = search_anywhere;
#endif

bool (*const search_record)(const QTRACE_RECORD &) = for_processor(search_with_avx2, search_anywhere);

} // namespace

bool has_uncommon(const QTRACE_RECORD &record)
{
    return search_record(record);
}

void copy_uncommon(const QTRACE_RECORD &record, QTRACE_RECORD &to)
{
    const auto *from = reinterpret_cast<const uint8_t *>(&record);
    auto *copy = reinterpret_cast<uint8_t *>(&to);
    visit_uncommon(record, [from, copy](Byte_Range range) {
        std::memcpy(copy + range.offset, from + range.offset, range.size);
    });
}

} // namespace trace

// Records as columns: the functions of qtrace_columns.h.
#include "columns.h"

#include "address_view.h"
#include "instruction_kinds.h"

#include <algorithm>
#include <cstring>
#include <new>

// ---- Translations -----------------------------------------------------------------------------------------------

struct QTRACE_Translations {
    trace::Translation_Table table;
    trace::Translation_Numbers numbers; // of the reader that is being read
};

namespace trace
{
namespace
{

static_assert(int{PIECE_VSID} == QTRACE_TRANSLATION_VSID && int{PIECE_RPN} == QTRACE_TRANSLATION_RPN &&
              int{PIECE_PAGE} == QTRACE_TRANSLATION_PAGE_SIZE &&
              int{PIECE_GUEST_PAGE} == QTRACE_TRANSLATION_GUEST_PAGE_SIZE);

// The bits of a control word that belong to the translation of one side.
uint64_t translation_flags(Address_Side side)
{
    control_word flags{};
    if (side == DATA_ADDRESS) {
        flags.fld.guest_xlate_mode_data = flags.fld.host_xlate_mode_data = 3;
        flags.fld.data_VSID_present = flags.fld.data_RPN_present = 1;
        flags.fld.data_page_size_present = flags.fld.data_gpage_size_present = 1;
    } else {
        flags.fld.guest_xlate_mode_instruction = flags.fld.host_xlate_mode_instruction = 3;
        flags.fld.next_instruction_VSID_present = flags.fld.next_instruction_RPN_present = 1;
        flags.fld.next_instruction_page_size_present = flags.fld.instruction_gpage_size_present = 1;
    }
    return load<uint64_t>(&flags);
}

const uint64_t TRANSLATION_FLAGS[ADDRESS_SIDES] = {translation_flags(DATA_ADDRESS),
                                                   translation_flags(NEXT_ADDRESS)};

QTRACE_Translation row_of(const Translated_Address &address)
{
    QTRACE_Translation row{};
    row.guest_mode = address.modes.guest;
    row.host_mode = address.modes.host;
    row.present = address.pieces;
    row.page_size = address.page_size;
    row.guest_page_size = address.guest_page_size;
    row.guest_depth = address.guest_depth;
    row.host_depth = address.host_depth;
    row.rpn = address.page_number;
    row.vsid = address.vsid;
    static_assert(sizeof row.host_walk == 5 * sizeof(QTRACE_RTW) && sizeof row.host_address == 4 * 8 &&
                  sizeof row.guest_walk + sizeof row.guest_address == sizeof(QTRACE_RTW_GUEST));
    std::memcpy(row.host_walk, address.walks, sizeof row.host_walk);
    std::memcpy(row.host_address, address.host_addresses, sizeof row.host_address);
    std::memcpy(row.guest_walk, address.guest, sizeof row.guest_walk);
    std::memcpy(&row.guest_address, address.guest->GUEST_ra, sizeof row.guest_address);
    return row;
}

} // namespace

uint32_t Translation_Numbers::search(Translation_Table &table, const Decoder &decoder, const QTRACE_RECORD &record,
                                     Address_Side side)
{
    // Rare members may add to what the page is known for.
    const bool changed = decoder.has_rare_members();
    QTRACE_RECORD bare{}; // at address 0, where the guest real address is that of the page
    bare.header = record.header;
    put_translation(bare, side, changed ? translation_in(record, side) : decoder.translation(side));
    return table.number_of(row_of(side == DATA_ADDRESS ? data_address_of(bare) : next_address_of(bare)));
}

uint32_t Translation_Numbers::number(Translation_Table &table, const Decoder &decoder, const QTRACE_RECORD &record,
                                     Address_Side side)
{
    if (decoder.has_rare_members())
        return search(table, decoder, record, side);
    if (known_.empty())
        known_.resize(size_t{ADDRESS_SIDES} << PAGE_BITS);
    const Decoder::Translation_Place &place = decoder.translation_place(side);
    const uint64_t flags = control_in(record) & TRANSLATION_FLAGS[side];
    Known &known = known_[place.slot * ADDRESS_SIDES + side];
    if (known.version != place.version || known.flags != flags)
        known = {place.version, flags, search(table, decoder, record, side)};
    return known.row;
}

} // namespace trace

// ---- Records ----------------------------------------------------------------------------------------------------

namespace
{

using namespace trace;

// The columns of one record, each only when it is wanted. A set of columns that is known to the compiler costs no
// test per record and column.
template <uint32_t KNOWN> class Row_Writer
{
public:
    Row_Writer(QTRACE_Reader *reader, QTRACE_Columns &to)
        : decoder_(decoder_of(*reader)), to_(to), translations_(to.translations)
    {
    }
    void put(const QTRACE_Item &item, uint64_t row);

private:
    bool wants(uint32_t column) const { return ((KNOWN != 0 ? KNOWN : to_.which) & column) != 0; }
    template <class Value> void put(uint32_t column, Value *to, uint64_t row, Value value) const
    {
        if (wants(column))
            to[row] = value;
    }
    void put_address(uint32_t column, uint64_t *to, uint8_t *has, uint64_t row, bool present,
                     uint64_t address) const
    {
        put(column, to, row, present ? address : 0);
        put(column << 1, has, row, static_cast<uint8_t>(present)); // the mask is the next bit
    }
    uint32_t translation(const QTRACE_RECORD &record, Address_Side side, bool present)
    {
        // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): whoever wants these columns gives the table
        return present ? translations_->numbers.number(translations_->table, decoder_, record, side) : 0;
    }

    const Decoder &decoder_;
    const QTRACE_Columns to_;
    QTRACE_Translations *translations_;
};

static_assert(QTRACE_COLUMN_HAS_ADDRESS == QTRACE_COLUMN_ADDRESS << 1 &&
              QTRACE_COLUMN_HAS_NEXT == QTRACE_COLUMN_NEXT << 1 &&
              QTRACE_COLUMN_HAS_DATA == QTRACE_COLUMN_DATA << 1);

template <uint32_t KNOWN>
[[gnu::always_inline]] inline void Row_Writer<KNOWN>::put(const QTRACE_Item &item, uint64_t row)
{
    const QTRACE_RECORD &record = item.record;
    const uint64_t control = control_in(record);
    const bool has_next = has_address(control, NEXT_ADDRESS), has_data = has_address(control, DATA_ADDRESS);
    put_address(QTRACE_COLUMN_ADDRESS, to_.address, to_.has_address, row, item.address_known != 0, item.address);
    put_address(QTRACE_COLUMN_NEXT, to_.next, to_.has_next, row, has_next, address_in(record, NEXT_ADDRESS));
    put_address(QTRACE_COLUMN_DATA, to_.data, to_.has_data, row, has_data, address_in(record, DATA_ADDRESS));
    put(QTRACE_COLUMN_WORD, to_.word, row, record.header.instruction);
    put(QTRACE_COLUMN_FLAGS, to_.flags, row, control);
    if (wants(QTRACE_COLUMN_DATA_TRANSLATION))
        to_.data_translation[row] = translation(record, DATA_ADDRESS, has_data);
    if (wants(QTRACE_COLUMN_NEXT_TRANSLATION))
        to_.next_translation[row] = translation(record, NEXT_ADDRESS, has_next);
    put(QTRACE_COLUMN_CONTEXT, to_.context, row, static_cast<uint32_t>(item.header_number - 1));
    put(QTRACE_COLUMN_NODE, to_.node, row, record.node);
    put(QTRACE_COLUMN_TERMINATION_NODE, to_.termination_node, row, record.termination_node);
    put(QTRACE_COLUMN_TERMINATION, to_.termination, row, record.termination_code);
    put(QTRACE_COLUMN_ERROR, to_.error, row, record.error_code);
    put(QTRACE_COLUMN_PROCESSOR, to_.processor, row, record.processor);
    put(QTRACE_COLUMN_LENGTH, to_.length, row, record.length);
    if (wants(QTRACE_COLUMN_KINDS))
        to_.kinds[row] = static_cast<uint16_t>(kinds_of(record, item.address));
}

// Records without translations while it lives: columns take these from the predictor.
class Without_Translations
{
public:
    explicit Without_Translations(QTRACE_Reader *reader) : decoder_(decoder_of(*reader))
    {
        decoder_.leave_out_translations(true);
    }
    ~Without_Translations() { decoder_.leave_out_translations(false); }
    Without_Translations(const Without_Translations &) = delete;
    Without_Translations &operator=(const Without_Translations &) = delete;

private:
    Decoder &decoder_;
};

// Calls put(item) for up to `records` records, as long as it returns true.
template <class Put>
QTRACE_ITEM for_records(QTRACE_Reader *reader, uint64_t records, const QTRACE_Item **item, Put put)
{
    const Without_Translations lean(reader);
    const QTRACE_Item *next = nullptr;
    QTRACE_ITEM kind = QTRACE_ITEM_RECORD;
    for (uint64_t done = 0; done < records;) {
        kind = qtrace_next(reader, &next);
        if (kind == QTRACE_ITEM_HEADER)
            continue;
        if (kind != QTRACE_ITEM_RECORD)
            break;
        ++done;
        if (!put(*next))
            break;
    }
    if (item != nullptr)
        *item = next;
    return kind == QTRACE_ITEM_HEADER ? QTRACE_ITEM_RECORD : kind;
}

template <uint32_t KNOWN>
QTRACE_ITEM read_columns(QTRACE_Reader *reader, uint64_t rows, QTRACE_Columns &columns, const QTRACE_Item **item)
{
    Row_Writer<KNOWN> writer(reader, columns);
    uint64_t row = 0, first = 0;
    const QTRACE_ITEM kind = for_records(reader, rows, item, [&](const QTRACE_Item &record) {
        if (row == 0)
            first = record.record_number;
        writer.put(record, row++);
        return true;
    });
    columns.rows = row;
    columns.first_record = first;
    return kind;
}

// Those of a data frame of which nobody says what it should hold.
constexpr uint32_t USUAL_COLUMNS = QTRACE_COLUMN_ADDRESS | QTRACE_COLUMN_NEXT | QTRACE_COLUMN_HAS_NEXT |
                                   QTRACE_COLUMN_DATA | QTRACE_COLUMN_HAS_DATA | QTRACE_COLUMN_WORD |
                                   QTRACE_COLUMN_FLAGS | QTRACE_COLUMN_DATA_TRANSLATION |
                                   QTRACE_COLUMN_NEXT_TRANSLATION | QTRACE_COLUMN_CONTEXT | QTRACE_COLUMN_NODE |
                                   QTRACE_COLUMN_TERMINATION | QTRACE_COLUMN_ERROR | QTRACE_COLUMN_LENGTH;

// Into the next row; false when the class is not wanted.
[[gnu::always_inline]] inline bool put_register(const QTRACE_Register_Columns &to, uint64_t record,
                                                const Register_Place &place, bool output)
{
    static_assert(QTRACE_CLASS_GPR == 0 && QTRACE_CLASS_SPR == 4); // the predictor's register files, reversed
    const auto number = static_cast<uint8_t>(QTRACE_CLASS_SPR - place.list->kind);
    to.record[to.rows] = record;
    to.output[to.rows] = output;
    to.register_class[to.rows] = number;
    to.number[to.rows] = place.number();
    to.value[to.rows] = place.value(0);
    to.high[to.rows] = place.list->words > 1 ? place.value(1) : 0;
    return ((output ? to.outputs : to.inputs) >> number & 1) != 0;
}

} // namespace

extern "C" {

QTRACE_ITEM qtrace_read_columns(QTRACE_Reader *reader, uint64_t rows, QTRACE_Columns *columns,
                                const QTRACE_Item **item)
try {
    if (columns->translations != nullptr)
        columns->translations->numbers.forget();
    return columns->which == USUAL_COLUMNS ? read_columns<USUAL_COLUMNS>(reader, rows, *columns, item)
                                           : read_columns<0>(reader, rows, *columns, item);
} catch (const std::bad_alloc &) {
    columns->rows = 0;
    return QTRACE_ITEM_ERROR;
}

QTRACE_ITEM qtrace_next_header(QTRACE_Reader *reader, const QTRACE_Item **item)
{
    const Without_Translations lean(reader);
    QTRACE_ITEM kind;
    do
        kind = qtrace_next(reader, item);
    while (kind == QTRACE_ITEM_RECORD);
    return kind;
}

// ---- Registers --------------------------------------------------------------------------------------------------

QTRACE_ITEM qtrace_read_registers(QTRACE_Reader *reader, uint64_t records, QTRACE_Register_Columns *columns,
                                  const QTRACE_Item **item)
{
    QTRACE_Register_Columns to = *columns;
    to.rows = to.records = 0;
    Register_Places places;
    const QTRACE_ITEM kind = for_records(reader, records, item, [&](const QTRACE_Item &next) {
        ++to.records;
        find_registers(const_cast<QTRACE_REGISTERS &>(next.record.regs), places); // to read them
        for (size_t i = 0; i < places.total; ++i)
            to.rows += put_register(to, next.record_number, places.place[i], i >= places.inputs);
        return to.room - to.rows >= QTRACE_MAX_REGISTERS;
    });
    columns->rows = to.rows;
    columns->records = to.records;
    return kind;
}

// ---- Translation tables -----------------------------------------------------------------------------------------

QTRACE_Translations *qtrace_translations_new(void)
try {
    return new QTRACE_Translations;
} catch (const std::bad_alloc &) {
    return nullptr;
}

void qtrace_translations_free(QTRACE_Translations *table)
{
    delete table;
}

uint32_t qtrace_translations_count(const QTRACE_Translations *table)
{
    return static_cast<uint32_t>(table->table.rows().size());
}

void qtrace_translations_copy(const QTRACE_Translations *table, uint32_t first, uint32_t count,
                              QTRACE_Translation *to)
{
    std::copy_n(table->table.rows().begin() + first, count, to);
}

int qtrace_translations_merge(QTRACE_Translations *to, const QTRACE_Translations *from, uint32_t *numbers)
try {
    std::transform(from->table.rows().begin(), from->table.rows().end(), numbers,
                   [to](const QTRACE_Translation &row) { return to->table.number_of(row); });
    return 0;
} catch (const std::bad_alloc &) {
    return -1;
}
}

#include "trace_codec.h"
#include "uncommon_members.h"

#include <algorithm>
#include <bit>

namespace trace
{

// ---- Sparse images: a structure as runs of bytes that are not zero ------------------------------------------

namespace
{

// Runs shorter than this apart are joined: a run costs about as much to begin.
constexpr size_t MIN_GAP = 4;

struct Byte_Range {
    size_t offset, size;
};

// The next run at or after `from`: begins with a byte that is set, ends after one.
Byte_Range next_run(const uint8_t *image, size_t from, size_t size)
{
    while (from < size && image[from] == 0)
        ++from;
    size_t end = from;
    for (size_t i = from; i < size && i < end + MIN_GAP; ++i)
        if (image[i] != 0)
            end = i + 1;
    return {from, end - from};
}

// Per run: zero bytes before it, its size, its bytes; a size of 0 ends the image.
void encode_image(Byte_Sink &to, const void *structure, size_t size)
{
    const auto *image = static_cast<const uint8_t *>(structure);
    size_t done = 0;
    for (;;) {
        const Byte_Range run = next_run(image, done, size);
        to.varint(run.size == 0 ? 0 : run.offset - done);
        to.varint(run.size);
        if (run.size == 0)
            return;
        to.bytes(image + run.offset, run.size);
        done = run.offset + run.size;
    }
}

// Puts the runs into `structure`, which is zero there but for members that other sections have filled between two
// joined runs; false when one does not fit.
bool decode_image(Byte_Source &from, void *structure, size_t size)
{
    auto *image = static_cast<uint8_t *>(structure);
    size_t done = 0;
    for (;;) {
        const uint64_t gap = from.varint(), length = from.varint();
        if (from.bad || length == 0)
            return !from.bad && gap == 0;
        if (gap > size - done || length > size - done - gap)
            return false;
        const uint8_t *bytes = from.bytes(length);
        if (bytes == nullptr)
            return false;
        done += gap;
        for (size_t i = 0; i < length; ++i)
            image[done++] |= bytes[i];
    }
}

// Pointers and the library's bookkeeping do not travel.
void drop_pointers(QTRACE_RECORD &record)
{
    record.data = nullptr;
    record.file_header = nullptr;
    record.persistent_data = nullptr;
    record.offset = record.record_count = record.instr_count = record.exec_instr_count = 0;
}

// ---- Small things that both halves need ------------------------------------------------------------------------

// A mask that takes the place of a branch.
uint64_t all_if(bool condition)
{
    return 0 - static_cast<uint64_t>(condition);
}

template <size_t... I> Small_Members packed_members(const uint8_t *record, std::index_sequence<I...>)
{
    const auto value = [record](const Small_Member &member) {
        const uint8_t *at = record + member.offset;
        return (member.size == 1 ? uint64_t{*at} : uint64_t{load<uint16_t>(at)}) << member.shift;
    };
    return {(value(SMALL_MEMBER[I]) | ...)};
}

// Put together in one processor register: written byte by byte, it could not be read at once.
Small_Members members_of(const QTRACE_RECORD &record)
{
    return packed_members(reinterpret_cast<const uint8_t *>(&record), std::make_index_sequence<SMALL_MEMBERS>{});
}

// Reads both registers whatever the count says: how many there are is hard to foresee for the processor.
Bases bases_of(const QTRACE_REGISTERS &registers, const Shape_Slot &shape, uint64_t near)
{
    const size_t count = std::min<size_t>(registers.num_gprs_in, QTRACE_MAX_GPRS_IN);
    const uint64_t last = registers.gpr_in[std::max<size_t>(count, 1) - 1].value;
    const uint64_t previous = registers.gpr_in[std::max<size_t>(count, 2) - 2].value;
    return {last & all_if(count > 0), previous & all_if(count > 1), near, shape.out_distance, shape.out_value};
}

uint64_t data_base(const Bases &bases, uint8_t which)
{
    if (which == BASE_LAST_INPUT)
        return bases.last_input;
    return which == BASE_SUM_OF_INPUTS ? bases.previous_input + bases.last_input : 0;
}

// The page of `side` is about to change; when it is the other side's last translation, that needs a copy.
[[gnu::noinline]] void keep_last_of_other_side(Predictor &predictor, const Translation *(&last)[ADDRESS_SIDES],
                                               Address_Side side, const Translation &page)
{
    const Address_Side other = side == DATA_ADDRESS ? NEXT_ADDRESS : DATA_ADDRESS;
    if (last[other] != &page)
        return;
    predictor.last[other] = page;
    last[other] = &predictor.last[other];
}

// Flags of an item's second byte, as they stand above those of the first until the item is complete.
constexpr unsigned more(unsigned flags)
{
    return flags << 8;
}

// Begins to bring a slot near that is needed soon.
template <class Slot> void prefetch(const Slot &slot)
{
    for (size_t at = 0; at < sizeof slot; at += 64)
        __builtin_prefetch(reinterpret_cast<const uint8_t *>(&slot) + at, 1);
}

// The same slot, whose address stays in a processor register: the compiler would compute it anew at each use.
template <class Slot> Slot &kept(Slot &slot)
{
    Slot *place = &slot;
    asm("" : "+r"(place));
    return *place;
}

// What later accesses at `near` are expected to give: the first output, or what the instruction may have stored.
template <class Registers> void remember_memory(Predictor &predictor, const Registers &places, uint64_t near)
{
    if (places.total == 0)
        return;
    const bool outputs = places.total != places.inputs;
    const auto &place = places[outputs ? places.inputs : places.last_inputs];
    for (unsigned word = 0; word < place.list->words; ++word)
        predictor.memory_at(near + 8 * word) = place.value(word);
}

// What later records of the same word or address are expected to be; called when the record is complete.
template <class Registers>
void remember_record(Predictor &predictor, const QTRACE_RECORD &record, const Registers &places, const Bases &bases,
                     Shape_Slot &shape)
{
    shape.control = control_in(record);
    shape.members = members_of(record);
    if (places.total > places.inputs) {
        shape.out_value = places[places.inputs].value(0);
        shape.out_distance = shape.out_value - bases.last_input;
    }
    remember_memory(predictor, places, bases.near);
    Code_Slot &code = predictor.code_at(predictor.address);
    code.word = record.header.instruction;
    if (has_address(shape.control, NEXT_ADDRESS))
        code.next = address_in(record, NEXT_ADDRESS);
    predictor.follow(record);
}

template <class Registers>
[[gnu::always_inline]] inline void remember_list(const Registers &places, const uint8_t *counts,
                                                 Register_List &list)
{
    list = Register_List{};
    if (places.total > REMEMBERED_REGISTERS)
        return;
    std::memcpy(list.counts, counts, sizeof list.counts);
    places.visit([&list](size_t i, const auto &place) { list.index[i] = place.number(); });
}

template <class Registers> bool is_list(const Registers &places, const uint8_t *counts, const Register_List &list)
{
    static_assert(REGISTER_LISTS == sizeof(uint64_t) + sizeof(uint16_t));
    const uint64_t other_counts = (load<uint64_t>(counts) ^ load<uint64_t>(list.counts)) |
                                  (load<uint16_t>(counts + 8) ^ load<uint16_t>(list.counts + 8));
    if (other_counts != 0 || places.total > REMEMBERED_REGISTERS)
        return false;
    unsigned difference = 0;
    places.visit(
        [&](size_t i, const auto &place) { difference |= static_cast<unsigned>(list.index[i] ^ place.number()); });
    return difference == 0;
}

// A bit for each byte that is not zero, the lowest byte first.
unsigned nonzero_bytes(uint64_t bytes)
{
    constexpr uint64_t LOW_BITS = 0x7f7f7f7f7f7f7f7f, GATHER = 0x0102040810204080;
    const uint64_t high = ((bytes & LOW_BITS) + LOW_BITS) | bytes; // bit 7 of each byte tells
    return static_cast<unsigned>(((high & ~LOW_BITS) >> 7) * GATHER >> 56);
}

// Values that need no bytes, in the order of their kinds; `memory` is what was last at the value's place.
[[gnu::always_inline]] inline uint64_t predicted_value(unsigned kind, uint64_t last, uint64_t memory,
                                                       const Bases &bases)
{
    switch (kind) {
    case VALUE_REGISTER:
        return last;
    case VALUE_DISTANCE:
        return bases.last_input + bases.out_distance;
    case VALUE_MEMORY:
        return memory;
    case VALUE_SHAPE:
        return bases.out_value;
    case VALUE_SUM:
        return bases.previous_input + bases.last_input;
    case VALUE_DIFFERENCE:
        return bases.last_input - bases.previous_input;
    case VALUE_AND:
        return bases.previous_input & bases.last_input;
    case VALUE_OR:
        return bases.previous_input | bases.last_input;
    default:
        return bases.previous_input ^ bases.last_input;
    }
}

unsigned unsigned_size(uint64_t value)
{
    return (static_cast<unsigned>(std::bit_width(value)) + 7) / 8;
}

unsigned signed_size(uint64_t difference)
{
    return std::max(1u, unsigned_size(zigzag(difference)));
}

uint64_t sign_extended(uint64_t value, unsigned bytes)
{
    const unsigned shift = 64 - 8 * bytes;
    return static_cast<uint64_t>(static_cast<int64_t>(value << shift) >> shift);
}

constexpr size_t COLUMN_ROOM = MAX_PAYLOAD + 64;
constexpr size_t MAX_COMMON = 2048; // encoded bytes of a record's common sections
constexpr size_t MAX_PLAIN = 128;   // the same without new translations, of a few registers
constexpr size_t PLAIN_REGISTERS = 3;
constexpr size_t MAX_HEADER_ITEM = 512; // of a file header without its comment

bool comment_stays_outside(const QTRACE_FILE_HDR &header)
{
    return header.comment != nullptr && header.comment_length > MAX_COMMENT_IN_BLOCK;
}

} // namespace

QTRACE_FILE_HDR without_pointers(const QTRACE_FILE_HDR &header)
{
    QTRACE_FILE_HDR copy = header;
    copy.comment = nullptr;
    copy.app_spec_data = nullptr;
    return copy;
}

void Open_Header::follow(const QTRACE_FILE_HDR &next)
{
    const auto &flags = next.sec_ext_controlword.control.fld;
    if (next.control.iar_is_present) {
        header = without_pointers(next);
        present = true;
    }
    if (flags.lpid_is_present)
        std::memcpy(header.lpid, next.lpid, sizeof header.lpid);
    if (flags.pid_is_present)
        std::memcpy(header.pid, next.pid, sizeof header.pid);
}

// ---- Blocks -----------------------------------------------------------------------------------------------------

void Encoder::begin_block()
{
    first_ = next_position();
    if (!started()) {
        memory_ = std::make_unique_for_overwrite<uint8_t[]>(COLUMNS * COLUMN_ROOM);
        predictor_ = std::make_unique_for_overwrite<Predictor>();
    }
    passed_over_ = false;
    predictor_->reset(first_);
    for (const Address_Side side : {DATA_ADDRESS, NEXT_ADDRESS})
        last_[side] = &predictor_->last[side];
    records_ = headers_ = 0;
    sure_room_ = 0;
    surely_common_ = false;
    for (size_t i = 0; i < COLUMNS; ++i)
        columns_[i].begin = columns_[i].at = memory_.get() + i * COLUMN_ROOM;
    if (open_.present)
        encode_image(sink(COLUMN_OPEN), &open_.header, sizeof open_.header);
}

bool Encoder::has_room_for(const QTRACE_RECORD &record)
{
    if (passed_over_)
        return false;
    sure_room_ = MAX_PAYLOAD - raw_size();
    if (sure_of_room())
        return true;
    surely_common_ = sure_room_ >= MAX_COMMON && !has_uncommon(record);
    return surely_common_;
}

Position Encoder::next_position() const
{
    if (passed_over_)
        return continuation_;
    return started() ? static_cast<const Position &>(*predictor_) : Position{};
}

template <class Item> void Encoder::pass_over(const Item &item)
{
    continuation_ = next_position();
    continuation_.follow(item);
    passed_over_ = true;
    sure_room_ = 0;
}

void Encoder::leave_out(const QTRACE_RECORD &record)
{
    pass_over(record);
}

void Encoder::leave_out(const QTRACE_FILE_HDR &header)
{
    pass_over(header);
    open_.follow(header);
}

void Encoder::continue_at(const Position &place, const Open_Header &open)
{
    continuation_ = place;
    open_ = open;
    passed_over_ = true;
    sure_room_ = 0;
}

bool Encoder::has_room_for(const QTRACE_FILE_HDR &header) const
{
    if (passed_over_)
        return false;
    if (comment_stays_outside(header))
        return empty();
    const size_t comment = header.comment == nullptr ? 0u : header.comment_length;
    return MAX_PAYLOAD - raw_size() >= MAX_HEADER_ITEM + comment;
}

size_t Encoder::raw_size() const
{
    size_t size = COLUMN_SIZES;
    for (const Byte_Sink &column : columns_)
        size += column.size();
    return size;
}

void Encoder::collect(uint8_t *to) const
{
    Byte_Sink payload{to, to};
    for (const Byte_Sink &column : columns_)
        payload.number(static_cast<uint32_t>(column.size()));
    for (const Byte_Sink &column : columns_)
        payload.bytes(column.begin, column.size());
}

namespace
{

// The columns of a payload; false when they do not fit its size.
bool split(const uint8_t *payload, size_t size, Byte_Source (&columns)[COLUMNS])
{
    Byte_Source whole{payload, payload + size};
    uint64_t sum = COLUMN_SIZES;
    uint32_t sizes[COLUMNS];
    for (uint32_t &column : sizes) {
        column = whole.number<uint32_t>();
        sum += column;
    }
    if (whole.bad || sum != size)
        return false;
    for (size_t i = 0; i < COLUMNS; ++i) {
        const uint8_t *begin = whole.bytes(sizes[i]);
        columns[i] = {begin, begin + sizes[i]};
    }
    return true;
}

// False when the column is neither empty nor filled by one image.
bool decode_open_header(Byte_Source &from, Open_Header &open)
{
    open = Open_Header{};
    open.present = from.left() != 0;
    if (open.present && (!decode_image(from, &open.header, sizeof open.header) || from.left() != 0))
        return false;
    open.header = without_pointers(open.header);
    return true;
}

} // namespace

// Version 1 is the only one so far; load_block_header lets no other through.
Open_Header open_header_of(const uint8_t *payload, const Block_Header &header)
{
    Byte_Source columns[COLUMNS];
    Open_Header open;
    return header.version == 1 && split(payload, header.raw_size, columns) &&
                   decode_open_header(columns[COLUMN_OPEN], open)
               ? open
               : Open_Header{};
}

bool Decoder::begin_block(const uint8_t *payload, const Block_Header &header)
{
    if (!predictor_)
        predictor_ = std::make_unique_for_overwrite<Predictor>();
    predictor_->reset({header.first_address, header.has(ADDRESS_KNOWN)});
    std::fill(std::begin(page_versions_), std::end(page_versions_), ++newest_version_);
    for (const Address_Side side : {DATA_ADDRESS, NEXT_ADDRESS})
        last_[side] = &predictor_->last[side];
    bad_ = false;
    return header.version == 1 && split(payload, header.raw_size, columns_) &&
           decode_open_header(source(COLUMN_OPEN), open_);
}

bool Decoder::any_bad() const
{
    bool bad = bad_;
    for (const Byte_Source &column : columns_) // no branch each: every record is asked
        bad |= column.bad;
    return bad;
}

bool Decoder::all_read() const
{
    return std::all_of(std::begin(columns_), std::end(columns_), [](const auto &c) { return c.left() == 0; });
}

// ---- Items ------------------------------------------------------------------------------------------------------

// The parts are called once each, and their calls would be a tenth of it all: so flattened.
[[gnu::flatten]] void Encoder::add(const QTRACE_RECORD &record)
{
    // The registers are only read through these.
    auto &registers = const_cast<QTRACE_REGISTERS &>(record.regs);
    if (!Few_General::fits(registers))
        return add_with_all_registers(record);
    add_record(record, Few_General(registers));
}

[[gnu::flatten, gnu::noinline]] void Encoder::add_with_all_registers(const QTRACE_RECORD &record)
{
    Register_Places places;
    find_all_registers(reinterpret_cast<uint8_t *>(const_cast<QTRACE_REGISTERS *>(&record.regs)), places);
    add_record(record, places);
}

template <class Registers> void Encoder::add_record(const QTRACE_RECORD &record, const Registers &places)
{
    Predictor &predictor = *predictor_;
    const uint64_t control = control_in(record);
    const uint32_t word = record.header.instruction;
    Code_Slot &code = predictor.code_at(predictor.address);
    Shape_Slot &shape = kept(predictor.shape_of(word));
    prefetch(shape);
    const bool uncommon = !surely_common_ && has_uncommon(record); // long enough for the slots to arrive
    unsigned op = uncommon ? more(MORE_ESCAPE) : 0;
    surely_common_ = false;
    op |= code.word != word ? OP_WORD : 0;
    sink(COLUMN_WORD).number_if(code.word != word, word);
    op |= encode_static(record, shape, control);
    op |= encode_list(places, reinterpret_cast<const uint8_t *>(&record.regs), shape.list);
    op |= encode_inputs(places);

    Bases bases = bases_of(record.regs, shape, predictor.address);
    if (has_address(control, DATA_ADDRESS)) {
        bases.near = address_in(record, DATA_ADDRESS);
        op |= encode_data_address(bases, shape);
    }
    places.visit_outputs([&](size_t, const auto &place) {
        for (unsigned part = 0; part < place.list->words; ++part)
            encode_value(place, part, bases);
    });
    if (has_address(control, NEXT_ADDRESS) && address_in(record, NEXT_ADDRESS) != code.next) {
        op |= OP_NEXT;
        sink(COLUMN_NEXT).varint(zigzag(address_in(record, NEXT_ADDRESS) - predictor.address));
    }
    if (has_address(control, DATA_ADDRESS) && encode_translation(record, DATA_ADDRESS))
        op |= more(MORE_DATA_TRANSLATION);
    if (has_address(control, NEXT_ADDRESS) && encode_translation(record, NEXT_ADDRESS))
        op |= more(MORE_NEXT_TRANSLATION);
    if (op & more(MORE_ESCAPE))
        encode_escape(record);
    put_op(op);
    remember_record(predictor, record, places, bases, shape);
    prefetch(predictor.code_at(predictor.address));
    const bool plain = op <= 0xff && places.total <= PLAIN_REGISTERS;
    sure_room_ -= std::min(sure_room_, plain ? MAX_PLAIN : MAX_RECORD);
    ++records_;
}

void Encoder::put_op(unsigned op)
{
    const bool two = op > 0xff;
    sink(COLUMN_OP).low_bytes(op | (two ? OP_MORE : 0), two ? 2 : 1);
}

Decoder::Result Decoder::next(QTRACE_RECORD &record, QTRACE_FILE_HDR &header)
{
    Byte_Source &ops = source(COLUMN_OP);
    if (ops.left() == 0)
        return all_read() && !any_bad() ? Result::end : Result::corrupt;
    const uint8_t op = ops.byte();
    const uint8_t more = op & OP_MORE ? ops.byte() : uint8_t{0};
    if ((more & ~ALL_MORE) != 0 || ((more & MORE_HEADER) != 0 && (more != MORE_HEADER || op != OP_MORE)))
        return Result::corrupt;
    return more & MORE_HEADER ? next_header(header) : next_record(record, op, more);
}

// Flattened, as adding is.
[[gnu::flatten]] Decoder::Result Decoder::next_record(QTRACE_RECORD &record, uint8_t op, uint8_t more)
{
    Predictor &predictor = *predictor_;
    Code_Slot &code = predictor.code_at(predictor.address);
    const uint32_t word = op & OP_WORD ? source(COLUMN_WORD).number<uint32_t>() : code.word;
    record.header.instruction = word;
    Shape_Slot &shape = kept(predictor.shape_of(word));
    const uint64_t control = op & OP_CONTROL ? decode_control() : shape.control;
    store(&record.header.control, control);
    translations_filled_ = !without_translations_ || (more & MORE_ESCAPE) != 0; // rare members may add to them
    clear_for(record, control);
    filled_ = control;
    put_members(record, op & OP_MEMBERS ? decode_members() : shape.members);
    decode_counts(record, (op & OP_LIST) != 0, shape);
    few_registers_ = Few_General::fits(record.regs);
    if (few_registers_)
        return finish_record(record, op, more, Few_General(record.regs), code, shape);
    find_all_registers(reinterpret_cast<uint8_t *>(&record.regs), places_);
    return finish_record(record, op, more, places_, code, shape);
}

// From the registers on.
template <class Registers>
Decoder::Result Decoder::finish_record(QTRACE_RECORD &record, uint8_t op, uint8_t more, const Registers &places,
                                       const Code_Slot &code, Shape_Slot &shape)
{
    Predictor &predictor = *predictor_;
    const uint64_t control = filled_;
    decode_numbers(record, places, (op & OP_LIST) != 0, shape.list);
    decode_inputs(places, (op & OP_INPUTS) != 0);

    Bases bases = bases_of(record.regs, shape, predictor.address);
    if (has_address(control, DATA_ADDRESS)) {
        bases.near = decode_data_address((op & OP_DATA) != 0, bases, shape);
        store(record.data_ea, bases.near);
    }
    places.visit_outputs([&](size_t, const auto &place) {
        for (unsigned part = 0; part < place.list->words; ++part)
            decode_value(place, part, bases);
    });
    if (has_address(control, NEXT_ADDRESS))
        store(record.next_instruction_ea,
              op & OP_NEXT ? predictor.address + unzigzag(source(COLUMN_NEXT).varint()) : code.next);
    if (has_address(control, DATA_ADDRESS))
        decode_translation(record, DATA_ADDRESS, (more & MORE_DATA_TRANSLATION) != 0);
    if (has_address(control, NEXT_ADDRESS))
        decode_translation(record, NEXT_ADDRESS, (more & MORE_NEXT_TRANSLATION) != 0);
    remember_record(predictor, record, places, bases, shape);
    if (more & MORE_ESCAPE)
        decode_escape(record);
    return any_bad() ? Result::corrupt : Result::record;
}

// Clears what the last record filled and the next one, of that control word, does not overwrite.
void Decoder::clear_for(QTRACE_RECORD &record, uint64_t control)
{
    if (escaped_) [[unlikely]] {
        const QTRACE_HDR header = record.header; // of the next record
        std::memset(static_cast<void *>(&record), 0, sizeof record);
        record.header = header;
        holds_translation_[DATA_ADDRESS] = holds_translation_[NEXT_ADDRESS] = escaped_ = false;
    } else {
        clear_addresses(record, control);
        clear_registers(record);
    }
}

void Decoder::clear_addresses(QTRACE_RECORD &record, uint64_t control)
{
    auto *bytes = reinterpret_cast<uint8_t *>(&record);
    for (const Address_Side side : {DATA_ADDRESS, NEXT_ADDRESS}) {
        const bool stays = has_address(control, side);
        if (has_address(filled_, side) && !stays)
            store(bytes + ADDRESS[side].address, uint64_t{0});
        if (!holds_translation_[side] || (stays && translations_filled_))
            continue;
        std::memset(bytes + ADDRESS[side].vsid, 0, TRANSLATION_BYTES);
        std::memset(bytes + ADDRESS[side].page_size, 0, 2);
        holds_translation_[side] = false;
    }
}

void Decoder::clear_registers(QTRACE_RECORD &record)
{
    const auto clear = [](size_t, const auto &place) {
        place.number() = 0;
        place.value(0) = 0;
        if (place.list->words != 1)
            place.value(1) = 0;
    };
    if (few_registers_)
        Few_General(record.regs).visit(clear);
    else
        places_.visit(clear);
}

void Encoder::add(const QTRACE_FILE_HDR &header)
{
    const QTRACE_FILE_HDR image = without_pointers(header);
    put_op(more(MORE_HEADER));
    Byte_Sink &extra = sink(COLUMN_EXTRA);
    encode_image(extra, &image, sizeof image);
    const bool outside = comment_stays_outside(header);
    extra.byte(header.comment == nullptr ? NO_COMMENT : outside ? COMMENT_IN_FRONT : COMMENT_HERE);
    if (header.comment != nullptr && !outside)
        extra.bytes(header.comment, header.comment_length);
    open_.follow(header);
    predictor_->follow(header);
    sure_room_ = 0;
    ++headers_;
}

Decoder::Result Decoder::next_header(QTRACE_FILE_HDR &header)
{
    Byte_Source &extra = source(COLUMN_EXTRA);
    std::memset(static_cast<void *>(&header), 0, sizeof header);
    if (!decode_image(extra, &header, sizeof header))
        return Result::corrupt;
    header = without_pointers(header);
    const uint8_t place = extra.byte();
    comment_ = place == COMMENT_HERE ? extra.bytes(header.comment_length) : nullptr;
    comment_outside_ = place == COMMENT_IN_FRONT;
    if (place > COMMENT_IN_FRONT || extra.bad)
        return Result::corrupt;
    open_.follow(header);
    predictor_->follow(header);
    return Result::header;
}

// ---- Flags and small members ------------------------------------------------------------------------------------

unsigned Encoder::encode_static(const QTRACE_RECORD &record, const Shape_Slot &shape, uint64_t control)
{
    unsigned op = 0;
    if (control != shape.control) {
        op |= OP_CONTROL;
        encode_control(control);
    }
    const Small_Members members = members_of(record);
    if (!(members == shape.members)) {
        op |= OP_MEMBERS;
        encode_members(members);
    }
    return op;
}

// The number of a control word seen before in the block, or the next free number and the word. Number 255 stands
// for one that is not kept any more.
void Encoder::encode_control(uint64_t control)
{
    Byte_Sink &shape = sink(COLUMN_SHAPE);
    // Few are in use, but those in any order: where one was last spares the search.
    uint8_t &guess = control_numbers_[slot_of(control, CONTROL_BITS)];
    if (guess < predictor_->control_count && predictor_->controls[guess] == control)
        return shape.byte(guess);
    const uint64_t *end = predictor_->controls + predictor_->control_count;
    const uint64_t *found = std::find(static_cast<const uint64_t *>(predictor_->controls), end, control);
    guess = static_cast<uint8_t>(found - predictor_->controls);
    shape.byte(guess);
    if (found != end)
        return;
    shape.number(control);
    if (predictor_->control_count < MAX_CONTROLS)
        predictor_->controls[predictor_->control_count++] = control;
}

uint64_t Decoder::decode_control()
{
    Byte_Source &shape = source(COLUMN_SHAPE);
    const size_t number = shape.byte();
    if (number < predictor_->control_count)
        return predictor_->controls[number];
    if (number > predictor_->control_count)
        bad_ = true;
    const auto control = shape.number<uint64_t>();
    if (predictor_->control_count < MAX_CONTROLS)
        predictor_->controls[predictor_->control_count++] = control;
    return control;
}

// A bit for each of the six that is not zero, then those.
void Encoder::encode_members(const Small_Members &members)
{
    Byte_Sink shape = sink(COLUMN_SHAPE);
    const uint16_t half_word = members.half_word();
    unsigned mask = static_cast<unsigned>(half_word != 0) << SMALL_BYTES;
    for (unsigned i = 0; i < SMALL_BYTES; ++i)
        mask |= static_cast<unsigned>(members.byte(i) != 0) << i;
    shape.byte(static_cast<uint8_t>(mask));
    for (unsigned i = 0; i < SMALL_BYTES; ++i)
        shape.number_if(members.byte(i) != 0, members.byte(i));
    shape.number_if(half_word != 0, half_word);
    sink(COLUMN_SHAPE) = shape;
}

Small_Members Decoder::decode_members()
{
    Byte_Source &shape = source(COLUMN_SHAPE);
    const uint8_t mask = shape.byte();
    uint64_t packed = 0;
    for (unsigned i = 0; i < SMALL_BYTES; ++i)
        packed |= uint64_t{mask >> i & 1 ? shape.byte() : uint8_t{0}} << SMALL_MEMBER[i].shift;
    const uint16_t half_word = mask >> SMALL_BYTES & 1 ? shape.number<uint16_t>() : uint16_t{0};
    return {packed | uint64_t{half_word} << SMALL_MEMBER[SMALL_BYTES].shift};
}

void Decoder::put_members(QTRACE_RECORD &record, const Small_Members &members)
{
    auto *bytes = reinterpret_cast<uint8_t *>(&record);
    for (size_t i = 0; i < SMALL_BYTES; ++i)
        bytes[SMALL_MEMBER[i].offset] = members.byte(i);
    store(bytes + SMALL_MEMBER[SMALL_BYTES].offset, members.half_word());
}

// ---- Register lists ---------------------------------------------------------------------------------------------

// A bit for each of the ten counts that is not zero, those counts, then the register numbers.
template <class Registers>
unsigned Encoder::encode_list(const Registers &places, const uint8_t *counts, Register_List &list)
{
    if (is_list(places, counts, list))
        return 0;
    Byte_Sink shape = sink(COLUMN_SHAPE); // a copy stays in the processor's registers
    const unsigned lists = nonzero_bytes(load<uint64_t>(counts)) | (counts[8] != 0) << 8 | (counts[9] != 0) << 9;
    shape.varint(lists);
    for (unsigned mask = lists; mask != 0; mask &= mask - 1)
        shape.byte(counts[std::countr_zero(mask)]);
    for (size_t i = 0; i < places.total; ++i)
        shape.varint(places[i].number());
    sink(COLUMN_SHAPE) = shape;
    remember_list(places, counts, list);
    return OP_LIST;
}

// The counts of the ten lists.
void Decoder::decode_counts(QTRACE_RECORD &record, bool coded, const Shape_Slot &slot)
{
    auto *counts = reinterpret_cast<uint8_t *>(&record.regs);
    if (!coded) {
        std::memcpy(counts, slot.list.counts, sizeof slot.list.counts);
        return;
    }
    Byte_Source shape = source(COLUMN_SHAPE); // a copy stays in the processor's registers
    std::memset(counts, 0, REGISTER_LISTS);
    constexpr uint64_t ALL_LISTS = (1 << REGISTER_LISTS) - 1;
    for (uint64_t mask = shape.varint() & ALL_LISTS; mask != 0; mask &= mask - 1)
        counts[std::countr_zero(mask)] = shape.byte();
    source(COLUMN_SHAPE) = shape;
}

template <class Registers>
void Decoder::decode_numbers(const QTRACE_RECORD &record, const Registers &places, bool coded, Register_List &list)
{
    if (!coded) {
        places.visit([&](size_t i, const auto &place) { place.number() = list.index[i]; });
        return;
    }
    Byte_Source shape = source(COLUMN_SHAPE);
    for (size_t i = 0; i < places.total; ++i)
        places[i].number() = static_cast<uint16_t>(shape.varint());
    source(COLUMN_SHAPE) = shape;
    remember_list(places, reinterpret_cast<const uint8_t *>(&record.regs), list);
}

// ---- Values -----------------------------------------------------------------------------------------------------

template <class Registers> unsigned Encoder::encode_inputs(const Registers &places)
{
    uint64_t difference = 0;
    places.visit_inputs([&](size_t, const auto &place) {
        const uint64_t *last = predictor_->register_values(*place.list, place.number());
        difference |= place.value(0) ^ last[0];
        if (place.list->words != 1)
            difference |= place.value(1) ^ last[1];
    });
    if (difference == 0)
        return 0;
    const Bases bases{0, 0, predictor_->address, 0, 0};
    for (size_t i = 0; i < places.inputs; ++i)
        for (unsigned word = 0; word < places[i].list->words; ++word)
            encode_value(places[i], word, bases);
    return OP_INPUTS;
}

template <class Registers> void Decoder::decode_inputs(const Registers &places, bool coded)
{
    if (!coded) {
        places.visit_inputs([&](size_t, const auto &place) {
            const uint64_t *last = predictor_->register_values(*place.list, place.number());
            for (unsigned word = 0; word < place.list->words; ++word)
                place.value(word) = last[word];
        });
        return;
    }
    const Bases bases{0, 0, predictor_->address, 0, 0};
    for (size_t i = 0; i < places.inputs; ++i)
        for (unsigned word = 0; word < places[i].list->words; ++word)
            decode_value(places[i], word, bases);
}

template <class Place> void Encoder::encode_value(const Place &place, unsigned word, const Bases &bases)
{
    uint64_t &last = predictor_->register_values(*place.list, place.number())[word];
    const uint64_t memory = predictor_->memory_at(bases.near + 8 * word);
    const uint64_t value = place.value(word);
    const uint64_t before = last;
    last = value;
    // All expectations at once: which of them holds is hard to foresee for the processor.
    unsigned met = 0;
    for (unsigned kind = VALUE_REGISTER; kind < VALUE_LITERAL; ++kind)
        met |= static_cast<unsigned>(value == predicted_value(kind, before, memory, bases)) << kind;
    if (met != 0)
        return sink(COLUMN_KIND).byte(static_cast<uint8_t>(std::countr_zero(met)));
    unsigned size = unsigned_size(value), kind = VALUE_LITERAL + size;
    uint64_t bytes = value;
    const auto consider = [&](unsigned first_kind, uint64_t base) {
        const unsigned other = signed_size(value - base);
        if (other < size) {
            size = other;
            kind = first_kind + size - 1;
            bytes = value - base;
        }
    };
    consider(VALUE_FROM_REGISTER, before);
    consider(VALUE_FROM_INPUT, bases.last_input);
    consider(VALUE_FROM_NEAR, bases.near);
    sink(COLUMN_KIND).byte(static_cast<uint8_t>(kind));
    sink(COLUMN_VALUE).low_bytes(bytes, size);
}

template <class Place> void Decoder::decode_value(const Place &place, unsigned word, const Bases &bases)
{
    uint64_t &last = predictor_->register_values(*place.list, place.number())[word];
    const uint8_t kind = source(COLUMN_KIND).byte();
    Byte_Source &values = source(COLUMN_VALUE);
    const auto from = [&](unsigned first_kind, uint64_t base) {
        const unsigned size = kind - first_kind + 1;
        return base + sign_extended(values.low_bytes(size), size);
    };
    if (kind < VALUE_LITERAL)
        last = predicted_value(kind, last, predictor_->memory_at(bases.near + 8 * word), bases);
    else if (kind < VALUE_FROM_REGISTER)
        last = values.low_bytes(kind - VALUE_LITERAL);
    else if (kind < VALUE_FROM_INPUT)
        last = from(VALUE_FROM_REGISTER, last);
    else if (kind < VALUE_FROM_NEAR)
        last = from(VALUE_FROM_INPUT, bases.last_input);
    else if (kind < VALUE_KINDS)
        last = from(VALUE_FROM_NEAR, bases.near);
    else
        bad_ = true;
    place.value(word) = last;
}

// ---- Addresses and their translation ----------------------------------------------------------------------------

// Which base, and how far from it: the base that gives the smallest distance.
unsigned Encoder::encode_data_address(const Bases &bases, Shape_Slot &shape)
{
    const uint64_t address = bases.near;
    if (address == data_base(bases, shape.data_base) + shape.data_distance)
        return 0;
    shape.data_base = BASE_LAST_INPUT;
    for (const uint8_t base : {BASE_SUM_OF_INPUTS, BASE_NONE})
        if (zigzag(address - data_base(bases, base)) < zigzag(address - data_base(bases, shape.data_base)))
            shape.data_base = base;
    shape.data_distance = address - data_base(bases, shape.data_base);
    sink(COLUMN_DATA).byte(shape.data_base);
    sink(COLUMN_DATA).varint(zigzag(shape.data_distance));
    return OP_DATA;
}

uint64_t Decoder::decode_data_address(bool coded, const Bases &bases, Shape_Slot &shape)
{
    if (coded) {
        shape.data_base = source(COLUMN_DATA).byte();
        shape.data_distance = unzigzag(source(COLUMN_DATA).varint());
        bad_ = bad_ || shape.data_base >= DATA_BASES;
    }
    return data_base(bases, shape.data_base) + shape.data_distance;
}

// Expected: as last at that page. Else a bit for each word that differs from the last translation of the same
// side, and those words' differences.
bool Encoder::encode_translation(const QTRACE_RECORD &record, Address_Side side)
{
    Translation &page = predictor_->page_of(address_in(record, side));
    const bool coded = !has_translation(record, side, page);
    if (coded) [[unlikely]]
        encode_page(record, side, page);
    last_[side] = &page; // the same words, and no copy
    return coded;
}

[[gnu::noinline]] void Encoder::encode_page(const QTRACE_RECORD &record, Address_Side side, Translation &page)
{
    const Translation now = translation_in(record, side);
    const Translation &last = *last_[side];
    uint32_t mask = 0;
    for (unsigned i = 0; i < 32; ++i)
        mask |= static_cast<uint32_t>(now.word[i] != last.word[i]) << i;
    sink(COLUMN_TRANSLATION).number(mask);
    for (unsigned i = 0; i < 32; ++i)
        if (mask >> i & 1)
            sink(COLUMN_TRANSLATION).varint(zigzag(now.word[i] - last.word[i]));
    keep_last_of_other_side(*predictor_, last_, side, page);
    page = now;
}

// What the record holds already from the record before is not put into it again.
void Decoder::decode_translation(QTRACE_RECORD &record, Address_Side side, bool coded)
{
    const size_t slot = slot_of(address_in(record, side) >> 12, PAGE_BITS);
    Translation &page = predictor_->page[slot];
    if (coded)
        decode_page(side, slot);
    last_[side] = &page; // the same words, and no copy
    const Translation_Place place{slot, page_versions_[slot]};
    const bool same = place == translation_places_[side];
    translation_places_[side] = place;
    if (!translations_filled_)
        return;
    if (holds_translation_[side] && same)
        return put_guest_address(record, side, page);
    put_translation(record, side, page);
    holds_translation_[side] = true;
}

[[gnu::noinline]] void Decoder::decode_page(Address_Side side, size_t slot)
{
    Translation now = *last_[side];
    Byte_Source &from = source(COLUMN_TRANSLATION);
    const auto mask = from.number<uint32_t>();
    for (unsigned i = 0; i < 32; ++i)
        if (mask >> i & 1)
            now.word[i] += unzigzag(from.varint());
    page_versions_[slot] = ++newest_version_;
    keep_last_of_other_side(*predictor_, last_, side, predictor_->page[slot]);
    predictor_->page[slot] = now;
}

// ---- Rare members ----------------------------------------------------------------------------------------------

[[gnu::noinline]] void Encoder::encode_escape(const QTRACE_RECORD &record)
{
    QTRACE_RECORD uncommon;
    std::memset(static_cast<void *>(&uncommon), 0, sizeof uncommon);
    copy_uncommon(record, uncommon);
    encode_image(sink(COLUMN_EXTRA), &uncommon, sizeof uncommon);
}

void Decoder::decode_escape(QTRACE_RECORD &record)
{
    escaped_ = true;
    bad_ = !decode_image(source(COLUMN_EXTRA), &record, sizeof record) || bad_;
    drop_pointers(record);
}

} // namespace trace

// Items (records and file headers) into the columns of one block and back. docs/trace-format.md describes the
// columns; the two halves of each section stand side by side in trace_codec.cpp.
#pragma once

#include "block_format.h"
#include "predictor.h"
#include "trace_bytes.h"

#include <memory>

namespace trace
{

// A file header without its pointers, as a block restates it.
QTRACE_FILE_HDR without_pointers(const QTRACE_FILE_HDR &header);

// The header that describes the machine from an item on: the last one with an address, its partition and process
// replaced by those of later headers.
struct Open_Header {
    QTRACE_FILE_HDR header{};
    bool present = false;
    void follow(const QTRACE_FILE_HDR &next);
};

// The open header with which the items of a block begin; none when the payload says nothing that can be read.
Open_Header open_header_of(const uint8_t *payload, const Block_Header &header);

// Fills the columns of one block after the other. Allocates on the first begin_block only.
class Encoder
{
public:
    // Whether any record fits, without a look at it. Never before the first block, nor at the start of one.
    bool sure_of_room() const { return sure_room_ >= MAX_RECORD; }
    // Starts an empty block at the place where the last one ended.
    void begin_block();
    // Whether the item still fits; when not, the block has to be sealed first.
    bool has_room_for(const QTRACE_RECORD &record);
    bool has_room_for(const QTRACE_FILE_HDR &header) const;
    // Goes on as after an item that is left out of the trace. The block has no more room then: the next one begins
    // with the address and the open header of that place.
    void leave_out(const QTRACE_RECORD &record);
    void leave_out(const QTRACE_FILE_HDR &header);
    // Goes on at that place of a trace, with that open header, in a new block.
    void continue_at(const Position &place, const Open_Header &open);
    // Add an item that fits. A comment longer than MAX_COMMENT_IN_BLOCK stays out of the block.
    void add(const QTRACE_RECORD &record);
    void add(const QTRACE_FILE_HDR &header);

    bool started() const { return predictor_ != nullptr; }
    bool empty() const { return records_ == 0 && headers_ == 0; }
    bool passed_over() const { return passed_over_; }
    size_t raw_size() const;
    // Puts the payload together: raw_size() bytes.
    void collect(uint8_t *to) const;
    uint32_t records() const { return records_; }
    uint32_t headers() const { return headers_; }
    const Position &first() const { return first_; } // where the block begins

private:
    // Those with a result give the flags of what they coded.
    unsigned encode_static(const QTRACE_RECORD &record, const Shape_Slot &shape, uint64_t control);
    template <class Registers>
    unsigned encode_list(const Registers &places, const uint8_t *counts, Register_List &list);
    template <class Registers> unsigned encode_inputs(const Registers &places);
    unsigned encode_data_address(const Bases &bases, Shape_Slot &shape);
    // `Registers` are those of the record: Few_General where these fit, else Register_Places.
    template <class Registers> void add_record(const QTRACE_RECORD &record, const Registers &places);
    void add_with_all_registers(const QTRACE_RECORD &record);
    Position next_position() const;
    template <class Item> void pass_over(const Item &item);
    void put_op(unsigned op);
    void encode_control(uint64_t control);
    void encode_members(const Small_Members &members);
    template <class Place> void encode_value(const Place &place, unsigned word, const Bases &bases);
    bool encode_translation(const QTRACE_RECORD &record, Address_Side side);
    void encode_page(const QTRACE_RECORD &record, Address_Side side, Translation &page);
    void encode_escape(const QTRACE_RECORD &record);
    Byte_Sink &sink(Column column) { return columns_[column]; }

    std::unique_ptr<uint8_t[]> memory_; // of all columns
    std::unique_ptr<Predictor> predictor_;
    const Translation *last_[ADDRESS_SIDES]; // in *predictor_: the place of each side's last translation
    Byte_Sink columns_[COLUMNS];
    Open_Header open_;
    static constexpr unsigned CONTROL_BITS = 6;
    uint8_t control_numbers_[1 << CONTROL_BITS]{}; // by control word: where it was last in the predictor's controls
    uint32_t records_ = 0, headers_ = 0;
    static constexpr size_t MAX_RECORD = 5120; // encoded bytes, whatever is in it
    size_t sure_room_ = 0;                     // so many bytes are left, or more
    bool surely_common_ = false;               // the next record has no uncommon members
    Position first_, continuation_;            // of this block; after what is left out
    bool passed_over_ = false;                 // items after those of this block
};

// Reads the items of one block after the other. The payload must stay where it is while they are read.
class Decoder
{
public:
    enum class Result { end, record, header, corrupt };

    // Begins the block of that header, in the encoding of its version; `payload` is decompressed. False when the
    // payload's columns do not fit its size.
    bool begin_block(const uint8_t *payload, const Block_Header &header);
    // The next item into `record` or `header`. `record` must be the same one in every call, zero at the first,
    // and changed by nobody else: only what the last record filled is cleared. `comment` is set with a header: the
    // text in the payload, null when there is none or when it is `comment_outside`.
    Result next(QTRACE_RECORD &record, QTRACE_FILE_HDR &header);

    uint64_t address() const { return predictor_->address; } // of the next record
    const Position &position() const { return *predictor_; } // of the next record
    bool address_known() const { return predictor_->address_known; }
    const Open_Header &open_header() const { return open_; }
    // Of the last record: where its translation of one side stands in the predictor, with a version that changes whenever
    // that place does, and what stands there.
    struct Translation_Place {
        size_t slot;
        uint64_t version;
        bool operator==(const Translation_Place &) const = default;
    };
    const Translation_Place &translation_place(Address_Side side) const { return translation_places_[side]; }
    const Translation &translation(Address_Side side) const { return *last_[side]; }
    // The last record has members that its translations and flags do not name.
    bool has_rare_members() const { return escaped_; }
    // Leaves translations out of the records that follow; the predictor still has them.
    void leave_out_translations(bool leave_out) { without_translations_ = leave_out; }
    const uint8_t *comment() const { return comment_; }
    bool comment_outside() const { return comment_outside_; }

private:
    Result next_record(QTRACE_RECORD &record, uint8_t op, uint8_t more);
    Result next_header(QTRACE_FILE_HDR &header);
    void clear_for(QTRACE_RECORD &record, uint64_t control);
    void clear_addresses(QTRACE_RECORD &record, uint64_t control);
    void clear_registers(QTRACE_RECORD &record);
    // `Registers` as in an Encoder.
    template <class Registers>
    Result finish_record(QTRACE_RECORD &record, uint8_t op, uint8_t more, const Registers &places,
                         const Code_Slot &code, Shape_Slot &shape);
    uint64_t decode_control();
    Small_Members decode_members();
    static void put_members(QTRACE_RECORD &record, const Small_Members &members);
    uint64_t decode_data_address(bool coded, const Bases &bases, Shape_Slot &shape);
    void decode_counts(QTRACE_RECORD &record, bool coded, const Shape_Slot &slot);
    template <class Registers>
    void decode_numbers(const QTRACE_RECORD &record, const Registers &places, bool coded, Register_List &list);
    template <class Registers> void decode_inputs(const Registers &places, bool coded);
    template <class Place> void decode_value(const Place &place, unsigned word, const Bases &bases);
    void decode_translation(QTRACE_RECORD &record, Address_Side side, bool coded);
    void decode_page(Address_Side side, size_t slot);
    void decode_escape(QTRACE_RECORD &record);
    Byte_Source &source(Column column) { return columns_[column]; }
    bool any_bad() const;
    bool all_read() const;

    std::unique_ptr<Predictor> predictor_;
    Byte_Source columns_[COLUMNS];
    Register_Places places_{};   // of the last record, unless
    bool few_registers_ = false; // it has a few general registers only
    uint64_t filled_ = 0;        // control of the last record
    bool escaped_ = false;       // the last record had members outside its common ones
    bool without_translations_ = false;
    bool translations_filled_ = false;        // the last record has them
    bool holds_translation_[ADDRESS_SIDES]{}; // so does the record, of that side, from translation_places_
    Translation_Place translation_places_[ADDRESS_SIDES]{};
    const Translation *last_[ADDRESS_SIDES]{}; // in *predictor_: the place of each side's last translation
    uint64_t page_versions_[1 << PAGE_BITS];   // by slot of the predictor
    uint64_t newest_version_ = 0;
    Open_Header open_;
    const uint8_t *comment_ = nullptr;
    bool comment_outside_ = false;
    bool bad_ = false;
};

} // namespace trace

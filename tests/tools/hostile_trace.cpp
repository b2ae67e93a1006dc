// hostile_trace KIND BLOCKS FILE: writes a trace that is small and asks for much. KIND is a row of KINDS.
#include "block_press.h"
#include "record_rows.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace
{

using namespace trace;

using Bytes = std::vector<uint8_t>;

constexpr size_t LONGEST_COMMENT = 65535;

// Appends a number as the file has it.
void put_number(Bytes &bytes, uint64_t value, size_t size)
{
    for (; size > 0; size--, value >>= 8)
        bytes.push_back(static_cast<uint8_t>(value));
}

void put_varint(Bytes &bytes, uint64_t value)
{
    for (; value >= 0x80; value >>= 7)
        bytes.push_back(static_cast<uint8_t>(value | 0x80));
    bytes.push_back(static_cast<uint8_t>(value));
}

struct Payload {
    Bytes op, shape, next, data, translation, extra;
    uint32_t records = 0, headers = 0;

    size_t size() const
    {
        return COLUMN_SIZES + op.size() + shape.size() + next.size() + data.size() + translation.size() +
               extra.size();
    }
    void add_record()
    {
        op.push_back(0);
        records++;
    }
    // A file header of this sparse image, which is ended here.
    void add_header(const Bytes &image, Comment_Place place = NO_COMMENT)
    {
        op.insert(op.end(), {OP_MORE, MORE_HEADER});
        extra.insert(extra.end(), image.begin(), image.end());
        extra.insert(extra.end(), {0, 0, place});
        headers++;
    }
    Bytes bytes() const
    {
        const Bytes none, *const columns[COLUMNS] = {&none, &op,          &none, &shape, &next,
                                                     &data, &translation, &none, &none,  &extra};
        Bytes all;
        for (const Bytes *column : columns)
            put_number(all, column->size(), 4);
        for (const Bytes *column : columns)
            all.insert(all.end(), column->begin(), column->end());
        return all;
    }
};

// Members that are not zero, each run as the bytes passed over, the bytes that follow, and these.
const Bytes PARTITION = {8, 1, 0x40, 0x9F, 2, 1, 7}; // lpid_is_present; lpid 7
const Bytes SEGMENT = {1, 1, 0x20, 23, 1, 0x10};     // iar_is_present; iar 0x1000
Bytes commented(size_t length)                       // iar_is_present, comment_present
{
    return {0, 2, 2, 0x20, 0xCE, 2, 2, static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8)};
}

class Trace
{
public:
    explicit Trace(const char *name) : file_(std::fopen(name, "wb"))
    {
        const auto start = file_start();
        if (file_ != nullptr)
            std::fwrite(start.data(), 1, start.size(), file_);
    }
    void block(const Payload &payload, uint8_t flags, Compression kind = ZSTD)
    {
        Block_Header header = next(flags);
        header.records = payload.records;
        header.headers = payload.headers;
        put(header, payload.bytes(), kind);
        records_ += payload.records;
        headers_ += payload.headers;
    }
    void comment_block(size_t length) { put(next(COMMENT_BLOCK), Bytes(length, 'c'), ZSTD); }
    // Of which a byte of the payload was changed.
    void damaged_block(const Payload &payload)
    {
        block(payload, 0, STORED);
        std::fseek(file_, -1, SEEK_CUR);
        std::fputc(0x55, file_);
    }
    // That names a payload, of which only the beginning is there.
    void header_alone()
    {
        uint8_t bytes[BLOCK_HEADER_SIZE];
        Block_Header header = next(0);
        header.stored_size = header.raw_size = MAX_PAYLOAD;
        store_block_header(header, bytes);
        std::fwrite(bytes, 1, sizeof bytes, file_);
    }
    bool close() { return file_ != nullptr && std::fclose(file_) == 0; }

private:
    Block_Header next(uint8_t flags) const
    {
        Block_Header header;
        header.flags = flags;
        header.first_record = records_;
        header.first_header = headers_;
        return header;
    }
    void put(const Block_Header &header, const Bytes &payload, Compression kind)
    {
        Bytes bytes;
        press_.append_block(bytes, header, {kind, 3}, payload.data(), payload.size());
        std::fwrite(bytes.data(), 1, bytes.size(), file_);
    }

    std::FILE *file_;
    Press press_;
    uint64_t records_ = 0, headers_ = 0;
};

// As many items as a block can hold.
Payload full_of(const std::function<void(Payload &)> &add)
{
    Payload one, payload;
    add(one);
    for (size_t left = MAX_PAYLOAD - COLUMN_SIZES, size = one.size() - COLUMN_SIZES; left >= size; left -= size)
        add(payload);
    return payload;
}

void add_comment(Payload &payload)
{
    payload.add_header(commented(MAX_COMMENT_IN_BLOCK), COMMENT_HERE);
    payload.extra.insert(payload.extra.end(), MAX_COMMENT_IN_BLOCK, 'c');
}

Payload one_of_each()
{
    Payload payload;
    payload.add_header(SEGMENT);
    payload.add_record();
    return payload;
}

// A record with both addresses and their translations: its control word, and what later ones find expected.
void add_first(Payload &payload, uint64_t control)
{
    payload.op.insert(payload.op.end(), {OP_CONTROL | OP_LIST | OP_NEXT | OP_DATA | OP_MORE,
                                         MORE_DATA_TRANSLATION | MORE_NEXT_TRANSLATION});
    payload.shape.push_back(0);
    put_number(payload.shape, control, 8);
    payload.records++;
}

constexpr uint64_t ADDRESSES = control_mask("data_address_present") | control_mask("next_instruction_EA_present");

// After the first record each takes a byte, and carries registers and every member of two translations.
Payload full_of_wide_records()
{
    Payload payload;
    add_first(payload, ADDRESSES);
    constexpr uint8_t REGISTERS = 12;
    put_varint(payload.shape, 1 << 9); // gpr_in
    for (uint8_t number = 0; number <= REGISTERS; number++)
        payload.shape.push_back(number == 0 ? REGISTERS : number);
    put_varint(payload.next, 0);
    payload.data.insert(payload.data.end(), {2, 0});
    for (int side = 0; side < 2; side++) {
        put_number(payload.translation, 0xFFFFFFFF, 4);
        payload.translation.insert(payload.translation.end(), 32, 1); // each word becomes -1
    }
    while (payload.size() < MAX_PAYLOAD)
        payload.add_record();
    return payload;
}

// Each record branches to a page of its own, and accesses another.
Payload full_of_pages(uint64_t first)
{
    constexpr uint64_t TRANSLATED =
        ADDRESSES | control_mask("data_RPN_present") | control_mask("data_page_size_present") |
        control_mask("next_instruction_RPN_present") | control_mask("next_instruction_page_size_present") |
        control_mask("guest_xlate_mode_data") | control_mask("guest_xlate_mode_instruction");
    Payload payload;
    add_first(payload, TRANSLATED);
    payload.shape.push_back(0); // no registers
    for (uint64_t page = first; payload.size() + 40 < MAX_PAYLOAD; page++) {
        if (page > first) {
            payload.op.insert(payload.op.end(),
                              {OP_NEXT | OP_DATA | OP_MORE, MORE_DATA_TRANSLATION | MORE_NEXT_TRANSLATION});
            payload.records++;
        }
        put_varint(payload.next, zigzag(0x1000));
        payload.data.push_back(2);
        put_varint(payload.data, zigzag(0x700000000000 + page * 0x1000));
        for (const uint64_t begin : {0x10000000, 0x20000000}) {
            put_number(payload.translation, 2, 4); // the word of the page number
            put_varint(payload.translation, zigzag(page == first ? begin + page : 1));
        }
    }
    return payload;
}

void pages(Trace &trace, uint64_t blocks)
{
    uint64_t first = 0;
    for (uint64_t i = 1; i <= blocks; i++) {
        const Payload payload = full_of_pages(first);
        trace.block(payload, i == blocks ? LAST_BLOCK : 0);
        first += payload.records;
    }
}

// Every block but the last, which `last` makes.
template <class Make> void repeat(Trace &trace, uint64_t blocks, const Payload &last, Make make)
{
    for (uint64_t i = 1; i < blocks; i++)
        make(i);
    trace.block(last, LAST_BLOCK);
}

void packed(Trace &trace, uint64_t blocks, const Payload &payload)
{
    repeat(trace, blocks, payload, [&](uint64_t) { trace.block(payload, 0); });
}

void outside_comments(Trace &trace, uint64_t blocks)
{
    Payload payload;
    payload.add_header(commented(LONGEST_COMMENT), COMMENT_IN_FRONT);
    repeat(trace, blocks, one_of_each(), [&](uint64_t) {
        trace.comment_block(LONGEST_COMMENT);
        trace.block(payload, COMMENT_BEFORE);
    });
}

void damaged(Trace &trace, uint64_t blocks)
{
    const Payload payload = one_of_each();
    repeat(trace, blocks, payload,
           [&](uint64_t i) { i % 2 == 1 ? trace.damaged_block(payload) : trace.block(payload, 0, STORED); });
}

struct Kind {
    std::string_view name;
    void (*write)(Trace &trace, uint64_t blocks);
};

const Kind KINDS[] = {
    {"partitions",
     [](Trace &trace, uint64_t blocks) {
         packed(trace, blocks, full_of([](Payload &payload) { payload.add_header(PARTITION); }));
     }},
    {"segments",
     [](Trace &trace, uint64_t blocks) {
         packed(trace, blocks, full_of([](Payload &payload) { payload.add_header(SEGMENT); }));
     }},
    {"comments", [](Trace &trace, uint64_t blocks) { packed(trace, blocks, full_of(add_comment)); }},
    {"outside-comments", outside_comments},
    {"records",
     [](Trace &trace, uint64_t blocks) {
         packed(trace, blocks, full_of([](Payload &payload) { payload.add_record(); }));
     }},
    {"wide", [](Trace &trace, uint64_t blocks) { packed(trace, blocks, full_of_wide_records()); }},
    {"pages", pages},
    {"singles",
     [](Trace &trace, uint64_t blocks) {
         const Payload payload = one_of_each();
         repeat(trace, blocks, payload, [&](uint64_t) { trace.block(payload, 0, STORED); });
     }},
    {"damaged", damaged},
    {"block-headers",
     [](Trace &trace, uint64_t blocks) {
         repeat(trace, blocks, one_of_each(), [&](uint64_t) { trace.header_alone(); });
     }},
};

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4)
        return 2;
    for (const Kind &kind : KINDS) {
        if (kind.name != argv[1])
            continue;
        Trace trace(argv[3]);
        kind.write(trace, std::strtoull(argv[2], nullptr, 10));
        return trace.close() ? 0 : 1;
    }
    return 2;
}

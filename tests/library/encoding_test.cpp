// What the writer makes of items, byte by byte: columns written by hand from docs/trace-format.md.
#include "trace_file_fixture.h"

#include <array>
#include <initializer_list>
#include <utility>

namespace
{

using namespace std::string_literals;

enum Column { OPEN, OP, WORD, SHAPE, NEXT, DATA, TRANSLATION, KIND, VALUE, EXTRA };
using Columns = std::array<std::string, 10>;
using Entries = std::vector<std::pair<uint16_t, uint64_t>>; // register numbers and values

constexpr size_t FILE_START = 16, BLOCK_HEADER = 56;

struct Made : QTRACE_RECORD {
    explicit Made(uint32_t word) : QTRACE_RECORD{} { header.instruction = word; }
    Made &in(const Entries &entries)
    {
        regs.num_gprs_in = put(regs.gpr_in, entries);
        return *this;
    }
    Made &out(const Entries &entries)
    {
        regs.num_gprs_out = put(regs.gpr_out, entries);
        return *this;
    }
    Made &data(uint64_t address)
    {
        header.control.fld.data_address_present = 1;
        std::memcpy(data_ea, &address, sizeof address);
        return *this;
    }
    Made &next(uint64_t address)
    {
        header.control.fld.next_instruction_EA_present = 1;
        std::memcpy(next_instruction_ea, &address, sizeof address);
        return *this;
    }

private:
    static uint8_t put(QTRACE_REGISTER_INFO *to, const Entries &entries)
    {
        for (const auto &[number, value] : entries)
            to->index = number, (to++)->value = value;
        return static_cast<uint8_t>(entries.size());
    }
};

// A 128-bit register that is written.
Made vector_out(uint32_t word, uint16_t number, uint64_t first, uint64_t second)
{
    Made record(word);
    record.regs.num_vsxrs_out = 1;
    QTRACE_VSX_REGISTER_INFO &entry = record.regs.vsxr_out[0]; // member by member: padding stays zero
    entry.index = number, entry.value[0] = first, entry.value[1] = second;
    return record;
}

class encoding : public trace_file
{
protected:
    encoding() { setenv("QTRACE_COMPRESSION", "none", 1); }

    // The items also come back as they were written.
    Columns columns_of(const std::vector<Made> &records) { return columns_of({}, records); }
    Columns columns_of(const std::optional<QTRACE_FILE_HDR> &header, const std::vector<Made> &records)
    {
        written_.clear();
        address_ = 0;
        known_ = false;
        const QTRACE_FDESCR file = open();
        if (header)
            write(file, *header);
        for (const Made &record : records)
            write(file, record);
        QTRACE_Fclose(file);
        EXPECT_TRUE(read().items == written_);
        return columns_at(FILE_START);
    }
    // Of the block there.
    Columns columns_at(uint64_t block) const
    {
        const std::string all = bytes();
        Columns columns;
        size_t size_at = block + BLOCK_HEADER, at = size_at + 4 * columns.size();
        for (std::string &column : columns) {
            const size_t size = number_at(all, size_at);
            column = all.substr(at, size);
            size_at += 4;
            at += size;
        }
        return columns;
    }
    static uint32_t number_at(const std::string &all, size_t offset)
    {
        uint32_t number;
        std::memcpy(&number, &all.at(offset), sizeof number);
        return number;
    }
    // Of each block.
    std::vector<int> flags() const
    {
        const std::string all = bytes();
        std::vector<int> flags;
        for (size_t at = FILE_START; at < all.size(); at += BLOCK_HEADER + number_at(all, at + 8))
            flags.push_back(static_cast<uint8_t>(all[at + 5]));
        return flags;
    }
    // Raw size, records and headers of each block.
    std::vector<std::array<uint32_t, 3>> blocks() const
    {
        const std::string all = bytes();
        std::vector<std::array<uint32_t, 3>> blocks;
        for (size_t at = FILE_START; at < all.size(); at += BLOCK_HEADER + number_at(all, at + 8))
            blocks.push_back({number_at(all, at + 12), number_at(all, at + 16), number_at(all, at + 20)});
        return blocks;
    }
};

TEST_F(encoding, of_the_example_of_the_format_is_the_one_shown_there)
{
    QTRACE_FILE_HDR header{};
    header.control.iar_is_present = header.control.comment_present = 1;
    header.iar[1] = 0x10;
    Made add(0x38630001), branch(0x4bfffffc), again(0x38630001);
    add.header.control.fld.secondary_extender_present = add.header.control.fld.register_trace_present = 1;
    add.header.control.fld.processor_present = 1;
    add.in({{3, 5}}).out({{3, 6}});
    auto &flags = branch.header.control.fld;
    flags.secondary_extender_present = flags.next_instruction_RPN_present = flags.termination_present = 1;
    flags.node_present = flags.iar_change_present = 1;
    branch.next(0x1000);
    branch.next_instruction_rpn[0] = 0x12;
    branch.next_instruction_hRTW_num_level = 4;
    branch.termination_code = QTRACE_UnconditionalBranchNode;
    again.header.control.fld.secondary_extender_present = again.header.control.fld.register_trace_present = 1;
    again.in({{3, 6}}).out({{3, 7}});
    again.exception_code = 16;
    const QTRACE_FDESCR file = open();
    write(file, header, "LEMode:True");
    for (const Made &record : {add, branch, again})
        write(file, record);
    QTRACE_Fclose(file);
    const std::string expected =
        "\x8aQTRACE\n\x01\0\0\0\xd0\x18\x20\xc7"
        "\x8bQB\n\x01\x01\0\0\x89\0\0\0\x89\0\0\0\x03\0\0\0\x01\0\0\0"
        "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x57\x9b\xc2\x86\x55\xd1\x6e\xfb"
        "\0\0\0\0\x07\0\0\0\x08\0\0\0\x23\0\0\0\x01\0\0\0\0\0\0\0\x0a\0\0\0\x03\0\0\0\x02\0\0\0\x1f\0\0\0"
        "\x80\x01\x47\x9b\x08\x82\x02"
        "\x01\0\x63\x38\xfc\xff\xff\x4b"
        "\0\0\0\x01\0\x08\x10\0\0\x90\x04\x01\x01\x03\x03\x01\0\0\x01\0\x50\xe0\0\0\x04\x08\x02\0\0\x01\0\x08\0\0\0"
        "\x07\x02\0\0\0\xa4\x80\x80\x80\x80\x01\x0a\x0a\x01\x05\x06"
        "\0\x02\x02\x20\x17\x01\x10\xb6\x02\x01\x0b\0\0\x01LEMode:True\xab\x0a\x01\x10\0\0"s;
    EXPECT_EQ(testing::PrintToString(bytes()), testing::PrintToString(expected));
}

// ---- Values -----------------------------------------------------------------------------------------------------

// How the last output of some records is coded.
struct Value_Row {
    std::vector<Made> records;
    char kind;
    std::string bytes;
};

TEST_F(encoding, of_an_output_names_the_first_expectation_that_holds)
{
    constexpr uint64_t AT = 0x20000010; // of the data
    const std::vector<Value_Row> rows = {
        {{Made(7).out({{6, 0x77}}), Made(7).out({{6, 0x77}})}, 0, ""},
        {{Made(7).in({{5, 0x1000}}).out({{6, 0x1005}}), Made(7).in({{5, 0x2000}}).out({{6, 0x2005}})}, 1, ""},
        {{Made(7).out({{6, 0x77}}).data(AT), Made(8).out({{7, 0x77}}).data(AT)}, 2, ""},
        {{Made(7).out({{6, 0x77}}), Made(7).in({{5, 9}}).out({{7, 0x77}})}, 3, ""},
        {{Made(7).in({{4, 0x30}, {5, 0x50}}).out({{6, 0x80}})}, 4, ""},
        {{Made(7).in({{4, 0x30}, {5, 0x50}}).out({{6, 0x20}})}, 5, ""},
        {{Made(7).in({{4, 0x30}, {5, 0x50}}).out({{6, 0x10}})}, 6, ""},
        {{Made(7).in({{4, 0x30}, {5, 0x50}}).out({{6, 0x70}})}, 7, ""},
        {{Made(7).in({{4, 0x30}, {5, 0x50}}).out({{6, 0x60}})}, 8, ""},
        // Zero, where nothing of the above is.
        {{Made(7).in({{4, 3}, {5, 5}}).out({{6, 0x77}}).data(AT),
          Made(7).in({{4, 3}, {5, 5}}).out({{6, 0}}).data(AT)},
         9,
         ""},
        // The last two inputs of several; one input is the last one, and the one before it is zero.
        {{Made(7).in({{3, 0x1000}, {4, 0x30}, {5, 0x50}}).out({{6, 0x10}})}, 6, ""},
        {{Made(8).in({{5, 0x50}}).out({{6, 0x51}}), Made(8).in({{5, 0x60}}).out({{7, 0x60}})}, 4, ""},
        {{Made(8).in({{5, 0x50}}).out({{6, 0x51}}).data(AT), Made(8).in({{5, 0x60}}).out({{6, 0}}).data(AT)},
         6,
         ""},
        // A record without outputs leaves what the word's outputs are expected to be.
        {{Made(7).out({{6, 0x77}}), Made(7), Made(7).in({{5, 9}}).out({{7, 0x77}})}, 3, ""},
        // Without outputs the first entry of the last list that is read stays at the address.
        {{Made(7).in({{4, 0x11}, {5, 0x22}}).data(AT), Made(8).out({{9, 0x11}}).data(AT)}, 2, ""},
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        const Columns columns = columns_of(rows[i].records);
        EXPECT_EQ(columns[KIND].back(), rows[i].kind) << i;
    }
}

TEST_F(encoding, of_an_output_without_expectation_has_as_few_bytes_as_can_be)
{
    constexpr uint64_t FAR = 0x1234567890;
    const std::vector<Value_Row> rows = {
        // By itself: kind 9 and the number of bytes.
        {{Made(7).out({{6, 0x12}})}, 10, "\x12"},
        {{Made(7).out({{6, 0xff}})}, 10, "\xff"},
        {{Made(7).out({{6, 0x77}, {9, 0x55}}).data(FAR), Made(8).out({{7, 9}}).data(FAR + 8)}, 10, "\x09"},
        {{Made(7).out({{6, 0x100}})}, 11, "\0\x01"s},
        {{Made(7).out({{6, 0xffff}})}, 11, "\xff\xff"},
        {{Made(7).out({{6, 0x10000}})}, 12, "\0\0\x01"s},
        {{Made(7).out({{6, 0x1000000}})}, 13, "\0\0\0\x01"s},
        {{Made(7).out({{6, 0x0807060504}})}, 14, "\x04\x05\x06\x07\x08"},
        {{Made(7).out({{6, 0x800000000000}})}, 15, "\0\0\0\0\0\x80"s},
        {{Made(7).out({{6, 0x80000000000000}})}, 16, "\0\0\0\0\0\0\x80"s},
        {{Made(7).out({{6, uint64_t{1} << 63}})}, 17, "\0\0\0\0\0\0\0\x80"s},
        // From the register's last value: 17 and the number of bytes.
        {{Made(7).out({{6, ~uint64_t{0}}})}, 18, "\xff"},
        {{Made(7).out({{6, FAR}}), Made(8).out({{6, FAR + 127}})}, 18, "\x7f"},
        {{Made(7).out({{6, FAR}}), Made(8).out({{6, FAR + 128}})}, 19, "\x80\0"s},
        {{Made(7).out({{6, FAR}}), Made(8).out({{6, FAR - 128}})}, 18, "\x80"},
        {{Made(7).out({{6, FAR}}), Made(8).out({{6, FAR - 129}})}, 19, "\x7f\xff"},
        {{Made(7).out({{6, FAR}}), Made(8).out({{6, FAR + 0x800000}})}, 21, "\0\0\x80\0"s},
        // From the last input: 25 and the number of bytes.
        {{Made(7).in({{5, FAR}}).out({{6, FAR + 5}})}, 26, "\x05"},
        {{Made(7).in({{5, FAR}}).out({{6, FAR - 0x200}})}, 27, "\0\xfe"s},
        {{Made(7).out({{6, 0x77}}), Made(7).in({{4, 0x3000000}, {5, 0x5000000}}).out({{7, 0x5000000}})}, 26, "\0"s},
        // From the data address: 33 and the number of bytes.
        {{Made(7).out({{6, FAR + 5}}).data(FAR)}, 34, "\x05"},
        {{Made(7).out({{6, FAR + 0x8000}}).data(FAR)}, 36, "\0\x80\0"s},
        // Of equally many bytes the earlier kind; fewer bytes before that.
        {{Made(9).out({{6, 0x70}}), Made(7).out({{6, 0x7f}})}, 10, "\x7f"},
        {{Made(9).out({{6, FAR}}), Made(7).in({{5, FAR + 1}}).out({{6, FAR + 5}}).data(FAR + 2)}, 18, "\x05"},
        {{Made(9).out({{6, 1}}), Made(7).in({{5, FAR + 1}}).out({{6, FAR + 5}}).data(FAR + 2)}, 26, "\x04"},
        {{Made(9).out({{6, FAR - 999}}), Made(7).in({{5, FAR + 999}}).out({{6, FAR}}).data(FAR + 2)}, 34, "\xfe"},
        {{Made(9).out({{6, FAR - 999}}), Made(7).in({{5, FAR + 9}}).out({{6, FAR}}).data(FAR + 999)}, 26, "\xf7"},
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        const Columns columns = columns_of(rows[i].records);
        EXPECT_EQ(columns[KIND].back(), rows[i].kind) << i;
        EXPECT_TRUE(columns[VALUE].ends_with(rows[i].bytes)) << i << testing::PrintToString(columns[VALUE]);
    }
}

TEST_F(encoding, of_inputs_begins_from_the_register_or_the_address_of_the_instruction)
{
    QTRACE_FILE_HDR header{};
    header.control.iar_is_present = 1;
    header.iar[1] = 0x10;
    const Columns columns = columns_of(header, {Made(7).in({{3, 0x1010}, {4, 0x20}, {5, 0}}).data(0x5000),
                                                Made(7).in({{3, 0x1010}, {4, 0x20}, {5, 0}}).data(0x5000),
                                                Made(7).in({{3, 0x1010}, {4, 0x5001}, {5, 0x100}}).data(0x5000)});
    // Zero is the value that the third register had; then none of the three changes; then two do.
    EXPECT_EQ(columns[KIND], "\x22\x0a\0\0\x0b\x0b"s);
    EXPECT_EQ(columns[VALUE], "\x10\x20\x01\x50\0\x01"s);
    EXPECT_EQ(columns[OP], "\x80\x01\x67\x01\x61"s);
}

TEST_F(encoding, of_both_halves_of_a_vector_expects_what_was_at_either_place)
{
    constexpr uint64_t AT = 0x5000;
    Made first = vector_out(7, 9, 0x1111, 0x2222), second = vector_out(8, 10, 0x1111, 0x2222),
         third = vector_out(8, 10, 0x1111, 0x2223);
    first.data(AT), second.data(AT), third.data(AT + 8);
    const Columns columns = columns_of({first, second, third});
    // The second half of the first stands at AT + 8, and is no expectation of the second half of the third.
    EXPECT_EQ(columns[KIND], "\x0b\x0b\x02\x02\x00\x12"s);
    EXPECT_EQ(columns[VALUE], "\x11\x11\x22\x22\x01");
}

TEST_F(encoding, of_a_vector_that_is_read_is_needed_when_either_half_changes)
{
    const auto read = [](uint64_t first, uint64_t second) {
        Made record(7);
        record.regs.num_vmxrs_in = 1;
        record.regs.vmxr_in[0] = {4, {first, second}};
        return record;
    };
    const Columns columns = columns_of({read(1, 2), read(1, 2), read(1, 3), read(4, 3)});
    EXPECT_EQ(columns[OP], "\x45\x01\x41\x41");
    EXPECT_EQ(columns[KIND], "\x0a\x0a\0\x0a\x0a\0"s);
    EXPECT_EQ(columns[VALUE], "\x01\x02\x03\x04");
}

// ---- Addresses --------------------------------------------------------------------------------------------------

TEST_F(encoding, of_a_data_address_begins_from_the_nearest_base_the_earlier_of_two)
{
    struct Row {
        Entries in;
        uint64_t address;
        std::string bytes;
    };
    const std::vector<Row> rows = {
        {{{4, 0x100}, {5, 0x5000}}, 0x5008, "\x00\x10"s}, // the last input
        {{{4, 0x100}, {5, 0x5000}}, 0x4fff, "\x00\x01"s},
        {{{4, 0x100}, {5, 0x5000}}, 0x5108, "\x01\x10"}, // the sum
        {{{4, 0x100}, {5, 0x5000}}, 0x0008, "\x02\x10"}, // none
        {{{4, 0x100}, {5, 0x5000}}, ~uint64_t{0}, "\x02\x01"},
        {{{4, 0x010}, {5, 0x5000}}, 0x5008, "\x01\x0f"}, // as far on either side: the negative distance is shorter
        {{{4, 0x010}, {5, 0x5000}}, 0x5007, "\x00\x0e"s},
        {{{4, 0}, {5, 0x5000}}, 0x5008, "\x00\x10"s},
        {{{5, 0x5000}}, 0x5040, "\x00\x80\x01"s},
        {{}, 0x40, "\x00\x80\x01"s},
        {{{4, 0x100}, {5, ~uint64_t{0xff}}}, 0x8, "\x01\x10"}, // the sum is zero
        {{}, 0, ""},
        {{{5, 0x5000}}, 0x5000, ""},
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        const Columns columns = columns_of({Made(7).in(rows[i].in).data(rows[i].address)});
        EXPECT_EQ(columns[DATA], rows[i].bytes) << i;
        EXPECT_EQ((columns[OP][0] & 0x20) != 0, !rows[i].bytes.empty()) << i;
    }
}

TEST_F(encoding, of_a_data_address_expects_the_distance_that_the_word_had_last)
{
    const Columns columns = columns_of({Made(7).in({{4, 0x100}, {5, 0x5000}}).data(0x5108),
                                        Made(7).in({{4, 0x200}, {5, 0x6000}}).data(0x6208),
                                        Made(8).in({{4, 0x200}, {5, 0x6000}}).data(0x6208)});
    EXPECT_EQ(columns[DATA], "\x01\x10\x01\x10");
    EXPECT_EQ(columns[OP], "\x67\x41\x27");
}

TEST_F(encoding, of_a_next_address_is_the_distance_and_is_expected_where_it_was_before)
{
    const Columns columns =
        columns_of({Made(7).next(0x40), Made(8).next(0), Made(7).next(0x40), Made(8).next(0x3c)});
    EXPECT_EQ(columns[NEXT], "\x80\x01\x07");
    EXPECT_EQ(columns[OP], "\x13\x03\x00\x10"s);
}

// Every word that differs from the last translation, unless the page had this one.
TEST_F(encoding, of_a_translation_is_what_differs_from_the_last_one_of_the_same_side)
{
    const auto access = [](uint64_t address, uint8_t page, uint8_t depth) {
        Made record(7);
        record.data(address);
        record.data_rpn[0] = page;
        record.data_hRTW_depth = depth;
        return record;
    };
    const auto jump = [](uint64_t address, uint8_t page, uint8_t depth) {
        Made record(8);
        record.next(address);
        record.next_instruction_rpn[0] = page;
        record.next_instruction_hRTW_depth = depth;
        return record;
    };
    const Columns columns =
        columns_of({access(0x5000, 9, 0), access(0x5ff8, 9, 0), access(0x6000, 8, 0), access(0x5000, 9, 0),
                    jump(0x5000, 9, 0), jump(0x7000, 3, 0), jump(0x6000, 3, 0), access(0x6000, 3, 1)});
    EXPECT_EQ(columns[TRANSLATION],
              "\x02\0\0\0\x12"                                        // 9
              "\x02\0\0\0\x01"                                        // 8
              "\x02\0\0\0\x0b"                                        // 3, from the page's own on the other side
              "\0\0\0\0"                                              // 3 again
              "\x03\0\0\0\x80\x80\x80\x80\x80\x80\x80\x80\x02\x0b"s); // 3, from 9, and depth 1
    // The last one of either side stays what it was when the other side changes the page.
    EXPECT_EQ(columns_of({access(0x5000, 9, 0), jump(0x5000, 3, 0), access(0x6000, 8, 0)})[TRANSLATION],
              "\x02\0\0\0\x12"
              "\x02\0\0\0\x06"
              "\x02\0\0\0\x01"s);
}

// The guest's address moves with the address inside a page, above the first page.
TEST_F(encoding, of_a_translation_has_the_guest_address_without_the_place_in_the_page)
{
    const auto access = [](uint64_t address, uint64_t guest_address) {
        Made record(7);
        record.data(address);
        std::memcpy(&record.data_gRTW.GUEST_ra, &guest_address, sizeof guest_address);
        return record;
    };
    const Columns columns = columns_of({access(0x5001, 0x9001), access(0x5ffe, 0x9ffe), access(0x7003, 0xfff),
                                        access(0x7ffc, 0xfff), access(0x8004, 0x1004)});
    EXPECT_EQ(columns[TRANSLATION], "\0\0\0\x80\x80\xc0\x04" // 0x9000
                                    "\0\0\0\x80\x81\x80\x04" // 0xfff: 0x8001 less
                                    "\0\0\0\x80\x02"s);      // 0x1000
    EXPECT_TRUE(read().items == written_);
}

// ---- Slots ------------------------------------------------------------------------------------------------------

// Two numbers in steps from `first`: one shares its slot in a table of 2^bits, but not in a larger one, and the other one
// shares it in a smaller table alone.
std::pair<uint64_t, uint64_t> neighbours(uint64_t first, unsigned bits, uint64_t step = 1)
{
    const auto slot = [](uint64_t key, unsigned wide) { return (key * 0x9E3779B97F4A7C15u) >> (64 - wide); };
    const auto sharing = [&](unsigned wide) {
        uint64_t key = first + step;
        while (slot(key, wide) != slot(first, wide) || slot(key, wide + 1) == slot(first, wide + 1))
            key += step;
        return key;
    };
    return {sharing(bits), sharing(bits - 1)};
}

TEST_F(encoding, of_a_shape_is_expected_of_the_words_of_its_slot_among_1024)
{
    const auto [same, other] = neighbours(1, 10);
    std::vector<Made> records = {Made(1), Made(static_cast<uint32_t>(same)), Made(static_cast<uint32_t>(other))};
    for (Made &record : records)
        record.node = 1;
    EXPECT_EQ(columns_of(records)[OP], "\x09\x01\x09"); // word and members, word, word and members
}

TEST_F(encoding, of_a_word_is_expected_at_the_addresses_of_its_slot_among_2048)
{
    const auto [same, other] = neighbours(0, 11);
    EXPECT_EQ(columns_of({Made(5).next(4 * same), Made(5).next(4 * other), Made(5)})[WORD],
              "\x05\0\0\0\x05\0\0\0"s);
}

TEST_F(encoding, of_a_value_in_memory_is_expected_at_the_addresses_of_its_slot_among_1024)
{
    const auto [same, other] = neighbours(0x20000000, 10, 0x0123456789abcdf0);
    const Columns columns = columns_of({Made(7).out({{6, 0x77}}).data(0x20000000),
                                        Made(8).out({{7, 0x77}}).data(same), Made(9).out({{8, 0x77}}).data(other)});
    EXPECT_EQ(columns[KIND], "\x0a\x02\x0a");
}

TEST_F(encoding, of_a_translation_is_expected_at_the_pages_of_its_slot_among_128)
{
    const auto [same, other] = neighbours(0x20000, 7);
    std::vector<Made> records = {Made(7).data(0x20000000), Made(7).data(same << 12), Made(7).data(other << 12)};
    for (Made &record : records)
        record.data_rpn[0] = 9;
    EXPECT_EQ(columns_of(records)[TRANSLATION], "\x02\0\0\0\x12\0\0\0\0"s);
}

TEST_F(encoding, of_a_value_of_a_register_is_expected_of_numbers_that_are_64_apart)
{
    const Columns columns = columns_of({Made(1).out({{3, 0x1234}}), Made(2).out({{67, 0x1234}}).data(0x5000),
                                        Made(3).out({{35, 0x1234}}).data(0x6000)});
    EXPECT_EQ(columns[KIND], "\x0b\0\x0b"s);
}

// ---- Shapes -----------------------------------------------------------------------------------------------------

TEST_F(encoding, of_control_words_numbers_them_in_the_order_of_their_first_use)
{
    const auto flagged = [](uint32_t word, unsigned bit) {
        Made record(word);
        const uint64_t control = uint64_t{1} << bit;
        std::memcpy(&record.header.control, &control, sizeof control);
        return record;
    };
    const Columns columns = columns_of(
        {flagged(1, 16), flagged(2, 17), flagged(3, 16), flagged(4, 17), flagged(4, 17), flagged(5, 18)});
    EXPECT_EQ(columns[SHAPE], "\0\0\0\x01\0\0\0\0\0"
                              "\x01\0\0\x02\0\0\0\0\0"
                              "\0\x01"
                              "\x02\0\0\x04\0\0\0\0\0"s);
    EXPECT_EQ(columns[OP], "\x03\x03\x03\x03\x01\x03");
}

TEST_F(encoding, of_more_than_255_control_words_repeats_those_beyond)
{
    const auto flagged = [](uint16_t number) {
        Made record(1);
        std::memcpy(&record.header.control.half_word[1], &number, sizeof number);
        return record;
    };
    std::vector<Made> records;
    std::string expected;
    const auto add = [&](uint16_t number, uint8_t coded, bool with_word) {
        records.push_back(flagged(number));
        expected += static_cast<char>(coded);
        if (with_word)
            expected += {0, 0, static_cast<char>(number), static_cast<char>(number >> 8), 0, 0, 0, 0};
    };
    for (uint16_t number = 1; number <= 255; ++number)
        add(number, static_cast<uint8_t>(number - 1), true);
    add(256, 255, true);
    add(257, 255, true);
    add(256, 255, true);
    add(255, 254, false);
    add(1, 0, false);
    const Columns columns = columns_of(records);
    EXPECT_TRUE(columns[SHAPE] == expected) << columns[SHAPE].size() << " bytes, not " << expected.size();
    EXPECT_TRUE(read().items == written_);
}

TEST_F(encoding, of_small_members_is_a_mask_and_those_that_are_not_zero)
{
    Made all(1), some(2);
    all.node = 1, all.termination_node = 2, all.termination_code = 3, all.processor = 4, all.error_code = 5;
    all.length = 0x607;
    some.processor = 9;
    EXPECT_EQ(columns_of({all})[SHAPE], "\x3f\x01\x02\x03\x04\x05\x07\x06");
    const Columns columns = columns_of({some, some, Made(2)});
    EXPECT_EQ(columns[SHAPE], "\x08\x09\0"s);
    EXPECT_EQ(columns[OP], "\x09\x01\x09");
}

TEST_F(encoding, of_a_register_list_is_a_mask_the_counts_and_the_numbers)
{
    Made record(1);
    QTRACE_REGISTERS &regs = record.regs;
    regs.num_sprs_out = regs.num_vsxrs_out = regs.num_vmxrs_out = regs.num_fprs_out = regs.num_gprs_out = 1;
    regs.num_sprs_in = regs.num_vsxrs_in = regs.num_vmxrs_in = regs.num_fprs_in = regs.num_gprs_in = 1;
    regs.gpr_in[0].index = 1, regs.fpr_in[0].index = 2, regs.vmxr_in[0].index = 3, regs.vsxr_in[0].index = 4;
    regs.spr_in[0].index = 0x80, regs.gpr_out[0].index = 6, regs.fpr_out[0].index = 7, regs.vmxr_out[0].index = 8;
    regs.vsxr_out[0].index = 9, regs.spr_out[0].index = 0x3fff;
    EXPECT_EQ(columns_of({record})[SHAPE],
              "\xff\x07\1\1\1\1\1\1\1\1\1\1\x01\x02\x03\x04\x80\x01\x06\x07\x08\x09\xff\x7f");
    Made two(1);
    two.regs.num_fprs_in = 2;
    EXPECT_EQ(columns_of({two})[SHAPE], "\x80\x02\x02\0\0"s);
    Made out(1);
    out.regs.num_fprs_out = 1;
    EXPECT_EQ(columns_of({out})[SHAPE], "\x08\x01\0"s);
    Made special(1);
    special.regs.num_sprs_out = 1;
    special.regs.spr_out[0].index = 5, special.regs.spr_out[0].value = 0x77;
    const Columns columns = columns_of({special});
    EXPECT_EQ(columns[SHAPE] + columns[VALUE], "\x01\x01\x05\x77");
}

TEST_F(encoding, of_a_register_list_of_up_to_12_is_expected_again)
{
    for (const uint16_t count : std::initializer_list<uint16_t>{1, 2, 3, 11, 12, 13}) {
        Entries entries;
        for (uint16_t number = 0; number < count; ++number)
            entries.emplace_back(number, 0);
        const Columns columns = columns_of({Made(1).in(entries), Made(1).in(entries)});
        EXPECT_EQ(columns[OP], count <= 12 ? "\x05\x01" : "\x05\x05") << count;
        if (count == 1)
            continue;
        Entries other = entries;
        other.back().first++;
        EXPECT_EQ(columns_of({Made(1).in(entries), Made(1).in(other)})[OP], "\x05\x05") << count;
        other = entries;
        other.front().first += 100;
        EXPECT_EQ(columns_of({Made(1).in(entries), Made(1).in(other)})[OP], "\x05\x05") << count;
    }
    const Columns columns = columns_of({Made(1).in({{3, 0}}).out({{4, 0}}), Made(1).in({{3, 0}}).out({{5, 0}})});
    EXPECT_EQ(columns[OP], "\x05\x05");
    const Made out = Made(1).out({{4, 0}}), both = Made(1).in({{3, 0}}).out({{4, 0}});
    EXPECT_EQ(columns_of({out, out})[OP], "\x05\x01");
    EXPECT_EQ(columns_of({both, both})[OP], "\x05\x01");
    const Made two = Made(1).in({{3, 0}, {5, 0}}).out({{4, 0}});
    EXPECT_EQ(columns_of({two, two})[OP], "\x05\x01");
}

// ---- Images -----------------------------------------------------------------------------------------------------

TEST_F(encoding, of_an_image_joins_runs_that_are_up_to_three_bytes_apart)
{
    Made near(0), far(0);
    near.iar[0] = near.iar[4] = far.iar[0] = far.iar[5] = 1; // from byte 12 of the record on
    EXPECT_EQ(columns_of({near})[EXTRA], "\x0c\x05\x01\0\0\0\x01\0\0"s);
    EXPECT_EQ(columns_of({far})[EXTRA], "\x0c\x01\x01\x04\x01\x01\0\0"s);
    EXPECT_EQ(columns_of({far})[OP], "\x80\x02");
}

TEST_F(encoding, of_a_header_is_its_image_and_its_comment)
{
    QTRACE_FILE_HDR header{};
    header.magic = 0x01020304; // at byte 16
    for (const auto &[comment, bytes] :
         std::vector<std::pair<std::optional<std::string>, std::string>>{{std::nullopt, "\0"s},
                                                                         {"", "\x01"},
                                                                         {"ab", "\x01"
                                                                                "ab"}}) {
        const QTRACE_FDESCR file = open();
        write(file, header, comment);
        QTRACE_Fclose(file);
        const std::string length = comment == "ab" ? "\xbc\x02\x01\x02" : ""; // at byte 336
        EXPECT_EQ(columns_at(FILE_START)[EXTRA], "\x10\x04\x04\x03\x02\x01" + length + "\0\0"s + bytes);
    }
}

// ---- Room -------------------------------------------------------------------------------------------------------

// What a header with a comment takes besides that: the operation, the length after 336 zeros, the image's end, the
// place of the comment.
constexpr size_t HEADER_BYTES = 2 + 5 + 2 + 1;

TEST_F(encoding, of_a_header_goes_into_a_block_that_has_512_bytes_more_than_its_comment)
{
    // What is left of 64 KiB after four headers, for one with a comment of 1000 bytes.
    for (const size_t room : {1512, 1511}) {
        const QTRACE_FDESCR file = open();
        const size_t used = 65536 - 40 - room, comments = used - 5 * HEADER_BYTES;
        for (const size_t size :
             {size_t{15'000}, size_t{15'000}, size_t{15'000}, size_t{15'000}, comments - 60'000})
            write(file, QTRACE_FILE_HDR{}, std::string(size, 'c'));
        write(file, QTRACE_FILE_HDR{}, std::string(1000, 'c'));
        QTRACE_Fclose(file);
        ASSERT_EQ(blocks()[0][0] - (room == 1512 ? 1000 + HEADER_BYTES : 0), 65536 - room);
        EXPECT_EQ(blocks().size(), room == 1512 ? 1u : 2u);
    }
}

TEST_F(encoding, of_a_header_without_comment_needs_512_bytes)
{
    for (const size_t room : {512, 511}) {
        const QTRACE_FDESCR file = open();
        const size_t used = 65536 - 40 - room, comments = used - 5 * HEADER_BYTES;
        for (const size_t size :
             {size_t{15'000}, size_t{15'000}, size_t{15'000}, size_t{15'000}, comments - 60'000})
            write(file, QTRACE_FILE_HDR{}, std::string(size, 'c'));
        QTRACE_FILE_HDR silent{};
        silent.comment_length = 3;
        write(file, silent);
        QTRACE_Fclose(file);
        EXPECT_EQ(blocks().size(), room == 512 ? 1u : 2u);
    }
}

TEST_F(encoding, of_a_record_goes_into_a_block_with_5120_bytes_left_or_2048_without_rare_members)
{
    Made rare(0);
    rare.exception_code = 1;
    for (const auto &[record, needed] : {std::pair{Made(0), size_t{2048}}, std::pair{rare, size_t{5120}}})
        for (const size_t room : {needed + 500, needed, needed - 1}) {
            const QTRACE_FDESCR file = open();
            const size_t used = 65536 - 40 - room, comments = used - 5 * HEADER_BYTES;
            for (const size_t size :
                 {size_t{14'000}, size_t{14'000}, size_t{14'000}, size_t{14'000}, comments - 56'000})
                write(file, QTRACE_FILE_HDR{}, std::string(size, 'c'));
            write(file, record);
            QTRACE_Fclose(file);
            EXPECT_EQ(blocks().size(), room >= needed ? 1u : 2u) << room;
            EXPECT_EQ(blocks()[0][1], room >= needed ? 1u : 0u) << room;
        }
}

// ---- From block to block ----------------------------------------------------------------------------------------

TEST_F(encoding, of_blocks_has_flags_for_comments_of_their_own_and_addresses)
{
    QTRACE_FILE_HDR header{};
    header.control.iar_is_present = 1;
    for (const size_t size : {16'384, 16'385}) {
        const QTRACE_FDESCR file = open();
        write(file, header);
        write(file, QTRACE_FILE_HDR{}, std::string(60'000, 'c'));
        write(file, Made(1));
        write(file, QTRACE_FILE_HDR{}, std::string(16'384, 'c'));
        write(file, QTRACE_FILE_HDR{}, std::string(16'384, 'c'));
        write(file, QTRACE_FILE_HDR{}, std::string(16'384, 'c'));
        write(file, QTRACE_FILE_HDR{}, std::string(size, 'c'));
        QTRACE_Fclose(file);
        // 1: the last one, 2: the address is known, 4: a comment, 8: the comment is before it.
        const std::vector<int> same = {0, 2 | 4, 2 | 8},
                               one_more = size == 16'384 ? std::vector{2 | 1} : std::vector{2 | 4, 2 | 8 | 1};
        std::vector<int> expected = same;
        expected.insert(expected.end(), one_more.begin(), one_more.end());
        EXPECT_EQ(flags(), expected);
    }
    EXPECT_EQ(qtrace_writer_failures(), 0u) << "of any test here";
}

TEST_F(encoding, is_pressed_by_level_minus_5_unless_another_is_wanted)
{
    setenv("QTRACE_COMPRESSION", "zstd:-5", 1);
    write_plausible(3'000);
    const std::string level = bytes();
    setenv("QTRACE_COMPRESSION", "zstd:-4", 1);
    write_plausible(3'000);
    EXPECT_FALSE(bytes() == level);
    setenv("QTRACE_COMPRESSION", "zstd", 1);
    write_plausible(3'000);
    EXPECT_TRUE(bytes() == level);
    unsetenv("QTRACE_COMPRESSION");
    write_plausible(3'000);
    EXPECT_TRUE(bytes() == level);
}

// Nothing that was remembered in a block is expected in the next one, by the writer or by the reader.
TEST_F(encoding, of_translations_that_differ_in_one_byte_differs)
{
    std::vector<Made> records;
    for (size_t byte = 0; byte < 253; ++byte) {
        Made record(7);
        record.data(0x5000);
        reinterpret_cast<uint8_t *>(&record)[offsetof(QTRACE_RECORD, data_vsid) + byte] =
            1; // up to the page number
        records.push_back(record);
    }
    std::string ops = "\xa3\x04"; // word, control word, data address and its translation
    for (size_t i = 1; i < records.size(); ++i)
        ops += "\x81\x04"; // word and translation
    EXPECT_EQ(columns_of(records)[OP], ops);
}

TEST_F(encoding, of_rare_members_keeps_common_ones_between_them_and_entries_beyond_a_count)
{
    Made codes(7), entry(8);
    codes.exception_code = 1, codes.error_code = 2, codes.trace_alteration_code = 3;
    entry.out({{6, 0x1005}});
    for (QTRACE_REGISTER_INFO *input : {&entry.regs.gpr_in[0], &entry.regs.gpr_in[1]})
        input->index = 5, input->value = 0x1000;
    Made one = entry;
    one.regs.num_gprs_in = 1;
    columns_of({codes, Made(7), entry, Made(8), one, Made(8)});
}

TEST_F(encoding, of_pages_beside_each_other_is_kept_apart)
{
    std::vector<Made> records;
    for (const uint8_t page : {uint8_t{4}, uint8_t{5}, uint8_t{4}, uint8_t{5}}) {
        records.push_back(Made(7).data(page * uint64_t{0x1000}));
        records.back().data_rpn[0] = page;
    }
    EXPECT_EQ(columns_of(records)[TRANSLATION], "\x02\0\0\0\x08\x02\0\0\0\x02"s);
}

TEST_F(encoding, of_a_control_word_has_no_number_of_an_earlier_block)
{
    const QTRACE_FDESCR file = open();
    for (const std::vector<Made> &records :
         {std::vector<Made>{Made(7).data(8), Made(7).next(4), Made(7)}, {Made(7).next(4), Made(7)}}) {
        write(file, QTRACE_FILE_HDR{}, std::string(16'385, 'c'));
        for (const Made &record : records)
            write(file, record);
    }
    QTRACE_Fclose(file);
    EXPECT_TRUE(read().items == written_);
}

TEST_F(encoding, of_a_record_leaves_nothing_in_the_one_after)
{
    Made both(1), all(2);
    both.data(0x5000).next(0x6000);
    both.data_rpn[0] = 5, both.data_page_size = 3, both.data_gpage_size = 4;
    both.next_instruction_rpn[0] = 6, both.next_instruction_page_size = 1, both.next_instruction_gpage_size = 2;
    Made data = both, next = both, one = all;
    data.header.control.fld.next_instruction_EA_present = 0;
    std::memset(data.next_instruction_ea, 0,
                offsetof(QTRACE_RECORD, sequential_instruction_hRTW_depth) -
                    offsetof(QTRACE_RECORD, next_instruction_ea));
    data.next_instruction_page_size = data.next_instruction_gpage_size = 0;
    all.regs.num_gprs_in = all.regs.num_gprs_out = all.regs.num_vsxrs_in = all.regs.num_vmxrs_out = 3;
    for (uint16_t i = 0; i < 3; ++i) {
        const auto number = static_cast<uint16_t>(i + 1);
        all.regs.gpr_in[i].index = all.regs.gpr_out[i].index = number;
        all.regs.vsxr_in[i].index = all.regs.vmxr_out[i].index = number;
        all.regs.gpr_in[i].value = all.regs.gpr_out[i].value = 0x1111;
        all.regs.vsxr_in[i].value[0] = 0x2222, all.regs.vsxr_in[i].value[1] = 0x3333;
        all.regs.vmxr_out[i].value[0] = 0x4444, all.regs.vmxr_out[i].value[1] = 0x5555;
    }
    one.in({{1, 0x1111}});
    next.regs = one.regs;
    const QTRACE_FDESCR file = open();
    for (const Made &record : {both, data, both, next, all, one, all, data, all, Made(3), one, Made(3)})
        write(file, record);
    QTRACE_Fclose(file);
    EXPECT_TRUE(read().items == written_);
}

TEST_F(encoding, begins_anew_in_every_block)
{
    const auto access = [](uint64_t address, uint8_t page) {
        Made record(7);
        record.data(address);
        record.data_rpn[0] = page;
        return record;
    };
    const QTRACE_FDESCR file = open();
    const auto begin_block = [&] { write(file, QTRACE_FILE_HDR{}, std::string(16'385, 'c')); };
    for (const std::vector<Made> &records : {std::vector<Made>{access(0x5000, 9), Made(7)},
                                             {access(0x5000, 8), Made(7)},
                                             {access(0x5000, 9), access(0x6000, 8), access(0x5000, 9)},
                                             {access(0x5000, 0), Made(7)},
                                             {access(0x6000, 8), Made(7), access(0x6000, 8)}}) {
        begin_block();
        for (const Made &record : records)
            write(file, record);
    }
    QTRACE_Fclose(file);
    EXPECT_TRUE(read().items == written_);
    EXPECT_EQ(blocks().size(), 10u) << "each with its comment";
}

TEST_F(encoding, expects_next_addresses_and_control_words_of_the_same_block_alone)
{
    const QTRACE_FDESCR file = open();
    for (int block = 0; block < 2; ++block) {
        write(file, QTRACE_FILE_HDR{}, std::string(16'385, 'c'));
        write(file, Made(7).next(0x40));
        write(file, Made(7));
        write(file, Made(8).next(0));
    }
    QTRACE_Fclose(file);
    EXPECT_TRUE(read().items == written_);
    // Each block with its comment before it.
    std::vector<uint64_t> at;
    const std::string all = bytes();
    for (size_t block = FILE_START; block < all.size(); block += BLOCK_HEADER + number_at(all, block + 8))
        at.push_back(block);
    ASSERT_EQ(at.size(), 4u);
    const Columns columns = columns_at(at[1]);
    EXPECT_EQ(columns[NEXT], "\x80\x01");
    EXPECT_EQ(columns_at(at[3]), columns);
}

} // namespace

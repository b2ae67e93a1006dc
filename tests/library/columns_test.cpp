// Columns of records against the items that qtrace_next delivers of the same file.
#include "columns_from_c.h"
#include "qtrace.h"
#include "qtrace_columns.h"
#include "random_traces.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace
{

using Reader = std::unique_ptr<QTRACE_Reader, decltype(&qtrace_close)>;
using Table = std::unique_ptr<QTRACE_Translations, decltype(&qtrace_translations_free)>;

Table new_table()
{
    return {qtrace_translations_new(), &qtrace_translations_free};
}

std::vector<QTRACE_Translation> rows_of(const QTRACE_Translations *table)
{
    std::vector<QTRACE_Translation> rows(qtrace_translations_count(table));
    qtrace_translations_copy(table, 0, static_cast<uint32_t>(rows.size()), rows.data());
    return rows;
}

template <class Value> Value value_at(const void *from)
{
    Value value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

uint64_t vsid_at(const QTRACE_VSID &bytes)
{
    uint64_t value = 0;
    std::memcpy(&value, bytes, sizeof bytes);
    return value;
}

// All columns of some records.
struct Frame {
    explicit Frame(uint64_t rows)
        : address(rows), next(rows), data(rows), flags(rows), word(rows), data_translation(rows),
          next_translation(rows), context(rows), has_address(rows), has_next(rows), has_data(rows), node(rows),
          termination_node(rows), termination(rows), error(rows), processor(rows), length(rows), kinds(rows)
    {
        columns.which = QTRACE_COLUMN_ALL;
    }
    QTRACE_ITEM read(QTRACE_Reader *reader, uint64_t from, uint64_t rows, const QTRACE_Item **item = nullptr)
    {
        columns.translations = table.get();
        columns.address = &address[from];
        columns.has_address = &has_address[from];
        columns.next = &next[from];
        columns.has_next = &has_next[from];
        columns.data = &data[from];
        columns.has_data = &has_data[from];
        columns.word = &word[from];
        columns.flags = &flags[from];
        columns.data_translation = &data_translation[from];
        columns.next_translation = &next_translation[from];
        columns.context = &context[from];
        columns.node = &node[from];
        columns.termination_node = &termination_node[from];
        columns.termination = &termination[from];
        columns.error = &error[from];
        columns.processor = &processor[from];
        columns.length = &length[from];
        columns.kinds = &kinds[from];
        return qtrace_read_columns(reader, rows, &columns, item);
    }
    // The same, past pauses.
    QTRACE_ITEM read_all(QTRACE_Reader *reader, uint64_t from, uint64_t rows)
    {
        QTRACE_ITEM kind = QTRACE_ITEM_RECORD;
        for (uint64_t done = 0; done < rows && kind != QTRACE_ITEM_END; done += columns.rows)
            kind = read(reader, from + done, rows - done);
        return kind;
    }

    std::vector<uint64_t> address, next, data, flags;
    std::vector<uint32_t> word, data_translation, next_translation, context;
    std::vector<uint8_t> has_address, has_next, has_data, node, termination_node, termination, error, processor;
    std::vector<uint16_t> length, kinds;
    Table table = new_table();
    QTRACE_Columns columns{};
};

class columns : public testing::Test
{
protected:
    columns() { std::filesystem::create_directories(folder_); }
    ~columns() override { std::filesystem::remove_all(folder_); }

    void write(uint64_t records, uint64_t seed)
    {
        Random_Trace trace(seed);
        const QTRACE_FDESCR file = QTRACE_Fopen(name_.c_str(), QTRACE_WRITE);
        QTRACE_FILE_HDR header = trace.plausible_header();
        for (uint64_t i = 0; i < records; i++) {
            if (i % 700 == 3) {
                ASSERT_EQ(QTRACE_FwriteFileHeader(file, &header), 0);
                header = trace.wild_header();
                header.comment = nullptr;
                header.comment_length = 0;
            }
            QTRACE_RECORD record = trace.below(10) ? trace.plausible_record() : trace.wild_record();
            ASSERT_EQ(QTRACE_FwriteRecord(file, &record), 0);
        }
        QTRACE_Fclose(file);
    }
    Reader open() const { return {qtrace_open(name_.c_str(), nullptr), &qtrace_close}; }
    // Calls check(item, row) for every record.
    template <class Check> void for_records(Check check) const
    {
        const Reader reader = open();
        const QTRACE_Item *item = nullptr;
        uint64_t row = 0;
        for (QTRACE_ITEM kind; (kind = qtrace_next(reader.get(), &item)) != QTRACE_ITEM_END;)
            if (kind == QTRACE_ITEM_RECORD)
                check(*item, row++);
    }
    std::string name() const { return name_; }

private:
    std::filesystem::path folder_ =
        std::filesystem::temp_directory_path() / ("qtrace_columns_" + std::to_string(getpid()));
    std::string name_ = (folder_ / "trace").string();
};

constexpr uint64_t RECORDS = 30000;

void expect_row(const QTRACE_Item &item, const Frame &frame, uint64_t row)
{
    const QTRACE_RECORD &record = item.record;
    const auto &flags = record.header.control.fld;
    ASSERT_EQ(frame.has_address[row], item.address_known != 0);
    ASSERT_EQ(frame.address[row], item.address_known ? item.address : 0);
    ASSERT_EQ(frame.has_next[row], flags.next_instruction_EA_present);
    ASSERT_EQ(frame.has_data[row], flags.data_address_present);
    ASSERT_EQ(frame.next[row],
              flags.next_instruction_EA_present ? value_at<uint64_t>(record.next_instruction_ea) : 0);
    ASSERT_EQ(frame.data[row], flags.data_address_present ? value_at<uint64_t>(record.data_ea) : 0);
    ASSERT_EQ(frame.word[row], record.header.instruction);
    ASSERT_EQ(frame.flags[row], value_at<uint64_t>(&record.header.control));
    ASSERT_EQ(frame.context[row],
              item.header_number == 0 ? QTRACE_NO_CONTEXT : static_cast<uint32_t>(item.header_number - 1));
    ASSERT_EQ(frame.node[row], record.node);
    ASSERT_EQ(frame.termination_node[row], record.termination_node);
    ASSERT_EQ(frame.termination[row], record.termination_code);
    ASSERT_EQ(frame.error[row], record.error_code);
    ASSERT_EQ(frame.processor[row], record.processor);
    ASSERT_EQ(frame.length[row], record.length);
    ASSERT_EQ(frame.kinds[row], qtrace_kinds(&item));
}

uint64_t without_offset(uint64_t guest_address, uint64_t address)
{
    return guest_address < 4096 ? guest_address : guest_address ^ (address & 4095);
}

void expect_data_translation(const QTRACE_RECORD &record, const QTRACE_Translation &row)
{
    const auto &flags = record.header.control.fld;
    ASSERT_EQ(row.guest_mode, flags.guest_xlate_mode_data);
    ASSERT_EQ(row.host_mode, flags.host_xlate_mode_data);
    ASSERT_EQ(row.present, flags.data_VSID_present | flags.data_RPN_present << 1 |
                               flags.data_page_size_present << 2 | flags.data_gpage_size_present << 3);
    ASSERT_EQ(row.page_size, record.data_page_size);
    ASSERT_EQ(row.guest_page_size, record.data_gpage_size);
    ASSERT_EQ(row.guest_depth, record.data_hRTW_depth);
    ASSERT_EQ(row.host_depth, record.data_hRTW_num_level);
    ASSERT_EQ(row.rpn, value_at<uint32_t>(record.data_rpn));
    ASSERT_EQ(row.vsid, vsid_at(record.data_vsid));
    ASSERT_EQ(std::memcmp(row.host_walk, record.data_hRTW, sizeof record.data_hRTW), 0);
    ASSERT_EQ(std::memcmp(row.host_address, record.data_hRTW_host_RA, sizeof record.data_hRTW_host_RA), 0);
    ASSERT_EQ(std::memcmp(row.guest_walk, &record.data_gRTW, 40), 0);
    ASSERT_EQ(row.guest_address,
              without_offset(value_at<uint64_t>(record.data_gRTW.GUEST_ra), value_at<uint64_t>(record.data_ea)));
}

void expect_next_translation(const QTRACE_RECORD &record, const QTRACE_Translation &row)
{
    const auto &flags = record.header.control.fld;
    ASSERT_EQ(row.guest_mode, flags.guest_xlate_mode_instruction);
    ASSERT_EQ(row.host_mode, flags.host_xlate_mode_instruction);
    ASSERT_EQ(row.present, flags.next_instruction_VSID_present | flags.next_instruction_RPN_present << 1 |
                               flags.next_instruction_page_size_present << 2 |
                               flags.instruction_gpage_size_present << 3);
    ASSERT_EQ(row.page_size, record.next_instruction_page_size);
    ASSERT_EQ(row.rpn, value_at<uint32_t>(record.next_instruction_rpn));
    ASSERT_EQ(row.vsid, vsid_at(record.next_instruction_vsid));
    ASSERT_EQ(std::memcmp(row.host_walk, record.next_instruction_hRTW, sizeof record.next_instruction_hRTW), 0);
    ASSERT_EQ(row.guest_address, without_offset(value_at<uint64_t>(record.next_instruction_gRTW.GUEST_ra),
                                                value_at<uint64_t>(record.next_instruction_ea)));
}

TEST_F(columns, are_those_of_the_records)
{
    write(RECORDS, 1);
    Frame frame(RECORDS);
    const Reader reader = open();
    ASSERT_EQ(frame.read_all(reader.get(), 0, RECORDS), QTRACE_ITEM_RECORD);
    for_records([&](const QTRACE_Item &item, uint64_t row) { expect_row(item, frame, row); });
    Frame none(1);
    EXPECT_EQ(none.read(reader.get(), 0, 1), QTRACE_ITEM_END);
    EXPECT_EQ(none.columns.rows, 0u);
}

TEST_F(columns, name_the_row_of_each_translation)
{
    write(RECORDS, 2);
    Frame frame(RECORDS);
    frame.read_all(open().get(), 0, RECORDS);
    const std::vector<QTRACE_Translation> rows = rows_of(frame.table.get());
    EXPECT_EQ(rows[0].guest_mode, 3);
    EXPECT_EQ(rows[0].host_mode, 3);
    QTRACE_Translation part[3] = {};
    qtrace_translations_copy(frame.table.get(), 5, 2, part);
    EXPECT_EQ(std::memcmp(part, &rows.at(5), 2 * sizeof *part), 0);
    EXPECT_EQ(part[2].present | part[2].guest_mode | part[2].host_mode, 0) << "no more than two are copied";
    for_records([&](const QTRACE_Item &item, uint64_t row) {
        const auto &flags = item.record.header.control.fld;
        if (flags.data_address_present)
            expect_data_translation(item.record, rows.at(frame.data_translation[row]));
        else
            ASSERT_EQ(frame.data_translation[row], 0u);
        if (flags.next_instruction_EA_present)
            expect_next_translation(item.record, rows.at(frame.next_translation[row]));
        else
            ASSERT_EQ(frame.next_translation[row], 0u);
    });
}

TEST_F(columns, have_no_translation_twice)
{
    write(RECORDS, 3);
    Frame frame(RECORDS);
    frame.read_all(open().get(), 0, RECORDS);
    const std::vector<QTRACE_Translation> rows = rows_of(frame.table.get());
    std::map<std::string, size_t> seen;
    for (size_t i = 0; i < rows.size(); i++)
        EXPECT_TRUE(seen.emplace(std::string(reinterpret_cast<const char *>(&rows[i]), sizeof rows[i]), i).second);
    EXPECT_GT(rows.size(), 600u); // the table has grown
}

// The same page, with and without each of the flags that belong to its translation.
TEST_F(columns, tell_translations_apart_that_differ_in_one_flag)
{
    using Change = void (*)(QTRACE_RECORD &);
    const Change changes[] = {
        [](QTRACE_RECORD &r) { r.header.control.fld.data_VSID_present = 0; },
        [](QTRACE_RECORD &r) { r.header.control.fld.data_RPN_present = 0; },
        [](QTRACE_RECORD &r) { r.header.control.fld.data_page_size_present = 0; },
        [](QTRACE_RECORD &r) { r.header.control.fld.data_gpage_size_present = 0; },
        [](QTRACE_RECORD &r) { r.header.control.fld.guest_xlate_mode_data = 1; },
        [](QTRACE_RECORD &r) { r.header.control.fld.host_xlate_mode_data = 1; },
        [](QTRACE_RECORD &r) { r.header.control.fld.next_instruction_VSID_present = 0; },
        [](QTRACE_RECORD &r) { r.header.control.fld.next_instruction_RPN_present = 0; },
        [](QTRACE_RECORD &r) { r.header.control.fld.next_instruction_page_size_present = 0; },
        [](QTRACE_RECORD &r) { r.header.control.fld.instruction_gpage_size_present = 0; },
        [](QTRACE_RECORD &r) { r.header.control.fld.guest_xlate_mode_instruction = 1; },
        [](QTRACE_RECORD &r) { r.header.control.fld.host_xlate_mode_instruction = 1; },
    };
    QTRACE_RECORD plain{};
    auto &flags = plain.header.control.fld;
    flags.data_address_present = flags.data_VSID_present = flags.data_RPN_present = 1;
    flags.data_page_size_present = flags.data_gpage_size_present = 1;
    flags.next_instruction_EA_present = flags.next_instruction_VSID_present = 1;
    flags.next_instruction_RPN_present = flags.next_instruction_page_size_present = 1;
    flags.instruction_gpage_size_present = 1;
    plain.data_ea[1] = 0x10;
    plain.next_instruction_ea[1] = 0x20;
    const QTRACE_FDESCR file = QTRACE_Fopen(name().c_str(), QTRACE_WRITE);
    QTRACE_FILE_HDR header = Random_Trace(1).plausible_header();
    ASSERT_EQ(QTRACE_FwriteFileHeader(file, &header), 0);
    for (const Change change : changes) {
        QTRACE_RECORD changed = plain;
        change(changed);
        ASSERT_EQ(QTRACE_FwriteRecord(file, &plain), 0);
        ASSERT_EQ(QTRACE_FwriteRecord(file, &changed), 0);
    }
    QTRACE_Fclose(file);
    constexpr uint64_t ALL = 2 * std::size(changes);
    Frame frame(ALL);
    frame.read_all(open().get(), 0, ALL);
    const std::vector<QTRACE_Translation> rows = rows_of(frame.table.get());
    EXPECT_EQ(rows.size(), 2 + std::size(changes) / 2) << "none, the page's, and those changed on either side";
    for_records([&](const QTRACE_Item &item, uint64_t row) {
        expect_data_translation(item.record, rows.at(frame.data_translation[row]));
        expect_next_translation(item.record, rows.at(frame.next_translation[row]));
    });
}

TEST_F(columns, are_the_same_in_pieces_and_from_any_record_on)
{
    write(RECORDS, 4);
    Frame whole(RECORDS), pieces(RECORDS);
    whole.read_all(open().get(), 0, RECORDS);
    const Reader reader = open();
    for (uint64_t from = 0, rows = 1; from < RECORDS; from += rows, rows = std::min(2 * rows, RECORDS - from)) {
        ASSERT_EQ(pieces.read_all(reader.get(), from, rows), QTRACE_ITEM_RECORD);
        ASSERT_EQ(pieces.columns.first_record + pieces.columns.rows, from + rows);
    }
    EXPECT_EQ(pieces.data, whole.data);
    EXPECT_EQ(pieces.context, whole.context);
    EXPECT_EQ(pieces.next_translation, whole.next_translation);
    ASSERT_EQ(qtrace_seek(reader.get(), 20001), 0);
    Frame rest(RECORDS);
    ASSERT_EQ(rest.read_all(reader.get(), 20001, RECORDS - 20001), QTRACE_ITEM_RECORD);
    for (uint64_t row = 20001; row < RECORDS; row++) {
        ASSERT_EQ(rest.address[row], whole.address[row]);
        ASSERT_EQ(rest.context[row], whole.context[row]);
    }
}

TEST_F(columns, that_nobody_asks_for_need_no_buffer)
{
    write(1000, 5);
    std::vector<uint32_t> words(1000);
    QTRACE_Columns only{};
    only.which = QTRACE_COLUMN_WORD;
    only.word = words.data();
    ASSERT_EQ(qtrace_read_columns(open().get(), 1000, &only, nullptr), QTRACE_ITEM_RECORD);
    for_records(
        [&](const QTRACE_Item &item, uint64_t row) { ASSERT_EQ(words[row], item.record.header.instruction); });
}

TEST_F(columns, leave_the_records_that_follow_as_they_are)
{
    write(2000, 6);
    const Reader mixed = open(), plain = open();
    Frame frame(10);
    const QTRACE_Item *one = nullptr, *other = nullptr;
    for (int turn = 0; turn < 180; turn++) {
        ASSERT_EQ(frame.read(mixed.get(), 0, 10), QTRACE_ITEM_RECORD);
        for (int records = 0; records < 10;)
            records += qtrace_next(plain.get(), &other) == QTRACE_ITEM_RECORD;
        const QTRACE_ITEM kind = qtrace_next(mixed.get(), &one);
        ASSERT_EQ(kind, qtrace_next(plain.get(), &other));
        if (kind == QTRACE_ITEM_RECORD) {
            ASSERT_EQ(std::memcmp(&one->record, &other->record, sizeof one->record), 0);
        }
    }
}

TEST_F(columns, stop_where_the_trace_is_discontinuous)
{
    write(RECORDS, 7);
    const Reader whole = open();
    QTRACE_Block blocks[64];
    const uint64_t count = qtrace_blocks(whole.get(), blocks, 64);
    ASSERT_GT(count, 3u);
    {
        std::fstream file(name(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(blocks[2].offset + 100));
        file.put('\x55').put('\xaa');
    }
    const Reader reader = open();
    Frame frame(RECORDS);
    const QTRACE_Item *item = nullptr;
    uint64_t rows = 0;
    do { // past pauses, which lose nothing
        ASSERT_EQ(frame.read(reader.get(), 0, RECORDS, &item), QTRACE_ITEM_DISCONTINUITY);
        rows += frame.columns.rows;
    } while (item->discontinuity.cause == QTRACE_CAUSE_PAUSE);
    EXPECT_EQ(rows, blocks[2].first_record);
    EXPECT_EQ(item->record_number, blocks[2].first_record);
    EXPECT_EQ(item->discontinuity.records, blocks[2].records);
    ASSERT_EQ(frame.read_all(reader.get(), 0, 1), QTRACE_ITEM_RECORD);
    EXPECT_EQ(frame.columns.first_record, blocks[3].first_record);
}

TEST_F(columns, of_blocks_add_up_to_the_file)
{
    write(RECORDS, 8);
    const Reader reader = open();
    const uint64_t count = qtrace_blocks(reader.get(), nullptr, 0);
    std::vector<QTRACE_Block> blocks(count);
    ASSERT_EQ(qtrace_blocks(reader.get(), blocks.data(), count), count);
    uint64_t offset = 16, records = 0, headers = 0;
    for (const QTRACE_Block &block : blocks) {
        EXPECT_EQ(block.offset, offset);
        EXPECT_EQ(block.first_record, records);
        EXPECT_EQ(block.first_header, headers);
        offset += block.size;
        records += block.records;
        headers += block.headers;
    }
    EXPECT_EQ(offset, std::filesystem::file_size(name()));
    EXPECT_EQ(records, RECORDS);
    EXPECT_EQ(headers, (RECORDS - 3 + 699) / 700);
}

TEST_F(columns, of_headers_pass_over_records)
{
    write(10000, 9);
    const Reader reader = open();
    const QTRACE_Item *item = nullptr;
    uint64_t headers = 0;
    for (QTRACE_ITEM kind; (kind = qtrace_next_header(reader.get(), &item)) != QTRACE_ITEM_END;) {
        if (kind != QTRACE_ITEM_HEADER)
            continue; // a pause
        EXPECT_EQ(item->header_number, headers);
        EXPECT_EQ(item->record_number, 3 + 700 * headers);
        headers++;
    }
    EXPECT_EQ(headers, (10000 - 3 + 699) / 700u);
}

TEST_F(columns, of_two_translation_tables_merge)
{
    write(RECORDS, 10);
    Frame first(RECORDS), second(RECORDS);
    const Reader reader = open();
    first.read_all(reader.get(), 0, RECORDS / 2);
    second.read_all(reader.get(), RECORDS / 2, RECORDS / 2);
    const std::vector<QTRACE_Translation> rows = rows_of(second.table.get());
    std::vector<uint32_t> numbers(rows.size());
    ASSERT_EQ(qtrace_translations_merge(first.table.get(), second.table.get(), numbers.data()), 0);
    const std::vector<QTRACE_Translation> merged = rows_of(first.table.get());
    for (size_t i = 0; i < rows.size(); i++)
        EXPECT_EQ(std::memcmp(&rows[i], &merged.at(numbers[i]), sizeof rows[i]), 0);
    EXPECT_EQ(numbers[0], 0u); // the row of absent addresses is shared
}

// ---- Registers ------------------------------------------------------------------------------------------

using Register =
    std::tuple<uint64_t, int, int, int, uint64_t, uint64_t>; // record, output, class, number, value, high

template <class Entry>
void add(std::vector<Register> &to, uint64_t record, int output, int kind, int count, const Entry *entries,
         int room)
{
    for (int i = 0; i < std::min(count, room); i++)
        if constexpr (sizeof(Entry) == sizeof(QTRACE_REGISTER_INFO))
            to.emplace_back(record, output, kind, entries[i].index, entries[i].value, 0);
        else
            to.emplace_back(record, output, kind, entries[i].index, entries[i].value[0], entries[i].value[1]);
}

void add_registers(std::vector<Register> &to, uint64_t number, const QTRACE_REGISTERS &r)
{
    add(to, number, 0, QTRACE_CLASS_GPR, r.num_gprs_in, r.gpr_in, 32);
    add(to, number, 0, QTRACE_CLASS_FPR, r.num_fprs_in, r.fpr_in, 3);
    add(to, number, 0, QTRACE_CLASS_VMXR, r.num_vmxrs_in, r.vmxr_in, 3);
    add(to, number, 0, QTRACE_CLASS_VSXR, r.num_vsxrs_in, r.vsxr_in, 3);
    add(to, number, 0, QTRACE_CLASS_SPR, r.num_sprs_in, r.spr_in, 4);
    add(to, number, 1, QTRACE_CLASS_GPR, r.num_gprs_out, r.gpr_out, 32);
    add(to, number, 1, QTRACE_CLASS_FPR, r.num_fprs_out, r.fpr_out, 3);
    add(to, number, 1, QTRACE_CLASS_VMXR, r.num_vmxrs_out, r.vmxr_out, 3);
    add(to, number, 1, QTRACE_CLASS_VSXR, r.num_vsxrs_out, r.vsxr_out, 3);
    add(to, number, 1, QTRACE_CLASS_SPR, r.num_sprs_out, r.spr_out, 4);
}

struct Registers {
    explicit Registers(uint64_t rows)
        : record(rows), value(rows), high(rows), output(rows), kind(rows), number(rows)
    {
        columns = {31,          31, rows, record.data(), output.data(), kind.data(), number.data(), value.data(),
                   high.data(), 0,  0};
    }
    void add_to(std::vector<Register> &all) const
    {
        for (uint64_t i = 0; i < columns.rows; i++)
            all.emplace_back(record[i], output[i], kind[i], number[i], value[i], high[i]);
    }
    std::vector<uint64_t> record, value, high;
    std::vector<uint8_t> output, kind;
    std::vector<uint16_t> number;
    QTRACE_Register_Columns columns;
};

TEST_F(columns, of_registers_have_a_row_for_each)
{
    write(5000, 11);
    std::vector<Register> expected, found;
    for_records(
        [&](const QTRACE_Item &item, uint64_t) { add_registers(expected, item.record_number, item.record.regs); });
    Registers registers(1000); // which is filled many times
    const Reader reader = open();
    uint64_t records = 0;
    for (;;) {
        const QTRACE_ITEM kind = qtrace_read_registers(reader.get(), 5000 - records, &registers.columns, nullptr);
        registers.add_to(found);
        records += registers.columns.records;
        if (records == 5000 || kind == QTRACE_ITEM_END)
            break;
    }
    EXPECT_EQ(records, 5000u);
    EXPECT_EQ(found, expected);
}

// Another record is read as long as there is room for as many registers as a record can have.
TEST_F(columns, of_registers_end_where_the_next_record_might_not_fit)
{
    write(5000, 11);
    std::vector<size_t> held; // registers of each record
    for_records([&](const QTRACE_Item &item, uint64_t) {
        std::vector<Register> rows;
        add_registers(rows, item.record_number, item.record.regs);
        held.push_back(rows.size());
    });
    const size_t first = held.at(0) + held.at(1);
    ASSERT_GT(first, 0u);
    for (const uint64_t less : {0, 1}) {
        Registers registers(QTRACE_MAX_REGISTERS + first - less);
        const Reader reader = open();
        qtrace_read_registers(reader.get(), 3, &registers.columns, nullptr);
        EXPECT_EQ(registers.columns.records, 3u - less);
    }
}

TEST_F(columns, of_registers_have_the_chosen_classes_only)
{
    write(5000, 12);
    std::vector<Register> expected, found;
    for_records([&](const QTRACE_Item &item, uint64_t) {
        const QTRACE_REGISTERS &r = item.record.regs;
        add(expected, item.record_number, 0, QTRACE_CLASS_SPR, r.num_sprs_in, r.spr_in, 4);
        add(expected, item.record_number, 1, QTRACE_CLASS_VSXR, r.num_vsxrs_out, r.vsxr_out, 3);
    });
    Registers registers(100000);
    registers.columns.inputs = 1 << QTRACE_CLASS_SPR;
    registers.columns.outputs = 1 << QTRACE_CLASS_VSXR;
    const Reader reader = open();
    for (uint64_t records = 0; records < 5000; records += registers.columns.records) {
        qtrace_read_registers(reader.get(), 5000 - records, &registers.columns, nullptr);
        registers.add_to(found);
    }
    EXPECT_GT(found.size(), 100u);
    EXPECT_EQ(found, expected);
}

TEST_F(columns, are_filled_for_a_program_in_c)
{
    write(1000, 13);
    uint64_t sum = 0;
    for_records([&](const QTRACE_Item &item, uint64_t) { sum += item.record.header.instruction; });
    EXPECT_EQ(sum_of_words(name().c_str()), sum);
}

} // namespace

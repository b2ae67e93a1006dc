// Complete outputs of every format for a few records, written by hand, and what parts hand on to the next part.
#include "exports/exporter.h"
#include "planted_trace.h"
#include "tool_run.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <array>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

using namespace planted;
using namespace qtrace_tool;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace
{

template <class Bytes> void put(Bytes &bytes, uint64_t value)
{
    std::memcpy(bytes, &value, sizeof bytes);
}

QTRACE_Item record_item(uint64_t number, uint64_t address, const QTRACE_RECORD &record)
{
    QTRACE_Item item{};
    item.kind = QTRACE_ITEM_RECORD;
    item.record_number = number;
    item.address = address;
    item.address_known = 1;
    item.record = record;
    return item;
}

QTRACE_Item header_item(uint64_t number, uint64_t record, const Item &planted)
{
    QTRACE_Item item{};
    item.kind = QTRACE_ITEM_HEADER;
    item.header_number = number;
    item.record_number = record;
    item.header = planted.header;
    return item;
}

Item with_data(uint32_t word, uint64_t address, Case translation)
{
    Item item{false, {}, "", plain_record(word)};
    item.record.header.control.fld.data_address_present = 1;
    put(item.record.data_ea, address);
    set_case(item, Side::data, translation);
    return item;
}

// Goes to `next`, whose page number is `page`; 0: the real page is not told.
QTRACE_RECORD jump(uint32_t word, uint64_t next, uint32_t page)
{
    Item item{false, {}, "", plain_record(word)};
    auto &flags = item.record.header.control.fld;
    flags.iar_change_present = flags.node_present = flags.next_instruction_EA_present = 1;
    put(item.record.next_instruction_ea, next);
    set_case(item, Side::next, page != 0 ? Case::single : Case::real);
    if (page != 0)
        std::memcpy(item.record.next_instruction_rpn, &page, sizeof page);
    return item.record;
}

uint64_t control_of(const QTRACE_RECORD &record)
{
    uint64_t bits;
    std::memcpy(&bits, &record.header.control, sizeof bits);
    return bits;
}

using Fill = std::function<void(Export_Part &)>;
using Files = std::vector<std::vector<Fill>>; // parts of each

void export_files(Exporter &exporter, const Files &files)
{
    size_t number = 0;
    for (const std::vector<Fill> &parts : files) {
        exporter.begin_file(fmt::format("trace{}", number++));
        for (const Fill &fill : parts) {
            if (Export_Part *const whole = exporter.in_order()) {
                fill(*whole);
                continue;
            }
            const std::unique_ptr<Export_Part> part = exporter.make_part();
            fill(*part);
            exporter.add(*part);
        }
    }
    exporter.finish();
}

// A run of `qtrace export` without its command line.
struct Export_Run {
    Folder folder;
    Export_Options options;
    std::vector<std::string> shortcomings;
    std::unique_ptr<Symbol_Names> names;
    Tool_Run messages{2, 2};

    explicit Export_Run(const std::string &symbols = "")
    {
        Symbol_Options chosen;
        if (!symbols.empty())
            chosen.add(folder.text("map", symbols));
        names = std::make_unique<Symbol_Names>(messages, chosen);
        options.names = names.get();
        options.files = {"trace0"};
    }
    std::string exported(decltype(make_csv_exporter) make, const Files &files)
    {
        Output_File file(folder.path("out"), true);
        const std::unique_ptr<Exporter> exporter = make(file, options);
        export_files(*exporter, files);
        shortcomings = exporter->shortcomings();
        file.finish();
        return folder.contents("out");
    }
};

// A header and five records of two processes; the last one after a loss, and without address or header.
struct Sample {
    Sample()
        : first(header_item(0, 0, good_trace()[FIRST_HEADER])), second(header_item(1, 2, good_trace()[PARTITION]))
    {
        first.header.comment = comment.data();
        first.header.comment_length = static_cast<uint16_t>(comment.size());
        Item load = with_data(0xe8640008, 0x5008, Case::single); // ld
        QTRACE_REGISTERS &registers = load.record.regs;
        load.record.header.control.fld.register_trace_present = 1;
        registers.num_gprs_in = 2;
        registers.gpr_in[0] = {4, 0x2000};
        registers.gpr_in[1] = {31, 0xC000000000000001};
        registers.num_fprs_in = 1;
        registers.fpr_in[0] = {1, 0x3ff};
        registers.num_vsxrs_out = 1;
        registers.vsxr_out[0] = {34, {0x11, 0x22}};
        Item store = with_data(0x7c6485aa, 0x7010, Case::hpt); // stswi
        store.record.header.control.fld.length_present = store.record.header.control.fld.trace_error_code_present =
            1;
        store.record.length = 16;
        store.record.error_code = 8;
        records = {record_item(0, 0x1000, load.record), record_item(1, 0x1004, store.record),
                   record_item(2, 0x1008, jump(0x48000ff5, 0x3000, 0)),                        // bl
                   record_item(3, 0x3000, with_data(0x80640010, 0x6010, Case::nested).record), // lwz
                   record_item(9, 0, plain_record(0x60000000))};
        records[4].address_known = 0;
    }
    void fill(Export_Part &part) const
    {
        part.header(first, &first.header);
        part.record(records[0], &first.header);
        part.record(records[1], &first.header);
        part.header(second, &second.header);
        part.record(records[2], &second.header);
        part.record(records[3], &second.header);
        part.lost(4, 5);
        part.record(records[4], nullptr);
    }
    Files files() const
    {
        return {{[this](Export_Part &part) { fill(part); }}};
    }

    std::string comment = "a \"b\\\x01";
    QTRACE_Item first, second;
    std::vector<QTRACE_Item> records;
};

const char *const SYMBOLS = "1000 5 T main\n3000 10 T a,b\n5000 10 T say \"c\"\n6000 100 T plain\n";

} // namespace

// ---- csv -------------------------------------------------------------------------------------------------

TEST(csv_export, has_the_usual_fields)
{
    Export_Run run;
    EXPECT_EQ(run.exported(make_csv_exporter, Sample().files()),
              "file,record,address,instruction,kinds,lpid,pid,next_instruction_ea,data_ea,data_real,length\n"
              "0,0,0x1000,0xe8640008,load,1,7,,0x5008,0x12008,\n"
              "0,1,0x1004,0x7c6485aa,store string error,1,7,,0x7010,0x12010,16\n"
              "0,2,0x1008,0x48000ff5,branch taken call,2,8,0x3000,,,\n"
              "0,3,0x3000,0x80640010,load,2,8,,0x6010,0x12010,\n"
              "0,9,,0x60000000,,,,,,,\n");
    EXPECT_THAT(run.shortcomings, IsEmpty());
}

TEST(csv_export, has_names_where_there_are_symbols_in_quotes_where_needed)
{
    Export_Run run(SYMBOLS);
    run.options.fields = {"record", "symbol", "next_symbol", "data_symbol"};
    EXPECT_EQ(run.exported(make_csv_exporter, Sample().files()), "record,symbol,next_symbol,data_symbol\n"
                                                                 "0,main+0x0,,\"say \"\"c\"\"+0x8\"\n"
                                                                 "1,main+0x4,,\n"
                                                                 "2,,\"a,b+0x0\",\n"
                                                                 "3,\"a,b+0x0\",,plain+0x10\n"
                                                                 "9,,,\n");
    run.options.fields.clear();
    EXPECT_THAT(run.exported(make_csv_exporter, {{}}),
                HasSubstr(",data_real,length,symbol,next_symbol,data_symbol\n"));
}

TEST(csv_export, has_flags_registers_and_members_of_up_to_64_bits)
{
    Export_Run run;
    run.options.fields = {"flags",  "data_vsid", "error_code", "data_hRTW_depth",
                          "gpr_in", "fpr_in",    "gpr_out",    "vsxr_out"};
    const Sample sample;
    const auto flags = [&](size_t i) { return control_of(sample.records[i].record); };
    EXPECT_EQ(run.exported(make_csv_exporter, sample.files()),
              fmt::format("flags,data_vsid,error_code,data_hRTW_depth,gpr_in,fpr_in,gpr_out,vsxr_out\n"
                          "0x{:x},,,0,r4=0x2000 r31=0xc000000000000001,f1=0x3ff,,"
                          "x34=0x00000000000000110000000000000022\n"
                          "0x{:x},0x1,8,0,,,,\n"
                          "0x{:x},,,,,,,\n"
                          "0x{:x},,,3,,,,\n"
                          "0x{:x},,,,,,,\n",
                          flags(0), flags(1), flags(2), flags(3), flags(4)));
}

TEST(csv_export, has_decimal_numbers_on_request_and_real_next_addresses)
{
    Export_Run run;
    run.options.fields = {"file", "record", "address", "next_real", "data_ea"};
    run.options.decimal = true;
    const Fill one = [](Export_Part &part) {
        part.record(record_item(12, 0xC000000000000000, jump(0x48000ff5, 0x3004, 0x40)), nullptr);
    };
    EXPECT_EQ(run.exported(make_csv_exporter, {{one, one}, {one}}), "file,record,address,next_real,data_ea\n"
                                                                    "0,12,13835058055282163712,262148,\n"
                                                                    "0,12,13835058055282163712,262148,\n"
                                                                    "1,12,13835058055282163712,262148,\n");
}

// ---- champsim --------------------------------------------------------------------------------------------

namespace
{

uint64_t word_at(const std::string &bytes, size_t place)
{
    uint64_t word;
    std::memcpy(&word, bytes.data() + place, sizeof word);
    return word;
}

// "1004 branch taken out 26 6 in 6 stores 5008 loads 5008"; zeros at the end of a list are left out.
std::string shown(const std::string &record)
{
    std::string text = fmt::format("{:x}", word_at(record, 0));
    text += record[8] == 1 ? " branch" : record[8] == 0 ? "" : " ?";
    text += record[9] == 1 ? " taken" : record[9] == 0 ? "" : " ?";
    const auto list = [&](const char *name, size_t begin, size_t end, size_t step, const char *form) {
        std::string values;
        for (size_t i = begin; i < end; i += step)
            values +=
                fmt::format(fmt::runtime(form), step == 1 ? static_cast<uint8_t>(record[i]) : word_at(record, i));
        while (values.ends_with(" 0"))
            values.resize(values.size() - 2);
        text += values.empty() ? "" : name + values;
    };
    list(" out", 10, 12, 1, " {}");
    list(" in", 12, 16, 1, " {}");
    list(" stores", 16, 32, 8, " {:x}");
    list(" loads", 32, 64, 8, " {:x}");
    return text;
}

std::vector<std::string> simulated(Export_Run &run, const std::vector<Fill> &parts)
{
    const std::string bytes = run.exported(make_champsim_exporter, {parts});
    EXPECT_EQ(bytes.size() % 64, 0u);
    std::vector<std::string> lines;
    for (size_t i = 0; i < bytes.size(); i += 64)
        lines.push_back(shown(bytes.substr(i, 64)));
    return lines;
}

// Registers as "r4", in the record's order of files.
QTRACE_RECORD with_registers(uint32_t word, const std::vector<std::pair<char, uint16_t>> &inputs,
                             const std::vector<std::pair<char, uint16_t>> &outputs)
{
    QTRACE_RECORD record = plain_record(word);
    record.header.control.fld.register_trace_present = 1;
    QTRACE_REGISTERS &to = record.regs;
    for (const auto &[file, index] : inputs) {
        if (file == 'r')
            to.gpr_in[to.num_gprs_in++].index = index;
        if (file == 'f')
            to.fpr_in[to.num_fprs_in++].index = index;
        if (file == 's')
            to.spr_in[to.num_sprs_in++].index = index;
        if (file == 'v')
            to.vmxr_in[to.num_vmxrs_in++].index = index;
        if (file == 'x')
            to.vsxr_in[to.num_vsxrs_in++].index = index;
    }
    for (const auto &[file, index] : outputs) {
        if (file == 'r')
            to.gpr_out[to.num_gprs_out++].index = index;
        if (file == 's')
            to.spr_out[to.num_sprs_out++].index = index;
        if (file == 'v')
            to.vmxr_out[to.num_vmxrs_out++].index = index;
    }
    return record;
}

Fill records_at(uint64_t address, std::vector<QTRACE_RECORD> records)
{
    return [address, records](Export_Part &part) {
        for (size_t i = 0; i < records.size(); i++)
            part.record(record_item(i, address + 4 * i, records[i]), nullptr);
    };
}

constexpr uint32_t ADD = 0x38630001, LOAD_WORD = 0xe8640008, STORE_WORD = 0xf8640008;

} // namespace

TEST(champsim_export, has_a_number_for_every_register)
{
    Export_Run run;
    EXPECT_THAT(
        simulated(run, {records_at(
                           0x1000,
                           {
                               with_registers(ADD, {{'r', 0}, {'r', 31}, {'f', 1}, {'s', 8}}, {{'r', 3}, {'s', 9}}),
                               with_registers(ADD, {{'v', 0}, {'v', 31}, {'x', 0}, {'x', 31}}, {{'v', 1}}),
                               with_registers(ADD, {{'f', 31}, {'s', 10}, {'s', 61}, {'s', 62}}, {{'s', 815}}),
                               with_registers(ADD, {{'s', 7}, {'x', 32}, {'x', 63}, {'x', 33}}, {}),
                               with_registers(ADD, {{'r', 32}, {'f', 64}, {'v', 33}, {'x', 65}}, {{'s', 1}}),
                           })}),
        ElementsAre("1000 out 67 193 in 64 95 129 192", "1004 out 161 in 160 191 128 159",
                    "1008 out 203 in 159 204 255 194", "100c in 201 160 191 161",
                    "1010 out 195 in 64 128 161 129"));
    EXPECT_THAT(run.shortcomings, IsEmpty());
}

TEST(champsim_export, names_a_register_once_and_counts_those_without_a_place)
{
    Export_Run run;
    const QTRACE_RECORD twice = with_registers(ADD, {{'r', 1}, {'r', 2}, {'r', 1}, {'r', 3}, {'r', 4}, {'r', 2}},
                                               {{'r', 5}, {'r', 5}, {'r', 6}});
    const QTRACE_RECORD more = with_registers(ADD, {{'r', 1}, {'r', 2}, {'r', 3}, {'r', 4}, {'r', 5}, {'r', 6}},
                                              {{'r', 5}, {'r', 7}, {'r', 6}});
    EXPECT_THAT(simulated(run, {records_at(0x1000, {twice})}), ElementsAre("1000 out 69 70 in 65 66 67 68"));
    EXPECT_THAT(run.shortcomings, IsEmpty());
    EXPECT_THAT(simulated(run, {records_at(0x1000, {more}), records_at(0x1000, {more, more})}),
                ElementsAre("1000 out 69 71 in 65 66 67 68", "1000 out 69 71 in 65 66 67 68",
                            "1004 out 69 71 in 65 66 67 68"));
    EXPECT_THAT(run.shortcomings, ElementsAre("registers written that have no place (2 an instruction): 3",
                                              "registers read that have no place (4 an instruction): 6"));
}

TEST(champsim_export, lets_the_simulator_tell_branches_apart)
{
    constexpr struct {
        uint32_t word;
        const char *line;
    } BRANCHES[] = {
        {0x48000ff4, "branch out 26"},                  // b
        {0x48000ff5, "branch out 26 6 in 6 26"},        // bl
        {0x41820010, "branch out 26 in 26 25 68 193"},  // beq
        {0x41820011, "branch out 26 6 in 6 26"},        // beql
        {0x42800010, "branch out 26"},                  // bc always
        {0x4E800020, "branch out 26 6 in 6 68 193"},    // blr
        {0x4D820020, "branch out 26 6 in 6 68 193"},    // beqlr
        {0x4E800820, "branch out 26 in 192 68 193"},    // blr, no return
        {0x4E800021, "branch out 26 6 in 6 26 192 68"}, // blrl
        {0x4E800420, "branch out 26 in 193 68"},        // bctr
        {0x4E800421, "branch out 26 6 in 6 26 193 68"}, // bctrl
        {0x4D820420, "branch out 26 in 26 25 193 68"},  // beqctr
        {0x4E800460, "branch out 26 in 192 68 193"},    // bctar
        {0x4C000024, "branch out 26 in 192 68 193"},    // rfid
    };
    for (const auto &[word, line] : BRANCHES) {
        Export_Run run;
        const QTRACE_RECORD record = with_registers(word, {{'r', 4}, {'s', 9}}, {});
        EXPECT_THAT(simulated(run, {records_at(0x1000, {record})}), ElementsAre(std::string("1000 ") + line));
        EXPECT_EQ(run.shortcomings.size(), word == 0x4E800021 ? 1u : 0u) << line;
    }
}

TEST(champsim_export, says_which_branches_were_taken_and_counts_changes_without_one)
{
    Export_Run run;
    QTRACE_RECORD interrupted = plain_record(ADD);
    interrupted.header.control.fld.iar_change_present = 1;
    const QTRACE_RECORD call = with_registers(0x48000ff5, {}, {{'s', 8}});
    QTRACE_RECORD taken = call;
    taken.header.control.fld.iar_change_present = 1;
    EXPECT_THAT(
        simulated(run,
                  {records_at(0x1000, {call, taken, interrupted, interrupted}), records_at(0x2000, {interrupted})}),
        ElementsAre("1000 branch out 26 6 in 6 26", "1004 branch taken out 26 6 in 6 26", "1008", "100c", "2000"));
    EXPECT_THAT(run.shortcomings, ElementsAre("registers written that have no place (2 an instruction): 2",
                                              "control-flow changes without a branch (interrupts, exceptions): 3"));
}

TEST(champsim_export, has_the_accesses_of_loads_and_stores)
{
    Export_Run run;
    const auto record = [](uint32_t word, uint64_t address) {
        return with_data(word, address, Case::single).record;
    };
    EXPECT_THAT(simulated(run, {records_at(0x1000, {record(LOAD_WORD, 0x5008), record(STORE_WORD, 0x5010),
                                                    plain_record(LOAD_WORD)})}),
                ElementsAre("1000 loads 5008", "1004 stores 5010", "1008"));
    EXPECT_THAT(run.shortcomings, IsEmpty());
    const uint32_t clear_block = 31u << 26 | 1014 << 1;
    const Fill twice = records_at(0x1000, {record(LOAD_WORD, 0), record(clear_block, 0x5080)});
    EXPECT_THAT(simulated(run, {twice, twice}), ElementsAre("1000", "1004", "1000", "1004"));
    EXPECT_THAT(run.shortcomings, ElementsAre("accesses left out (cache management, or to address 0): 4"));
}

TEST(champsim_export, has_real_addresses_as_far_as_they_are_recorded)
{
    Export_Run run;
    run.options.real = true;
    const Sample sample; // its header tells page 12 for 1000
    const auto add = [](Export_Part &part, uint64_t address) {
        part.record(record_item(0, address, plain_record(ADD)), nullptr);
    };
    const auto go = [](Export_Part &part, uint64_t address, uint64_t next, uint32_t page) {
        part.record(record_item(0, address, jump(0x48000ff5, next, page)), nullptr);
    };
    const std::string call = " branch taken out 26 6 in 6 26";
    EXPECT_THAT(simulated(run, {[&](Export_Part &part) {
                                    part.header(sample.first, nullptr);
                                    add(part, 0x1000);
                                    part.header(sample.second, nullptr);
                                    add(part, 0x1FFC);
                                    add(part, 0x2000); // 1
                                    go(part, 0x1008, 0x2000, 0x13);
                                    add(part, 0x2004);
                                    go(part, 0x2008, 0x3000, 0);
                                    add(part, 0x3000); // 2
                                },
                                [&](Export_Part &part) { add(part, 0x3004); }, // 3
                                [&](Export_Part &part) {
                                    add(part, 0x1000); // 4
                                    part.header(sample.first, nullptr);
                                    add(part, 0x1004);
                                    part.header(sample.first, nullptr);
                                    add(part, 0x1008);
                                },
                                [&](Export_Part &part) { add(part, 0x100C); },
                                [&](Export_Part &part) {
                                    add(part, 0x1010);
                                    part.lost(7, 1);
                                    add(part, 0x1014); // 5
                                },
                                [&](Export_Part &part) { add(part, 0x1018); }}), // 6
                ElementsAre("12000", "12ffc", "2000", "12008" + call, "13004", "13008" + call, "3000", "3004",
                            "1000", "12004", "12008", "1200c", "12010", "1014", "1018"));
    EXPECT_THAT(run.shortcomings, ElementsAre("addresses without a recorded real one, left effective: 6"));
}

TEST(champsim_export, has_real_addresses_of_accesses_on_request_alone)
{
    Export_Run run;
    const Sample sample;
    const Fill fill = [&](Export_Part &part) {
        part.header(sample.first, nullptr);
        part.record(record_item(0, 0x1000, with_data(LOAD_WORD, 0x5008, Case::single).record), nullptr);
        part.record(record_item(1, 0x1004, with_data(STORE_WORD, 0x5010, Case::real).record), nullptr);
        part.record(record_item(2, 0x1004, with_data(STORE_WORD, 0x5018, Case::real).record), nullptr);
        part.record(record_item(3, 0x1008, jump(0x48000ff5, 0x1000, 0x13)), nullptr);
        part.record(record_item(4, 0x1000, plain_record(ADD)), nullptr);
    };
    EXPECT_THAT(simulated(run, {fill}), ElementsAre("1000 loads 5008", "1004 stores 5010", "1004 stores 5018",
                                                    "1008 branch taken out 26 6 in 6 26", "1000"));
    EXPECT_THAT(run.shortcomings, IsEmpty());
    run.options.real = true;
    EXPECT_THAT(simulated(run, {fill}), ElementsAre("12000 loads 12008", "12004 stores 5010", "12004 stores 5018",
                                                    "12008 branch taken out 26 6 in 6 26", "13000"));
    EXPECT_THAT(run.shortcomings, ElementsAre("addresses without a recorded real one, left effective: 2"));
}

TEST(champsim_export, makes_addresses_real_to_their_last_bit_and_knows_no_page_before_a_header)
{
    Export_Run run;
    run.options.real = true;
    const Sample sample;
    const Fill fill = [&](Export_Part &part) {
        part.record(record_item(0, 0x804, plain_record(ADD)), nullptr); // in the first page of all
        part.header(sample.first, nullptr);
        part.record(record_item(1, 0x1FFF, plain_record(ADD)), nullptr);
        part.lost(2, 1);
        part.record(record_item(3, 0x808, plain_record(ADD)), nullptr);
    };
    EXPECT_THAT(simulated(run, {fill}), ElementsAre("804", "12fff", "808"));
    EXPECT_THAT(run.shortcomings, ElementsAre("addresses without a recorded real one, left effective: 2"));
}

TEST(champsim_export, every_record_of_a_part_is_on_the_page_that_the_part_before_ended_on)
{
    Export_Run run;
    run.options.real = true;
    const Sample sample;
    const Fill first = [&](Export_Part &part) {
        part.header(sample.first, nullptr);
        part.record(record_item(0, 0x1FF0, plain_record(ADD)), nullptr);
    };
    const Fill second = [&](Export_Part &part) {
        for (const uint64_t address : {0x1FF4, 0x1FF8, 0x1FFC})
            part.record(record_item(1, address, plain_record(ADD)), nullptr);
    };
    EXPECT_THAT(simulated(run, {first, second}), ElementsAre("12ff0", "12ff4", "12ff8", "12ffc"));
}

// ---- callgrind -------------------------------------------------------------------------------------------

namespace
{

const std::string PROFILE_HEAD =
    "# callgrind format\nversion: 1\ncreator: qtrace\n"
    "event: Ir : instructions\nevent: Dr : loads\nevent: Dw : stores\nevent: Twalk : table walks recorded\n"
    "positions: instr line\nevents: Ir Dr Dw Twalk\n\nfl=(1) trace\n";

} // namespace

TEST(callgrind_export, counts_by_address_and_page_over_all_parts)
{
    Export_Run run;
    const Sample sample;
    EXPECT_EQ(run.exported(make_callgrind_exporter, sample.files()),
              PROFILE_HEAD + "fn=page_0\n0x0 0 1 0 0 0\nfn=page_1000\n0x1000 0 1 1 0 1\n0x1004 0 1 0 1 0\n"
                             "0x1008 0 1 0 0 0\nfn=page_3000\n0x3000 0 1 1 0 1\n\ntotals: 5 2 1 2\n");
    const Fill both = [](Export_Part &part) {
        QTRACE_RECORD record = jump(0x48000ff5, 0x3000, 0x13);
        const QTRACE_RECORD load = with_data(LOAD_WORD, 0x5008, Case::single).record;
        record.header.control.fld.data_address_present = record.header.control.fld.data_RPN_present = 1;
        record.header.control.fld.host_xlate_mode_data = load.header.control.fld.host_xlate_mode_data;
        part.record(record_item(0, 0x1FFC, record), nullptr);
        part.record(record_item(1, 0x1FFC, with_data(STORE_WORD, 0x5008, Case::single).record), nullptr);
        part.record(record_item(2, 0x2000, plain_record(ADD)), nullptr);
    };
    EXPECT_EQ(run.exported(make_callgrind_exporter, {{both, both}, {both}}),
              PROFILE_HEAD + "fn=page_1000\n0x1ffc 0 6 0 3 9\nfn=page_2000\n0x2000 0 3 0 0 0\n\ntotals: 9 0 3 9\n");
}

TEST(callgrind_export, counts_by_function_with_the_file_that_names_it)
{
    Export_Run run(SYMBOLS);
    const std::string map = run.folder.path("map");
    EXPECT_EQ(run.exported(make_callgrind_exporter, Sample().files()),
              PROFILE_HEAD + "fn=page_0\n0x0 0 1 0 0 0\nob=" + map +
                  "\nfn=main\n0x1000 0 1 1 0 1\n0x1004 0 1 0 1 0\n" +
                  "ob=trace\nfn=page_1000\n0x1008 0 1 0 0 0\nob=" + map +
                  "\nfn=a,b\n0x3000 0 1 1 0 1\n\ntotals: 5 2 1 2\n");
}

TEST(callgrind_export, keeps_the_same_address_of_several_processes_apart)
{
    Export_Run run;
    Symbol_Options chosen;
    chosen.add("pid=7:" + run.folder.text("map7", "1000 10 T zeta\n"));
    chosen.add("pid=8:" + run.folder.text("map8", "1000 10 T alpha\n2000 10 T alpha\n"));
    const Symbol_Names names(run.messages, chosen);
    run.options.names = &names;
    const Fill fill = [](Export_Part &part) {
        QTRACE_FILE_HDR header{};
        for (const uint8_t pid : std::vector<uint8_t>{8, 9, 7, 8}) {
            header.pid[0] = pid;
            part.record(record_item(0, 0x1000, plain_record(ADD)), &header);
        }
        part.record(record_item(0, 0x1004, plain_record(ADD)), &header);
        part.record(record_item(0, 0x2000, plain_record(ADD)), &header);
    };
    const std::string seven = run.folder.path("map7"), eight = run.folder.path("map8");
    EXPECT_EQ(
        run.exported(make_callgrind_exporter, {{fill}}),
        PROFILE_HEAD + "fn=page_1000\n0x1000 0 1 0 0 0\nob=" + seven + "\nfn=zeta\n0x1000 0 1 0 0 0\nob=" + eight +
            "\nfn=alpha\n0x1000 0 2 0 0 0\n0x1004 0 1 0 0 0\nfn=alpha\n0x2000 0 1 0 0 0\n\ntotals: 6 0 0 0\n");
}

TEST(callgrind_export, counts_no_walk_of_which_nothing_was_recorded)
{
    Export_Run run;
    Item bare = with_data(LOAD_WORD, 0x5008, Case::single);
    set_piece(bare, Side::data, PAGE_NUMBER, false);
    set_piece(bare, Side::data, PAGE_SIZE, false);
    const Fill fill = [&](Export_Part &part) {
        part.record(record_item(0, 0x1000, bare.record), nullptr);
        part.record(record_item(1, 0x1004, with_data(LOAD_WORD, 0x5008, Case::single).record), nullptr);
    };
    EXPECT_EQ(run.exported(make_callgrind_exporter, {{fill}}),
              PROFILE_HEAD + "fn=page_1000\n0x1000 0 1 1 0 0\n0x1004 0 1 1 0 1\n\ntotals: 2 2 0 1\n");
}

TEST(callgrind_export, takes_what_one_file_names_in_two_processes_together)
{
    Export_Run run;
    Symbol_Options chosen;
    const std::string map = run.folder.text("map", "1000 10 T main\n");
    chosen.add("pid=7:" + map);
    chosen.add("pid=8:" + map);
    const Symbol_Names names(run.messages, chosen);
    run.options.names = &names;
    const Fill fill = [](Export_Part &part) {
        QTRACE_FILE_HDR header{};
        for (const uint8_t pid : std::vector<uint8_t>{7, 8, 7}) {
            header.pid[0] = pid;
            part.record(record_item(0, 0x1000, plain_record(ADD)), &header);
        }
    };
    EXPECT_EQ(run.exported(make_callgrind_exporter, {{fill}}),
              PROFILE_HEAD + "ob=" + map + "\nfn=main\n0x1000 0 3 0 0 0\n\ntotals: 3 0 0 0\n");
}

// ---- sqlite ----------------------------------------------------------------------------------------------

namespace
{

// Rows of a query, "1|text|-": values as SQLite shows them, NULL as a hyphen.
std::vector<std::string> rows(const std::string &file, const std::string &query)
{
    sqlite3 *database = nullptr;
    EXPECT_EQ(sqlite3_open_v2(file.c_str(), &database, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    std::vector<std::string> found;
    const auto add = [](void *to, int count, char **values, char **) {
        std::string row;
        for (int i = 0; i < count; i++)
            row += std::string(i == 0 ? "" : "|") + (values[i] != nullptr ? values[i] : "-");
        static_cast<std::vector<std::string> *>(to)->push_back(row);
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(database, query.c_str(), add, &found, nullptr), SQLITE_OK) << query;
    sqlite3_close(database);
    return found;
}

} // namespace

TEST(sqlite_export, has_every_value_of_headers_and_records)
{
    Export_Run run;
    const Sample sample;
    run.exported(make_sqlite_exporter, {sample.files()[0], sample.files()[0]});
    const std::string out = run.folder.path("out");
    EXPECT_THAT(rows(out, "SELECT * FROM meta ORDER BY key"), ElementsAre("producer|qtrace export", "records|10"));
    EXPECT_THAT(rows(out, "SELECT * FROM file"), ElementsAre("0|trace0", "1|trace1"));
    EXPECT_THAT(rows(out, "SELECT * FROM header"),
                ElementsAre("0|0|0|4096|12582924|1|7|-|a \"b\\\x01", "0|1|2|-|-|2|8|-|-",
                            "1|0|0|4096|12582924|1|7|-|a \"b\\\x01", "1|1|2|-|-|2|8|-|-"));
    const auto flags = [&](size_t i) { return static_cast<int64_t>(control_of(sample.records[i].record)); };
    EXPECT_THAT(rows(out, "SELECT * FROM record WHERE file = 0 ORDER BY number"),
                ElementsAre(fmt::format("0|0|4096|{}|1|{}|1|7|-|-|20488|1|-|-", 0xe8640008, flags(0)),
                            fmt::format("0|1|4100|{}|530|{}|1|7|-|-|28688|2|16|8", 0x7c6485aa, flags(1)),
                            fmt::format("0|2|4104|{}|44|{}|2|8|12288|3|-|-|-|-", 0x48000ff5, flags(2)),
                            fmt::format("0|3|12288|{}|1|{}|2|8|-|-|24592|4|-|-", 0x80640010, flags(3)),
                            fmt::format("0|9|-|{}|0|{}|-|-|-|-|-|-|-|-", 0x60000000, flags(4))));
    EXPECT_THAT(rows(out, "SELECT number, next_translation, data_translation FROM record WHERE file = 1"),
                ElementsAre("0|-|1", "1|-|2", "2|3|-", "3|-|4", "9|-|-"));
    EXPECT_THAT(rows(out, "SELECT * FROM translation ORDER BY id"),
                ElementsAre("1|none|radix|18|1|-|-|0|4", "2|none|hpt|18|1|-|1|0|0", "3|none|real|-|-|-|-|0|0",
                            "4|radix|radix|18|1|1|-|3|4"));
    EXPECT_THAT(rows(out, "SELECT * FROM register WHERE file = 1"),
                ElementsAre("1|0|0|r|4|8192|-", "1|0|0|r|31|-4611686018427387903|-", "1|0|0|f|1|1023|-",
                            "1|0|1|x|34|17|34"));
    EXPECT_THAT(rows(out, "SELECT count(*) FROM register"), ElementsAre("8"));
    EXPECT_THAT(rows(out, "SELECT * FROM record_symbol"), IsEmpty());
    EXPECT_THAT(rows(out, "SELECT name FROM sqlite_master WHERE type = 'index' AND sql IS NOT NULL"), IsEmpty());
}

TEST(sqlite_export, has_an_sdr1_where_a_header_has_one)
{
    Export_Run run;
    QTRACE_Item header = header_item(0, 0, good_trace()[FIRST_HEADER]);
    header.header.control.sdr1_is_present = 1;
    put(header.header.sdr1, 77);
    run.exported(make_sqlite_exporter, {{[&](Export_Part &part) { part.header(header, nullptr); }}});
    EXPECT_THAT(rows(run.folder.path("out"), "SELECT sdr1, comment FROM header"), ElementsAre("77|-"));
}

TEST(sqlite_export, shows_kinds_by_name_and_has_indexes_on_request)
{
    Export_Run run;
    run.options.index = true;
    run.exported(make_sqlite_exporter, Sample().files());
    const std::string out = run.folder.path("out");
    EXPECT_THAT(rows(out, "SELECT bit, name FROM kind ORDER BY bit"),
                ElementsAre("1|load", "2|store", "4|branch", "8|taken", "16|string", "32|call", "64|return",
                            "128|system_call", "256|cache", "512|error"));
    EXPECT_THAT(rows(out, "SELECT kinds, address, next, data FROM record_hex"),
                ElementsAre("load|0x0000000000001000|-|0x0000000000005008",
                            "store string error|0x0000000000001004|-|0x0000000000007010",
                            "branch taken call|0x0000000000001008|0x0000000000003000|-",
                            "load|0x0000000000003000|-|0x0000000000006010", "-|0x0000000000000000|-|-"));
    EXPECT_THAT(rows(out, "SELECT name FROM sqlite_master WHERE type = 'index' AND sql IS NOT NULL ORDER BY name"),
                ElementsAre("record_by_address", "record_by_data", "register_by_record"));
}

TEST(sqlite_export, has_the_symbols_that_occur_once)
{
    Export_Run run(SYMBOLS);
    run.exported(make_sqlite_exporter, Sample().files());
    const std::string out = run.folder.path("out"), map = run.folder.path("map");
    EXPECT_THAT(rows(out, "SELECT * FROM symbol ORDER BY id"),
                ElementsAre("1|main|4096|4100|" + map, "2|say \"c\"|20480|20495|" + map, "3|a,b|12288|12303|" + map,
                            "4|plain|24576|24831|" + map));
    EXPECT_THAT(rows(out, "SELECT * FROM record_symbol ORDER BY number"),
                ElementsAre("0|0|1|-|2", "0|1|1|-|-", "0|2|-|3|-", "0|3|3|-|4", "0|9|-|-|-"));
}

// ---- ctf -------------------------------------------------------------------------------------------------

namespace
{

template <class Number> std::string raw(Number value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}
std::string byte(unsigned value)
{
    return {static_cast<char>(value)};
}
std::string name(const std::string &text)
{
    return text + '\0';
}
std::string partition(uint64_t lpid, uint32_t pid)
{
    return byte(1) + raw(lpid) + raw(pid);
}
std::string real_place(uint64_t address, const std::string &modes, uint64_t real)
{
    return byte(1) + raw(address) + name(modes) + byte(1) + raw(real);
}
const std::string NO_PARTITION = byte(0) + raw(uint64_t{0}) + raw(uint32_t{0});

std::string event(unsigned id, uint64_t record, const std::string &fields)
{
    return byte(id) + raw(record) + fields;
}

// The UUID of the packet is left out.
std::string packet(uint64_t number, uint64_t first, uint64_t last, uint64_t sequence, uint64_t lost,
                   const std::string &events)
{
    const uint64_t bits = (84 + events.size()) * 8;
    return raw(uint32_t{0xC1FC1FC1}) + raw(uint32_t{0}) + raw(number) + raw(first) + raw(last) + raw(bits) +
           raw(bits) + raw(sequence) + raw(lost) + raw(static_cast<uint32_t>(number)) + events;
}

// Takes the UUID out of each packet; they must be the same.
std::string without_uuids(const std::string &stream, std::string &uuid)
{
    std::string rest;
    for (size_t at = 0; at < stream.size();) {
        const std::string own = stream.substr(at + 4, 16);
        EXPECT_TRUE(uuid.empty() || uuid == own);
        uuid = own;
        const size_t size = word_at(stream, at + 56) / 8;
        rest += stream.substr(at, 4) + stream.substr(at + 20, size - 20);
        at += size;
    }
    return rest;
}

// Exports to the folder `ctf` of the run.
void export_ctf(Export_Run &run, const Files &files)
{
    Output_Folder folder(run.folder.path("ctf"), true);
    const std::unique_ptr<Exporter> exporter = make_ctf_exporter(folder, run.options);
    export_files(*exporter, files);
    folder.finish();
}

std::string header_event(const Sample &)
{
    return event(1, 0, partition(1, 7) + real_place(0x1000, "none/radix", 0x12000) + name("a \"b\\\\x01"));
}

} // namespace

TEST(ctf_export, has_every_value_of_headers_and_records_in_packets)
{
    Export_Run run;
    const Sample sample;
    export_ctf(run, sample.files());
    const auto flags = [&](size_t i) { return raw(control_of(sample.records[i].record)); };
    const std::string none = byte(0);
    const std::string no_registers = raw(uint16_t{0});
    const std::string first =
        header_event(sample) +
        event(0, 0,
              partition(1, 7) + byte(1) + raw(uint64_t{0x1000}) + raw(0xe8640008) + name("load") + flags(0) + none +
                  real_place(0x5008, "none/radix", 0x12008) + none + none + raw(uint16_t{3}) + name("r4") +
                  byte(1) + raw(uint64_t{0x2000}) + name("r31") + byte(1) + raw(uint64_t{0xC000000000000001}) +
                  name("f1") + byte(1) + raw(uint64_t{0x3ff}) + raw(uint16_t{1}) + name("x34") + byte(2) +
                  raw(uint64_t{0x11}) + raw(uint64_t{0x22})) +
        event(0, 1,
              partition(1, 7) + byte(1) + raw(uint64_t{0x1004}) + raw(0x7c6485aa) + name("store string error") +
                  flags(1) + none + real_place(0x7010, "none/hpt", 0x12010) + byte(1) + raw(16) + byte(1) + raw(8) +
                  no_registers + no_registers) +
        event(1, 2, partition(2, 8) + none + name("")) +
        event(0, 2,
              partition(2, 8) + byte(1) + raw(uint64_t{0x1008}) + raw(0x48000ff5) + name("branch taken call") +
                  flags(2) + byte(1) + raw(uint64_t{0x3000}) + name("none/real") + none + none + none + none +
                  no_registers + no_registers) +
        event(0, 3,
              partition(2, 8) + byte(1) + raw(uint64_t{0x3000}) + raw(0x80640010) + name("load") + flags(3) + none +
                  real_place(0x6010, "radix/radix", 0x12010) + none + none + no_registers + no_registers);
    const std::string last = event(0, 9,
                                   NO_PARTITION + byte(0) + raw(uint64_t{0}) + raw(0x60000000) + name("") +
                                       flags(4) + none + none + none + none + no_registers + no_registers);
    std::string uuid;
    EXPECT_EQ(without_uuids(run.folder.contents("ctf/stream0"), uuid),
              packet(0, 0, 3, 0, 0, first) + packet(0, 4, 8, 1, 5, "") + packet(0, 9, 9, 2, 5, last));
    const std::string metadata = run.folder.contents("ctf/metadata");
    EXPECT_THAT(metadata, Not(HasSubstr("string symbol;")));
    std::string text;
    for (size_t i = 0; i < 16; i++)
        text +=
            fmt::format("{:02x}{}", static_cast<uint8_t>(uuid[i]), i == 3 || i == 5 || i == 7 || i == 9 ? "-" : "");
    EXPECT_THAT(metadata, HasSubstr("uuid = \"" + text + "\";"));
}

TEST(ctf_export, has_a_stream_for_each_file_with_a_packet_at_least)
{
    Export_Run run;
    run.options.files = {"a \"b\\\x01", "trace1"};
    const Fill lost = [](Export_Part &part) { part.lost(0, 7); };
    const Fill late = [](Export_Part &part) { part.lost(20, 1); };
    export_ctf(run, {{lost, late}, {}});
    std::string uuid;
    EXPECT_EQ(without_uuids(run.folder.contents("ctf/stream0"), uuid),
              packet(0, 0, 0, 0, 0, "") + packet(0, 0, 6, 1, 7, "") + packet(0, 20, 20, 2, 8, ""));
    EXPECT_EQ(without_uuids(run.folder.contents("ctf/stream1"), uuid), packet(1, 0, 0, 0, 0, ""));
    const std::string metadata = run.folder.contents("ctf/metadata");
    EXPECT_THAT(metadata, HasSubstr("    stream0 = \"a \\\"b\\\\\\\\x01\";\n    stream1 = \"trace1\";\n};\n"));
}

TEST(ctf_export, has_names_of_addresses_where_there_are_symbols)
{
    Export_Run run(SYMBOLS);
    const Sample sample;
    export_ctf(run, {{[&](Export_Part &part) {
                   part.record(sample.records[2], &sample.second.header);
                   part.record(sample.records[3], &sample.second.header);
                   part.record(sample.records[4], nullptr);
               }}});
    const std::string stream = run.folder.contents("ctf/stream0");
    EXPECT_THAT(stream, HasSubstr(raw(uint16_t{0}) + raw(uint16_t{0}) + name("") + name("a,b+0x0") + name("") +
                                  event(0, 3, "")));
    EXPECT_THAT(stream,
                HasSubstr(raw(uint16_t{0}) + name("a,b+0x0") + name("") + name("plain+0x10") + event(0, 9, "")));
    EXPECT_TRUE(stream.ends_with(raw(uint16_t{0}) + name("") + name("") + name("")));
    EXPECT_THAT(run.folder.contents("ctf/metadata"), HasSubstr("string data_symbol;"));
}

// By the form of random UUIDs; every other bit is sometimes set and sometimes not.
TEST(ctf_export, has_another_random_uuid_each_time)
{
    std::array<uint8_t, 16> once_set{}, always_set;
    always_set.fill(0xFF);
    for (int i = 0; i < 40; i++) {
        Export_Run run;
        export_ctf(run, {{}});
        std::string uuid;
        without_uuids(run.folder.contents("ctf/stream0"), uuid);
        for (size_t k = 0; k < 16; k++) {
            once_set[k] |= static_cast<uint8_t>(uuid[k]);
            always_set[k] &= static_cast<uint8_t>(uuid[k]);
        }
    }
    for (size_t k = 0; k < 16; k++) {
        EXPECT_EQ(once_set[k], k == 6 ? 0x4F : k == 8 ? 0xBF : 0xFF) << k;
        EXPECT_EQ(always_set[k], k == 6 ? 0x40 : k == 8 ? 0x80 : 0) << k;
    }
}

TEST(ctf_export, begins_another_packet_when_one_is_large)
{
    Export_Run run;
    constexpr uint64_t EVENTS = 20000;
    export_ctf(run, {{[](Export_Part &part) {
                   for (uint64_t i = 0; i < EVENTS; i++)
                       part.record(record_item(i, 0x1000, plain_record(ADD)), nullptr);
               }}});
    const std::string stream = run.folder.contents("ctf/stream0");
    uint64_t first = 0, packets = 0;
    for (size_t at = 0; at < stream.size(); at += word_at(stream, at + 56) / 8, packets++) {
        EXPECT_EQ(word_at(stream, at + 32), first);
        first = word_at(stream, at + 40) + 1;
        EXPECT_EQ(word_at(stream, at + 64), packets);
        EXPECT_LT(word_at(stream, at + 56) / 8, 300000u);
    }
    EXPECT_EQ(first, EVENTS);
    EXPECT_GT(packets, 3u);
    EXPECT_LT(packets, 8u); // of a million bytes
}

// ---- Files and folders -----------------------------------------------------------------------------------

namespace
{

std::string refusal_of_folder(const std::string &name, bool replace)
{
    try {
        const Output_Folder folder(name, replace);
        return "";
    } catch (const std::exception &error) {
        return error.what();
    }
}

mode_t permissions_of(const std::string &name)
{
    struct stat status {
    };
    EXPECT_EQ(stat(name.c_str(), &status), 0) << name;
    return status.st_mode & 07777;
}

// The lowest descriptor that is free.
int free_descriptor()
{
    const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(descriptor);
    return descriptor;
}

bool interrupts_are_caught(int signal)
{
    struct sigaction action {
    };
    sigaction(signal, nullptr, &action);
    return action.sa_handler != SIG_DFL;
}

} // namespace

TEST(output_place, has_the_permissions_that_the_user_gives_new_files)
{
    const mode_t before = umask(0);
    const Export_Run run;
    {
        Output_File file(run.folder.path("file"), false);
        file.finish();
        Output_Folder folder(run.folder.path("folder"), false);
        folder.metadata()->close();
        folder.finish();
    }
    umask(before);
    EXPECT_EQ(permissions_of(run.folder.path("file")), 0666u);
    EXPECT_EQ(permissions_of(run.folder.path("folder")), 0777u);
    EXPECT_EQ(permissions_of(run.folder.path("folder/metadata")), 0666u);
}

TEST(output_place, leaves_no_descriptor_open_and_closes_no_other)
{
    const Folder home;
    const int first = free_descriptor();
    for (const bool finished : {false, true}) {
        Output_File file(home.path("file"), true);
        if (finished)
            file.finish();
    }
    for (const bool finished : {false, true}) {
        const Output_Folder folder(home.path("folder"), true);
        const std::unique_ptr<Folder_File> stream = folder.stream(0);
        if (finished)
            stream->close();
    }
    EXPECT_EQ(free_descriptor(), first);
}

TEST(output_place, is_removed_on_an_interrupt_only_while_it_is_unfinished)
{
    const Folder home;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        EXPECT_FALSE(interrupts_are_caught(signal));
        {
            const Output_File file(home.path("file"), true);
            EXPECT_TRUE(interrupts_are_caught(signal));
        }
        EXPECT_FALSE(interrupts_are_caught(signal));
        EXPECT_THROW(Output_File(home.path("no/such/folder"), true), std::system_error);
        EXPECT_FALSE(interrupts_are_caught(signal));
        {
            const Output_Folder folder(home.path("folder"), true);
            EXPECT_TRUE(interrupts_are_caught(signal));
        }
        EXPECT_THROW(Output_Folder(home.path("no/such/folder"), true), std::system_error);
        EXPECT_FALSE(interrupts_are_caught(signal));
    }
}

TEST(output_place, is_removed_on_an_interrupt_with_any_number_of_files)
{
    const Folder home;
    const pid_t child = fork();
    if (child == 0) {
        const Output_Folder folder(home.path("folder"), true);
        folder.metadata()->close();
        for (size_t i = 0; i < 103; i++)
            folder.stream(i)->close();
        std::raise(SIGINT);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
    EXPECT_TRUE(std::filesystem::is_empty(home.path("")));
}

TEST(output_place, is_not_replaced_when_the_name_came_into_being_meanwhile)
{
    const Folder home;
    {
        Output_File file(home.path("file"), false);
        home.text("file", "somebody else's");
        EXPECT_THROW(file.finish(), std::system_error);
        Output_Folder folder(home.path("folder"), false);
        home.text("folder", "somebody else's");
        EXPECT_THROW(folder.finish(), std::system_error);
    }
    EXPECT_EQ(home.contents("file"), "somebody else's");
    EXPECT_EQ(home.contents("folder"), "somebody else's");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(home.path("")), {}), 2);
}

TEST(output_place, replaces_a_folder_of_an_export_alone)
{
    const auto refusal = [](const std::vector<std::string> &files) {
        const Folder home;
        std::filesystem::create_directory(home.path("old"));
        for (const std::string &name : files)
            home.text("old/" + name, "old");
        EXPECT_THAT(refusal_of_folder(home.path("old"), false), HasSubstr("exists already"));
        const std::string text = refusal_of_folder(home.path("old"), true);
        EXPECT_TRUE(text.empty() ||
                    text == home.path("old") + " has other files than an export; --force does not replace it")
            << text;
        return !text.empty();
    };
    EXPECT_FALSE(refusal({}));
    EXPECT_FALSE(refusal({"metadata", "stream0", "stream9", "stream10"}));
    for (const char *other : {"stream", "stream1x", "streamx", "stream:", "metadata2", "tream0"})
        EXPECT_TRUE(refusal({"metadata", other})) << other;
    const Folder home;
    std::filesystem::create_directories(home.path("old/stream0"));
    EXPECT_THAT(refusal_of_folder(home.path("old"), true), HasSubstr("has other files"));
    home.text("file", "old");
    std::filesystem::create_directory_symlink(home.path("old"), home.path("link"));
    EXPECT_EQ(refusal_of_folder(home.path("link"), true), ""); // the link is replaced, not what it leads to
    EXPECT_EQ(refusal_of_folder(home.path("file"), true), "");
}

TEST(output_place, has_a_name_without_slashes_at_the_end)
{
    const Folder home;
    for (const char *slashes : {"", "/", "//"}) {
        Output_Folder folder(home.path("out") + slashes, true);
        EXPECT_EQ(folder.name(), home.path("out"));
        folder.finish();
    }
    for (const char *root : {"/", "//"})
        EXPECT_THAT(refusal_of_folder(root, false), testing::StartsWith("/ exists already"));
}

TEST(output_place, is_complete_or_absent)
{
    const Folder home;
    {
        Output_File file(home.path("file"), false);
        file.out().put("text");
    }
    EXPECT_TRUE(std::filesystem::is_empty(home.path("")));
    {
        Output_File file(home.path("file"), false);
        file.out().put("text");
        file.finish();
    }
    EXPECT_EQ(home.contents("file"), "text");
    {
        const Output_Folder folder(home.path("folder"), false);
        folder.stream(12)->close();
    }
    EXPECT_FALSE(std::filesystem::exists(home.path("folder")));
}

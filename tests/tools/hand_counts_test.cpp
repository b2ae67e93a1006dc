// Whole outputs of `stats`, `info`, `recover` and `check --rules` against what was counted by hand on one trace.
#include "planted_trace.h"
#include "tool_run.h"
#include "trace_counts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <termios.h>
#include <unistd.h>

using namespace planted;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

namespace
{

Item plain(uint32_t word)
{
    return {false, {}, "", plain_record(word)};
}

Item with_data(uint32_t word, uint64_t address, Case translation)
{
    Item item = plain(word);
    item.record.header.control.fld.data_address_present = 1;
    std::memcpy(item.record.data_ea, &address, sizeof(address));
    set_case(item, Side::data, translation);
    return item;
}

Item string_of(uint32_t word, uint16_t length)
{
    Item item = plain(word);
    item.record.header.control.fld.length_present = 1;
    item.record.length = length;
    return item;
}

Item jump(uint32_t word, uint64_t next, Case translation)
{
    Item item = plain(word);
    auto &flags = item.record.header.control.fld;
    flags.iar_change_present = flags.node_present = flags.next_instruction_EA_present = 1;
    std::memcpy(item.record.next_instruction_ea, &next, sizeof(next));
    set_case(item, Side::next, translation);
    return item;
}

// A register more of each class than of the one before it, where a record has room for them.
Item with_registers(uint32_t word)
{
    Item item = plain(word);
    item.record.header.control.fld.register_trace_present = 1;
    QTRACE_REGISTERS &registers = item.record.regs;
    registers.num_gprs_in = 1;
    registers.num_fprs_in = 2;
    registers.num_vmxrs_in = 3;
    registers.num_vsxrs_in = 2;
    registers.num_sprs_in = 4;
    registers.num_gprs_out = 3;
    registers.num_fprs_out = 1;
    registers.num_vmxrs_out = 2;
    registers.num_vsxrs_out = 3;
    registers.num_sprs_out = 4;
    return item;
}

// good_trace() with what it lacks: 11 + 14 records.
Trace counted_trace()
{
    Trace trace = good_trace(); // ends at 0x4004
    const Trace more = {
        with_data(0x7c001fec, 0x8000, Case::real),   // 0x4008 dcbz
        with_data(0x90640000, 0x7008, Case::hpt),    // 0x400c stw
        with_data(0x90640000, 0x7010, Case::nested), // 0x4010 stw
        jump(0x60000000, 0x900, Case::single),       // 0x4014 an interrupt
        with_registers(0x60000000),                  // 0x900
        string_of(0x7c6485aa, 5),                    // 0x904 stswi
        plain(0x7c001fec),                           // 0x908 dcbz, its address not known
        plain(0x7c001fec),                           // 0x90c
        jump(0x4082fff0, 0x900, Case::single),       // 0x910 bc back, taken
        plain(0x60000000),                           // 0x900
        string_of(0x7c6485aa, 7),                    // 0x904
        jump(0x4082fff8, 0x900, Case::single),       // 0x908 bc back, taken
        plain(0x60000000),                           // 0x900
        plain(0x41820010),                           // 0x904 bc, the last record
    };
    trace.insert(trace.end(), more.begin(), more.end());
    return trace;
}

std::string without_blanks_at_ends(const std::string &text)
{
    std::string lines;
    std::istringstream from(text);
    for (std::string line; std::getline(from, line);)
        lines += line.substr(0, line.find_last_not_of(' ') + 1) + '\n';
    return lines;
}

// Of a trace whose file is that long.
std::string with_size(std::string text, uintmax_t size)
{
    for (const auto &[mark, value] : {std::pair{"<SIZE>", fmt::format("{}", size)},
                                      {"<EACH>", fmt::format("{:.2f}", static_cast<double>(size) / 25)}})
        for (size_t at; (at = text.find(mark)) != std::string::npos;)
            text.replace(at, std::strlen(mark), value);
    return text;
}

// Runs in the folder of the trace, so that names are short.
struct hand_counts : testing::Test {
    hand_counts()
    {
        folder.write("trace0", counted_trace());
        std::filesystem::current_path(folder.path(""));
        size = std::filesystem::file_size("trace0");
    }
    ~hand_counts() override { std::filesystem::current_path(before); }

    std::filesystem::path before = std::filesystem::current_path();
    Folder folder;
    uintmax_t size;
};

} // namespace

TEST_F(hand_counts, stats_text_has_every_figure)
{
    EXPECT_EQ(without_blanks_at_ends(qtrace({"stats", "--top", "2", "trace0"}).out),
              with_size(R"(                                                      trace0
instructions                                              25
  file headers                                             2
  partition headers                                        1
branches                                                   6
  conditional, taken                                       3
  conditional, not taken                                   1
  unconditional                                            1
  not known (last before a pause or the end)               1
  exceptions and interrupts                                1
memory
  loads                                                    3
  stores                                                   5
  cache instructions                                       3
  string instructions                                      3
  bytes moved by them                                     28
  data addresses                                           6
  of them suspect                                          1
registers in and out
  registers gpr_in                                         3
  registers fpr_in                                         2
  registers spr_in                                         4
  registers vmxr_in                                        3
  registers vsxr_in                                        2
  registers gpr_out                                        3
  registers fpr_out                                        1
  registers spr_out                                        4
  registers vmxr_out                                       2
  registers vsxr_out                                       4
translation (guest/host mode)
  fetch none/radix                                        17
  fetch none/hpt                                           2
  fetch none/real                                          6
  data radix/radix                                         2
  data none/radix                                          1
  data none/hpt                                            2
  data none/real                                           1
pages touched
  fetched pages of 64K                                     1
  data pages of 64K                                        2
bytes a record
  bytes of instruction                                  4.00
  bytes of flags                                        8.00
  bytes of node                                         0.48
  bytes of processor                                    0.08
  bytes of next-address                                 1.60
  bytes of next-translation                             1.28
  bytes of next-walk                                    2.96
  bytes of data-address                                 1.92
  bytes of data-translation                             1.64
  bytes of data-walk                                   12.64
  bytes of string                                       0.24
  bytes of error                                        0.04
  bytes of registers                                   14.72
  bytes in the file                                    <EACH>
partitions (instructions)
  lpid 0x1      pid 7                    21   84.0 %
  lpid 0x2      pid 8                     4   16.0 %
hot pages, fetched (real address, size, instructions)
  0000000000010000  64K                19
  on pages entered in sequence, which records do not name: 6
hot pages, data (real address, size, accesses)
  0000000000010000  64K                 3
  0000000000010000  64K                 2  in partition 1
hot branch targets (address, times)
  0000000000000900                      2
  0000000000002000                      1
)",
                        size));
}

TEST_F(hand_counts, stats_tells_of_fetches_from_pages_that_are_not_named_only_where_there_are_some)
{
    const std::string line = "  on pages entered in sequence, which records do not name: ";
    EXPECT_THAT(qtrace({"stats", "--pc", "1000", "trace0"}).out, Not(HasSubstr(line)));
    folder.write("one0", {good_trace()[SECOND_HEADER], good_trace()[RESUMED]}); // in real mode
    EXPECT_THAT(qtrace({"stats", "one0"}).out, HasSubstr(line + "1\n"));
}

TEST_F(hand_counts, info_text_has_every_figure)
{
    EXPECT_EQ(qtrace({"info", "trace0"}).out, with_size(R"(trace0
  format       version 1, blocks compressed with zstd
  records      25
  headers      3: 2 full, 1 for partition changes
  gaps         1 (tracing was paused and resumed that often)
  size         <SIZE> (<SIZE> bytes) in 1 block, <EACH> bytes a record
  ends         cleanly
  header 0    before record 0: instruction at 0000000000001000 (none/radix), ptcr 0xc0000c, lpid 0x1, pid 7
              simulator version 3, 64-bit, little-endian, 1.0 GiB of memory
              host pages: 4K 64K; guest pages: none
  header 2    before record 9: instruction at 0000000000004000 (none/real), ptcr 0xc0000c, lpid 0x1, pid 7
              simulator version 3, 64-bit, little-endian, 1.0 GiB of memory
              host pages: 4K 64K; guest pages: none
)",
                                                        size));
}

TEST_F(hand_counts, stats_json_has_every_figure)
{
    json expected = json::parse(R"({
        "file": "trace0", "instructions": 25, "full_headers": 2, "partition_headers": 1,
        "branches": 6, "taken": 3, "not_taken": 1, "unconditional": 1, "undecided": 1, "other_jumps": 1,
        "loads": 3, "stores": 5, "cache": 3, "strings": 3, "string_bytes": 28, "data_addresses": 6, "data_errors": 1,
        "gpr_in": 3, "fpr_in": 2, "spr_in": 4, "vmxr_in": 3, "vsxr_in": 2,
        "gpr_out": 3, "fpr_out": 1, "spr_out": 4, "vmxr_out": 2, "vsxr_out": 4,
        "fetch_none/radix": 17, "fetch_none/hpt": 2, "fetch_none/real": 6,
        "data_radix/radix": 2, "data_none/radix": 1, "data_none/hpt": 2, "data_none/real": 1,
        "fetch_pages_64K": 1, "data_pages_64K": 2,
        "bytes_instruction": 4, "bytes_flags": 8, "bytes_node": 0.48, "bytes_processor": 0.08,
        "bytes_next-address": 1.6, "bytes_next-translation": 1.28, "bytes_next-walk": 2.96,
        "bytes_data-address": 1.92, "bytes_data-translation": 1.64, "bytes_data-walk": 12.64,
        "bytes_string": 0.24, "bytes_error": 0.04, "bytes_registers": 14.72,
        "partitions": [{"lpid": "0x1", "pid": 7, "instructions": 21}, {"lpid": "0x2", "pid": 8, "instructions": 4}],
        "total_bytes": {"instruction": 100, "flags": 200, "node": 12, "processor": 2, "next-address": 40,
                        "next-translation": 32, "next-walk": 74, "data-address": 48, "data-translation": 41,
                        "data-walk": 316, "string": 6, "error": 1, "registers": 368},
        "unnamed_fetches": 6,
        "hot_fetch_pages": [{"address": "0x10000", "size": "64K", "times": 19}],
        "hot_data_pages": [{"address": "0x10000", "size": "64K", "times": 3},
                           {"address": "0x10000", "size": "64K", "times": 2, "lpid": "0x1"}],
        "hot_targets": [{"address": "0x900", "times": 2}, {"address": "0x2000", "times": 1},
                        {"address": "0x3000", "times": 1}],
        "target_shortfall": 0})");
    const auto counted = [&](const std::vector<std::string> &words) {
        json counts = json::parse(qtrace(words).out);
        EXPECT_EQ(counts["total_bytes"]["in_file"], size);
        EXPECT_NEAR(counts["bytes_in_file"].get<double>(), static_cast<double>(size) / 25, 0.0001);
        counts["total_bytes"].erase("in_file");
        counts.erase("bytes_in_file");
        return counts;
    };
    const json all = counted({"stats", "--json", "trace0"});
    EXPECT_EQ(all, expected) << json::diff(all, expected);
    // The same records when every process is chosen; headers are not counted then.
    expected["full_headers"] = expected["partition_headers"] = 0;
    const json chosen = counted({"stats", "--json", "--pid", "7,8", "trace0"});
    EXPECT_EQ(chosen, expected) << json::diff(chosen, expected);
}

TEST_F(hand_counts, lists_have_ten_rows_when_no_number_is_given)
{
    Trace trace = {good_trace()[FIRST_HEADER]};
    for (uint64_t i = 1; i <= 12; i++)
        trace.push_back(jump(0x48000010, i * 0x1000, Case::single));
    folder.write("jumps0", trace);
    EXPECT_EQ(json::parse(qtrace({"stats", "--json", "jumps0"}).out)["hot_targets"].size(), 10u);
    trace.clear();
    for (uint64_t i = 1; i <= 12; i++)
        trace.push_back(good_trace()[FIRST_HEADER]);
    folder.write("headers0", trace);
    EXPECT_THAT(qtrace({"info", "headers0"}).out,
                testing::EndsWith("  ... and 2 more full headers (--headers N lists N)\n"));
}

TEST_F(hand_counts, stats_lists_as_many_places_as_asked_for_with_the_most_frequent_first)
{
    const json one = json::parse(qtrace({"stats", "--json", "--top", "1", "trace0"}).out);
    EXPECT_EQ(one["hot_targets"], json::parse(R"([{"address": "0x900", "times": 2}])"));
    EXPECT_EQ(one["hot_data_pages"], json::parse(R"([{"address": "0x10000", "size": "64K", "times": 3}])"));
    const json none = json::parse(qtrace({"stats", "--json", "--top", "0", "trace0"}).out);
    EXPECT_EQ(none["hot_targets"], json::array());
    EXPECT_EQ(none["hot_fetch_pages"], json::array());
}

// Every pair of modes that flags can say, in the order of their numbers.
TEST_F(hand_counts, stats_names_each_pair_of_translation_modes)
{
    const char *const words[] = {"radix", "hpt", "real", "none"};
    for (unsigned guest = 0; guest < 4; guest++)
        for (unsigned host = 0; host < 4; host++) {
            Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], good_trace()[LOAD]};
            set_modes(trace[0], Side::header, guest, host);
            set_modes(trace[2], Side::data, guest, host);
            folder.write("modes0", trace);
            const json counts = json::parse(qtrace({"stats", "--json", "modes0"}).out);
            const std::string pair = std::string(words[guest]) + "/" + words[host];
            EXPECT_EQ(counts.value("fetch_" + pair, 0), 2) << pair;
            EXPECT_EQ(counts.value("data_" + pair, 0), 1) << pair;
        }
}

TEST_F(hand_counts, page_sizes_have_a_unit_from_1K_to_512T)
{
    const qtrace_tool::Page_Sizes sizes({9, 10, 19, 20, 29, 30, 39, 40, 49, 50});
    const char *const names[] = {"code 0", "1K", "512K", "1M",     "512M",   "1G",
                                 "512G",   "1T", "512T", "code 9", "code 10"};
    for (uint8_t code = 0; code < std::size(names); code++)
        EXPECT_EQ(sizes.name(code), names[code]);
}

TEST_F(hand_counts, page_sizes_beyond_512T_and_codes_beyond_those_of_the_list_have_no_unit)
{
    const qtrace_tool::Page_Sizes large({50, 51, 60, 255});
    for (uint8_t code = 0; code < 4; code++)
        EXPECT_EQ(large.name(code), "code " + std::to_string(code));
    std::vector<uint8_t> bits(200, 12);
    bits.resize(2);
    const qtrace_tool::Page_Sizes two(std::move(bits));
    EXPECT_EQ(two.name(1), "4K");
    for (const uint8_t code : {uint8_t{2}, uint8_t{3}, uint8_t{150}})
        EXPECT_EQ(two.name(code), "code " + std::to_string(code));
}

TEST_F(hand_counts, info_json_has_every_figure)
{
    const std::string comment =
        "KelvoVer:3,64bitMode:True,LEMode:True,MemUsed:1073741824,HostPagesUsed:4K 64K ,GuestPagesUsed:";
    json expected = json::parse(R"({
        "file": "trace0", "format_version": 1, "compression": "zstd", "records": 25, "headers": 3, "full_headers": 2,
        "partition_changes": 1, "gaps": 1, "blocks": 1, "clean_end": true, "damaged_places": 0, "left_out": 0,
        "open_end": false,
        "header_list": [
            {"header": 0, "before_record": 0, "full": true, "lpid": "0x1", "pid": 7, "address": "0x1000",
             "ptcr": "0xc0000c", "sdr1": "0x0"},
            {"header": 1, "before_record": 5, "full": false, "lpid": "0x2", "pid": 8},
            {"header": 2, "before_record": 9, "full": true, "lpid": "0x1", "pid": 7, "address": "0x4000",
             "ptcr": "0xc0000c", "sdr1": "0x0"}]})");
    expected["header_list"][0]["comment"] = expected["header_list"][2]["comment"] = comment;
    expected["size"] = size;
    json told = json::parse(qtrace({"info", "--json", "trace0"}).out);
    EXPECT_NEAR(told["bytes_per_record"].get<double>(), static_cast<double>(size) / 25, 0.001);
    told.erase("bytes_per_record");
    EXPECT_EQ(told, expected) << json::diff(told, expected);
}

TEST_F(hand_counts, info_tells_sizes_in_the_unit_that_fits)
{
    const std::pair<const char *, const char *> sizes[] = {
        {"0", "0 bytes"},          {"1023", "1023 bytes"},       {"1024", "1.0 KiB"},
        {"1536", "1.5 KiB"},       {"1048576", "1.0 MiB"},       {"1073741823", "1024.0 MiB"},
        {"1073741824", "1.0 GiB"}, {"1099511627776", "1.0 TiB"}, {"1125899906842624", "1024.0 TiB"},
    };
    for (const auto &[memory, words] : sizes) {
        Trace trace = good_trace();
        for (const Place place : {FIRST_HEADER, SECOND_HEADER})
            trace[place].comment.replace(trace[place].comment.find("1073741824"), 10, memory);
        folder.write("memory0", trace);
        EXPECT_THAT(qtrace({"info", "memory0"}).out, HasSubstr(std::string("-endian, ") + words + " of memory\n"));
    }
}

TEST_F(hand_counts, info_lists_as_many_headers_as_asked_for)
{
    Trace trace = good_trace();
    std::memset(trace[SECOND_HEADER].header.sdr1, 0, 8);
    trace[SECOND_HEADER].header.sdr1[0] = 0x40;
    trace[SECOND_HEADER].header.control.sdr1_is_present = 1;
    trace[SECOND_HEADER].comment =
        "KelvoVer:12,64bitMode:False,LEMode:False,MemUsed:4096,HostPagesUsed:,GuestPagesUsed:2M ";
    folder.write("two0", trace);
    const std::string all = qtrace({"info", "two0"}).out;
    EXPECT_THAT(all, HasSubstr("  header 2    before record 9: instruction at 0000000000004000 (none/real), ptcr "
                               "0xc0000c, lpid 0x1, pid 7, sdr1 0x40\n"
                               "              simulator version 12, 32-bit, big-endian, 4.0 KiB of memory\n"
                               "              host pages: none; guest pages: 2M\n"));
    EXPECT_THAT(all, Not(HasSubstr("more full headers")));
    EXPECT_THAT(qtrace({"info", "--headers", "2", "two0"}).out, all);
    const std::string one = qtrace({"info", "--headers", "1", "two0"}).out;
    EXPECT_THAT(one, HasSubstr("  header 0 "));
    EXPECT_THAT(one, Not(HasSubstr("  header 2 ")));
    EXPECT_THAT(one, testing::EndsWith("  ... and 1 more full headers (--headers N lists N)\n"));
    EXPECT_THAT(qtrace({"info", "--headers", "0", "two0"}).out,
                testing::EndsWith("  ... and 2 more full headers (--headers N lists N)\n"));
}

// ---- recover -------------------------------------------------------------------------------------------

namespace
{

// Offsets at which the marker of a block stands.
std::vector<size_t> markers(const std::string &bytes)
{
    std::vector<size_t> offsets;
    for (size_t at = 0; (at = bytes.find("\x8BQB\n", at)) != std::string::npos; at++)
        offsets.push_back(at);
    return offsets;
}

uint32_t number_at(const std::string &bytes, size_t offset)
{
    uint32_t value;
    std::memcpy(&value, &bytes.at(offset), sizeof(value));
    return value;
}

// Registers that no prediction meets, so that a block holds some thousand records.
Trace long_trace(size_t records)
{
    Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD]};
    uint64_t noise = 1;
    for (size_t i = 1; i < records; i++) {
        Item item = plain(0x7c000214);
        item.record.header.control.fld.register_trace_present = 1;
        item.record.regs.num_gprs_out = 1;
        noise = noise * 6364136223846793005u + 1442695040888963407u;
        item.record.regs.gpr_out[0] = {static_cast<uint16_t>(i % 32), noise};
        trace.push_back(item);
    }
    return trace;
}

} // namespace

// What `recover` tells of a file "broken0" that becomes "saved0".
struct recover_figures : hand_counts {
    recover_figures()
    {
        folder.write("long0", long_trace(20000));
        bytes = folder.contents("long0");
        for (const size_t offset : markers(bytes))
            blocks.push_back({offset, number_at(bytes, offset + 16)});
        EXPECT_EQ(blocks.size(), 5u);
    }
    struct Figures {
        uint64_t blocks, records, headers, places, lost_bytes, lost_records;
        bool lost_known = true, open_end = false;
    };
    void expect(const std::string &broken, const Figures &figures, const std::string &text) const
    {
        folder.text("broken0", broken);
        const Outcome outcome = qtrace({"recover", "broken0", "saved0"});
        EXPECT_EQ(outcome.out, text);
        EXPECT_EQ(outcome.exit_code, figures.places == 0 ? 0 : 3);
        EXPECT_EQ(json::parse(qtrace({"recover", "--json", "broken0", "saved0"}).out),
                  json({{"from", "broken0"},
                        {"to", "saved0"},
                        {"blocks", figures.blocks},
                        {"records", figures.records},
                        {"headers", figures.headers},
                        {"damaged_places", figures.places},
                        {"lost_bytes", figures.lost_bytes},
                        {"lost_records", figures.lost_records},
                        {"lost_records_known", figures.lost_known},
                        {"open_end", figures.open_end}}));
        const json saved = json::parse(qtrace({"info", "--json", "saved0"}).out);
        EXPECT_EQ(saved["records"], figures.records);
        EXPECT_EQ(saved["open_end"], figures.open_end);
        EXPECT_EQ(saved["damaged_places"], 0);
        EXPECT_EQ(saved["clean_end"], true);
    }
    static json verified(const char *file) { return json::parse(qtrace({"info", "--verify", "--json", file}).out); }

    struct Block {
        size_t offset;
        uint32_t records;
    };
    std::string bytes;
    std::vector<Block> blocks;
};

TEST_F(recover_figures, of_a_whole_file)
{
    expect(bytes, {5, 20000, 1, 0, 0, 0},
           "saved0: 20000 records and 1 header in 5 blocks\n"
           "broken0: nothing is damaged, nothing was lost\n");
}

TEST_F(recover_figures, of_a_damaged_block)
{
    const uint32_t lost = blocks[1].records;
    const size_t lost_bytes = blocks[2].offset - blocks[1].offset;
    bytes[blocks[1].offset + 100] ^= 0x20;
    expect(bytes, {4, 20000 - lost, 1, 1, lost_bytes, lost},
           fmt::format("saved0: {} records and 1 header in 4 blocks\n"
                       "broken0: lost at 1 place: {} bytes, {} records\n",
                       20000 - lost, lost_bytes, lost));
    EXPECT_EQ(verified("broken0")["damaged_places"], 1);
    EXPECT_EQ(verified("broken0")["clean_end"], true);
    EXPECT_EQ(verified("broken0")["left_out"], 0);
    EXPECT_EQ(qtrace({"info", "--verify", "broken0"}).exit_code, 3);
    EXPECT_EQ(verified("saved0")["left_out"], 1);
}

// The damage comes up while headers are looked for, and the file is read once more.
TEST_F(recover_figures, info_tells_of_damage_in_a_block_with_headers_once)
{
    bytes[blocks[0].offset + 100] ^= 0x20;
    folder.text("broken0", bytes);
    const Outcome outcome = qtrace({"info", "broken0"});
    EXPECT_EQ(outcome.exit_code, 3);
    EXPECT_EQ(std::ranges::count(outcome.err, '\n'), 1) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("broken0: byte 16: the block's checksum does not match"));
    EXPECT_THAT(outcome.out, HasSubstr("; 1 damaged place ("));
}

TEST_F(recover_figures, what_is_lost_directly_before_a_range_is_told_with_it)
{
    bytes[blocks[1].offset + 100] ^= 0x20;
    folder.text("broken0", bytes);
    const uint32_t resumed = blocks[0].records + blocks[1].records;
    for (const auto &[from, code] : {std::pair(resumed, 3), {resumed + 1, 0}}) {
        const Outcome outcome = qtrace({"dump", "--from", std::to_string(from), "--count", "1", "broken0"});
        EXPECT_EQ(outcome.exit_code, code);
        EXPECT_EQ(outcome.err.empty(), code == 0) << outcome.err;
        EXPECT_THAT(outcome.out, HasSubstr(fmt::format("{:>10} ", from)));
    }
}

// Nothing after the last record that is asked for is read.
TEST_F(recover_figures, damage_after_the_last_chosen_record_is_not_told)
{
    bytes[blocks[1].offset + 100] ^= 0x20;
    folder.text("broken0", bytes);
    for (const auto &[count, code] : {std::pair("3", 0), {"4", 3}}) {
        const Outcome outcome = qtrace({"dump", "--pc", "1000-1008", "--count", count, "broken0"});
        EXPECT_EQ(outcome.exit_code, code) << outcome.err;
        EXPECT_EQ(std::ranges::count(outcome.out, '\n'), 3);
        for (const char *format : {"csv", "sqlite"}) {
            const Outcome exported = qtrace({"export", "--force", "--format", format, "-o", "out", "--pc",
                                             "1000-1008", "--count", count, "broken0"});
            EXPECT_EQ(exported.exit_code, code) << exported.err;
        }
    }
}

TEST_F(hand_counts, damage_after_the_last_chosen_record_of_several_blocks_is_not_told)
{
    qtrace({"cut", "--every", "10", "--window", "1", "-o", "samples0", "trace0"});
    std::string bytes = folder.contents("samples0");
    const std::vector<size_t> places = markers(bytes);
    ASSERT_EQ(places.size(), 3u);
    bytes[places[1] + 60] ^= 0x20;
    folder.text("broken0", bytes);
    const auto code = [](std::vector<std::string> words, const char *count) {
        words.insert(words.end(), {"--pc", "1000", "--count", count, "broken0"});
        return qtrace(words).exit_code;
    };
    for (const std::vector<std::string> &command :
         std::vector<std::vector<std::string>>{{"dump"},
                                               {"export", "--force", "--format", "csv", "-o", "out"},
                                               {"export", "--force", "--format", "sqlite", "-o", "out"}}) {
        EXPECT_EQ(code(command, "1"), 0) << command.size();
        EXPECT_EQ(code(command, "2"), 3) << command.size();
    }
}

// A text trace is read forward, whatever number of threads is asked for.
TEST_F(recover_figures, dump_has_the_mnemonic_of_every_record_of_a_long_trace)
{
    std::string lines;
    const Trace trace = long_trace(20000);
    for (size_t i = 0; i < 20000; i++)
        lines += fmt::format("(seq:{0},tid:2) (instbody:0x{1:08x}) {{name:n{0}_}} (I:0) (PC:0x{2:016x})\n", i,
                             trace[i + 1].record.header.instruction, 0x1000 + 4 * i);
    folder.text("text0", lines);
    for (const char *jobs : {"1", "3"}) {
        const Outcome outcome = qtrace({"dump", "--jobs", jobs, "--fields", "length", "--text", "text0", "long0"});
        EXPECT_EQ(outcome.err, "");
        size_t at = 0, found = 0;
        for (; found < 20000 && at != std::string::npos; found++)
            at = outcome.out.find(fmt::format(" n{}_", found), at);
        EXPECT_EQ(found, 20000u) << jobs;
        EXPECT_NE(at, std::string::npos);
    }
}

// In whichever block that header is.
TEST_F(hand_counts, a_range_has_the_header_before_its_first_record)
{
    Trace trace;
    for (const Item &item : long_trace(7000)) {
        if (!item.is_header)
            trace.push_back(good_trace()[trace.empty() ? FIRST_HEADER : PARTITION]);
        if (!item.is_header)
            trace.push_back(item);
    }
    folder.write("headers0", trace);
    const std::string bytes = folder.contents("headers0");
    uint64_t first = 0;
    for (const size_t offset : markers(bytes)) {
        const json range = json::parse(
            qtrace({"info", "--verify", "--json", "--from", std::to_string(first), "--count", "1", "headers0"})
                .out);
        EXPECT_EQ(range["headers"], 1) << first;
        EXPECT_EQ(range["records"], 1) << first;
        first += number_at(bytes, offset + 16);
    }
    EXPECT_EQ(first, 7000u);
}

// They are read once more to be shown.
TEST_F(hand_counts, info_shows_headers_that_are_too_many_to_be_kept)
{
    const Trace trace(6000, good_trace()[FIRST_HEADER]);
    folder.write("headers0", trace);
    const std::string text = qtrace({"info", "--headers", "5990", "headers0"}).out;
    for (const auto &[number, shown] : {std::pair(0, true), {5989, true}, {5990, false}})
        EXPECT_EQ(text.find(fmt::format("\n  header {:<4} before record 0: ", number)) != std::string::npos, shown);
    EXPECT_THAT(text, testing::EndsWith("  ... and 10 more full headers (--headers N lists N)\n"));
    EXPECT_EQ(json::parse(qtrace({"info", "--json", "headers0"}).out)["header_list"].size(), 6000u);
    const json range = json::parse(qtrace({"info", "--verify", "--json", "--from", "0", "headers0"}).out);
    EXPECT_EQ(range["headers"], 6000);
    for (const char *none : {"records", "damaged_places", "left_out"})
        EXPECT_EQ(range[none], 0) << none;
}

TEST_F(recover_figures, of_a_cut_block)
{
    const uint32_t lost = blocks[4].records;
    const size_t lost_bytes = bytes.size() - 1 - blocks[4].offset;
    expect(bytes.substr(0, bytes.size() - 1), {4, 20000 - lost, 1, 1, lost_bytes, lost, false, true},
           fmt::format("saved0: {} records and 1 header in 4 blocks\n"
                       "broken0: lost at 1 place: {} bytes, at least {} records; the end of the trace is missing\n",
                       20000 - lost, lost_bytes, lost));
    EXPECT_EQ(verified("broken0")["clean_end"], false);
    EXPECT_THAT(
        qtrace({"info", "broken0"}).out,
        HasSubstr("  ends         not cleanly: it was cut, its writer died, or something follows its last block; "
                  "1 damaged place (`qtrace recover` saves the rest)\n"));
}

TEST_F(recover_figures, of_a_file_cut_between_two_blocks)
{
    const uint32_t lost = blocks[4].records;
    expect(bytes.substr(0, blocks[4].offset), {4, 20000 - lost, 1, 1, 0, 0, false, true},
           fmt::format("saved0: {} records and 1 header in 4 blocks\n"
                       "broken0: lost at 1 place: 0 bytes, at least 0 records; the end of the trace is missing\n",
                       20000 - lost));
}

TEST_F(recover_figures, of_bytes_after_the_last_block)
{
    expect(bytes + "xxxxx", {5, 20000, 1, 1, 5, 0},
           "saved0: 20000 records and 1 header in 5 blocks\n"
           "broken0: lost at 1 place: 5 bytes, 0 records\n");
    expect(bytes + "x", {5, 20000, 1, 1, 1, 0},
           "saved0: 20000 records and 1 header in 5 blocks\n"
           "broken0: lost at 1 place: 1 byte, 0 records\n");
}

TEST_F(recover_figures, of_blocks_that_were_taken_out)
{
    const uint32_t lost = blocks[0].records; // with the header
    expect(bytes.substr(0, blocks[0].offset) + bytes.substr(blocks[1].offset), {4, 20000 - lost, 0, 1, 0, lost},
           fmt::format("saved0: {} records and 0 headers in 4 blocks\n"
                       "broken0: lost at 1 place: 0 bytes, {} records\n",
                       20000 - lost, lost));
}

TEST_F(recover_figures, of_several_places_are_added_up)
{
    const uint32_t lost = blocks[1].records + blocks[3].records;
    const size_t lost_bytes = blocks[2].offset - blocks[1].offset + blocks[4].offset - blocks[3].offset;
    bytes[blocks[1].offset + 100] ^= 0x20;
    bytes[blocks[3].offset] ^= 0x20;
    expect(bytes + "xx", {3, 20000 - lost, 1, 3, lost_bytes + 2, lost},
           fmt::format("saved0: {} records and 1 header in 3 blocks\n"
                       "broken0: lost at 3 places: {} bytes, {} records\n",
                       20000 - lost, lost_bytes + 2, lost));
    EXPECT_EQ(verified("saved0")["left_out"], 2);
    const auto verified_range = [](const char *file) {
        return json::parse(qtrace({"info", "--verify", "--json", "--from", "0", file}).out);
    };
    EXPECT_EQ(verified_range("saved0")["left_out"], 2);
    EXPECT_EQ(verified_range("broken0")["damaged_places"], verified("broken0")["damaged_places"]);
    EXPECT_THAT(qtrace({"info", "saved0"}).out, HasSubstr("\n  missing      records or headers at 2 places\n"));
}

// ---- colours -------------------------------------------------------------------------------------------

namespace
{

// What a command that prints little shows on a terminal.
std::string on_terminal(const std::vector<std::string> &words)
{
    setenv("TERM", "vt100", 1);
    unsetenv("NO_COLOR");
    int master, own;
    termios as_it_is{};
    cfmakeraw(&as_it_is);
    if (openpty(&master, &own, nullptr, &as_it_is, nullptr) != 0)
        return "no terminal";
    qtrace_tool::run_qtrace(words, own, own);
    std::string text;
    for (pollfd ready{master, POLLIN, 0}; poll(&ready, 1, 0) > 0;) {
        char piece[4096];
        text.append(piece, static_cast<size_t>(std::max<ssize_t>(read(master, piece, sizeof piece), 0)));
    }
    close(own);
    close(master);
    return text;
}

const std::string GREEN = "\x1b[32m", RED = "\x1b[31m", BAD = "\x1b[1;31m", HEAD = "\x1b[1;36m", AFTER = "\x1b[0m";

} // namespace

TEST_F(recover_figures, a_good_end_is_green_and_any_other_red)
{
    EXPECT_THAT(on_terminal({"info", "trace0"}), testing::StartsWith(HEAD + "trace0" + AFTER + "\n"));
    EXPECT_THAT(on_terminal({"info", "trace0"}), HasSubstr("  ends         " + GREEN + "cleanly" + AFTER + "\n"));
    qtrace({"cut", "-o", "part0", "--count", "5", "trace0"});
    EXPECT_THAT(on_terminal({"info", "part0"}), HasSubstr("  ends         " + BAD + "where a recovery or a cut"));
    folder.text("broken0", bytes.substr(0, blocks[4].offset));
    EXPECT_THAT(on_terminal({"info", "broken0"}), HasSubstr("  ends         " + BAD + "not cleanly"));
    bytes[blocks[1].offset + 100] ^= 0x20;
    folder.text("broken0", bytes);
    EXPECT_THAT(on_terminal({"info", "--verify", "broken0"}),
                HasSubstr("  ends         " + BAD + "cleanly; 1 damaged place (`qtrace recover` saves the rest)" +
                          AFTER + "\n"));
    EXPECT_THAT(on_terminal({"recover", "broken0", "saved0"}), HasSubstr(BAD + "broken0: lost at 1 place: "));
}

TEST_F(hand_counts, differences_have_the_colours_of_what_was_removed_and_added)
{
    Trace other = good_trace();
    other[CALL].record.header.instruction ^= 2;
    folder.write("old0", good_trace());
    folder.write("new0", other);
    const std::string text = on_terminal({"diff", "--context", "1", "old0", "new0"});
    EXPECT_THAT(text, HasSubstr(AFTER + "          5 "));
    EXPECT_THAT(text, HasSubstr("\n" + AFTER + RED + "-         6 "));
    EXPECT_THAT(text, HasSubstr("\n" + AFTER + GREEN + "+         6 "));
    EXPECT_THAT(text, HasSubstr("\n" + AFTER + AFTER + "          7 "));
    EXPECT_THAT(text, HasSubstr("11 | 11 records: " + BAD + "they differ" + AFTER + "\n"));
    EXPECT_THAT(on_terminal({"diff", "old0", "old0"}), HasSubstr(GREEN + "no difference" + AFTER + "\n"));
}

// ---- plan ----------------------------------------------------------------------------------------------

// What `plan` prints about "long0" and a second file.
struct plan_lines : recover_figures {
    // Blocks in a row until they have `records` records: the first record of each part and its count.
    std::string parts_of(const char *name, const std::vector<Block> &of, uint64_t records) const
    {
        std::string text;
        uint64_t first = 0, end = 0, all = 0;
        for (const Block &block : of)
            all += block.records;
        for (const Block &block : of) {
            end += block.records;
            if (end - first < records && end < all)
                continue;
            text += fmt::format("{} --from {} --count {}\n", name, first, end - first);
            first = end;
        }
        return text;
    }
    std::vector<Block> blocks_of(const char *name) const
    {
        const std::string contents = folder.contents(name);
        std::vector<Block> found;
        for (const size_t offset : markers(contents))
            found.push_back({offset, number_at(contents, offset + 16)});
        return found;
    }
};

TEST_F(plan_lines, cut_a_file_between_its_blocks)
{
    for (const auto &[parts, records] : {std::pair("1", 20000),
                                         {"2", 10000},
                                         {"3", 6667},
                                         {"7", 2858},
                                         {"20000", 1},
                                         {"20001", 1},
                                         {"18446744073709551615", 1}})
        EXPECT_EQ(qtrace({"plan", "--parts", parts, "long0"}).out, parts_of("long0", blocks, records)) << parts;
    EXPECT_EQ(parts_of("long0", blocks, 20000), "long0 --from 0 --count 20000\n");
}

TEST_F(plan_lines, share_the_records_of_all_files)
{
    const uint64_t each = blocks[0].records; // so that a part has exactly one block
    ASSERT_GT(5 * each, 20000u);
    folder.write("rest0", long_trace(5 * each - 20000));
    EXPECT_EQ(qtrace({"plan", "--parts", "5", "long0", "rest0"}).out,
              parts_of("long0", blocks, each) + parts_of("rest0", blocks_of("rest0"), each));
    EXPECT_THAT(qtrace({"plan", "--parts", "5", "long0", "rest0"}).out,
                testing::StartsWith(fmt::format("long0 --from 0 --count {}\n", each)));
    folder.write("rest0", long_trace(5 * each + 1 - 20000)); // one record too many for that
    EXPECT_THAT(qtrace({"plan", "--parts", "5", "long0", "rest0"}).out,
                testing::StartsWith(fmt::format("long0 --from 0 --count {}\n", each + blocks[1].records)));
}

TEST_F(plan_lines, are_words_of_a_shell_or_json)
{
    for (const auto &[name, word] : {std::pair("a_b./-+=,:@%9", "a_b./-+=,:@%9"),
                                     {"it's", "'it'\\''s'"},
                                     {"a b", "'a b'"},
                                     {"$x", "'$x'"},
                                     {"~", "'~'"}}) {
        std::filesystem::create_directories(std::filesystem::path(folder.path(name)).parent_path());
        folder.write(name, good_trace());
        EXPECT_EQ(qtrace({"plan", "--parts", "3", name}).out, std::string(word) + " --from 0 --count 11\n");
    }
    EXPECT_EQ(qtrace({"plan", "--json", "--parts", "3", "it's"}).out,
              "{\"file\":\"it's\",\"from\":0,\"count\":11}\n");
}

TEST_F(plan_lines, are_at_least_one)
{
    const Outcome none = qtrace({"plan", "--parts", "0", "long0"});
    EXPECT_EQ(none.exit_code, 2);
    EXPECT_THAT(none.err, testing::StartsWith("qtrace: `0` is not a number for --parts: 1 or more expected\n"));
    folder.write("empty0", {good_trace()[FIRST_HEADER]});
    EXPECT_EQ(qtrace({"plan", "--parts", "4", "empty0"}).out, "empty0 --from 0 --count 0\n");
    folder.write("nothing0", {});
    EXPECT_EQ(qtrace({"plan", "--parts", "4", "nothing0"}).out, "nothing0 --from 0 --count 0\n");
}

TEST_F(plan_lines, have_one_record_each_where_blocks_have)
{
    qtrace({"cut", "--every", "10", "--window", "1", "-o", "samples0", "trace0"});
    EXPECT_EQ(qtrace({"plan", "--parts", "3", "samples0"}).out, "samples0 --from 0 --count 1\n"
                                                                "samples0 --from 1 --count 10\n"
                                                                "samples0 --from 11 --count 10\n");
}

// Numbers begin anew where one file follows another: those are not cut.
TEST_F(plan_lines, of_a_file_that_follows_itself_are_those_of_one)
{
    folder.text("twice0", bytes + bytes);
    EXPECT_EQ(qtrace({"plan", "--parts", "40000", "twice0"}).out, parts_of("twice0", blocks, 1));
}

// ---- cut -----------------------------------------------------------------------------------------------

TEST_F(hand_counts, cut_says_in_json_whether_the_end_of_the_trace_is_missing)
{
    const auto told = [](std::vector<std::string> words) {
        words.insert(words.end(), {"--json", "-o", "part0", "--force", "trace0"});
        words.insert(words.begin(), "cut");
        return qtrace(words).out;
    };
    EXPECT_EQ(told({}), R"({"from":"trace0","to":"part0","blocks":1,"records":25,"headers":3,"damaged_places":0,)"
                        R"("open_end":false})"
                        "\n");
    EXPECT_EQ(told({"--count", "5"}), R"({"from":"trace0","to":"part0","blocks":1,"records":5,"headers":1,)"
                                      R"("damaged_places":0,"open_end":true})"
                                      "\n");
}

TEST_F(hand_counts, damage_tells_of_a_single_record_that_is_lost)
{
    folder.write("one0", {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD]});
    const std::string bytes = folder.contents("one0");
    folder.text("broken0", bytes.substr(0, bytes.size() - 1));
    EXPECT_EQ(qtrace({"dump", "broken0"}).err,
              "qtrace: broken0: byte 16: the file ends inside a block (at least 1 record is lost)\n");
}

TEST_F(recover_figures, of_damage_that_takes_no_record_are_not_told)
{
    const size_t second = blocks[1].offset;
    folder.text("broken0", bytes.substr(0, second) + "garbage" + bytes.substr(second));
    EXPECT_EQ(qtrace({"dump", "broken0"}).err, fmt::format("qtrace: broken0: byte {}: no block here\n", second));
}

TEST_F(hand_counts, cut_of_windows_as_long_as_their_distance_keeps_everything)
{
    EXPECT_EQ(qtrace({"cut", "--every", "5", "--window", "5", "-o", "part0", "trace0"}).out,
              "part0: 25 records and 3 headers in 1 block\n");
    EXPECT_EQ(qtrace({"cut", "--force", "--every", "1", "--window", "1", "-o", "part0", "trace0"}).out,
              "part0: 25 records and 3 headers in 1 block\n");
}

TEST_F(hand_counts, files_that_cannot_be_read_or_written_are_told_with_the_reason)
{
    EXPECT_EQ(qtrace({"recover", "none0", "saved0"}).err, "qtrace: none0: No such file or directory\n");
    EXPECT_EQ(qtrace({"info", "none0"}).err, "qtrace: none0: No such file or directory\n");
    EXPECT_EQ(qtrace({"diff", "--from", "25", "trace0", "trace0"}).err,
              "qtrace: trace0: no record 25: the file has 25\n");
    EXPECT_EQ(qtrace({"diff", "--from", "24", "trace0", "trace0"}).exit_code, 0);
}

TEST_F(hand_counts, a_file_without_anything_in_it_is_one_of_a_row)
{
    folder.write("row0", {});
    folder.write("row1", good_trace());
    const Outcome outcome = qtrace({"info", "--json", "row"});
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(std::ranges::count(outcome.out, '\n'), 2);
}

// ---- files that stand one after another ------------------------------------------------------------------

// Record numbers fall where the second file begins, however the two ranges lie.
TEST_F(hand_counts, a_range_is_found_in_the_second_of_two_files_in_a_row)
{
    folder.write("whole0", good_trace()); // records 0 to 10
    qtrace({"cut", "--from", "8", "-o", "end0", "whole0"});
    qtrace({"cut", "--from", "5", "--count", "2", "-o", "middle0", "whole0"});
    const auto counted = [&](const char *first, const char *second, const char *from) {
        folder.text("joined0", folder.contents(first) + folder.contents(second));
        const std::string counts = qtrace({"stats", "--json", "--from", from, "--count", "3", "joined0"}).out;
        return json::parse(counts)["instructions"].get<int>();
    };
    EXPECT_EQ(counted("end0", "whole0", "0"), 3);
    EXPECT_EQ(counted("end0", "whole0", "8"), 3 + 3);
    EXPECT_EQ(counted("whole0", "middle0", "5"), 3 + 2);
    EXPECT_EQ(counted("whole0", "middle0", "2"), 3);
}

// ---- export of what was lost -----------------------------------------------------------------------------

// What the last packet of the export says that was discarded up to its end.
struct exported_losses : recover_figures {
    uint64_t of(const std::string &contents) const
    {
        folder.text("broken0", contents);
        qtrace({"export", "--force", "--format", "ctf", "-o", "out", "broken0"});
        const std::string stream = folder.contents("out/stream0");
        uint64_t bits = 0, lost = 0;
        for (size_t at = 0; at < stream.size(); at += bits / 8) {
            std::memcpy(&bits, &stream.at(at + 56), sizeof bits);
            std::memcpy(&lost, &stream.at(at + 72), sizeof lost);
        }
        return lost;
    }
};

TEST_F(exported_losses, are_one_record_at_least_where_their_number_is_not_known)
{
    EXPECT_EQ(of(bytes), 0u);
    EXPECT_EQ(of(bytes.substr(0, blocks[4].offset)), 1u);
    EXPECT_EQ(of(bytes.substr(0, bytes.size() - 1)), blocks[4].records);
}

// ---- check ---------------------------------------------------------------------------------------------

namespace
{

// A header with a member that it does not announce, and three records that repeat the name of their processor.
Trace wrong_trace()
{
    Trace trace = good_trace();
    trace[SECOND_HEADER].header.sdr1[0] = 1;
    for (int i = 0; i < 3; i++)
        trace.push_back(trace[RESUMED]);
    return trace;
}

const std::string UNANNOUNCED = "sdr1_is_present is clear, but what it stands for is filled (sdr1 0x1)";
const std::string REPEATED = "a record names its processor that is not the first after a file header (processor 2)";

} // namespace

TEST_F(hand_counts, check_text_has_every_finding_up_to_the_limit_and_their_number)
{
    folder.write("wrong0", wrong_trace());
    const std::string header =
        "wrong0: header before record 9 at 0000000000004000: " + UNANNOUNCED + " [header-gated-sdr1-is-present]\n";
    const auto record = [](int number, const char *address) {
        return fmt::format("wrong0: record {} at 000000000000{}: {} [processor-repeated]\n", number, address,
                           REPEATED);
    };
    const std::string summary = "wrong0: 14 records, 3 headers: invariants are violated\n"
                                "  header-gated-sdr1-is-present             1";
    const std::string first = record(11, "4008"), second = record(12, "400c"), third = record(13, "4010");
    EXPECT_EQ(qtrace({"check", "wrong0"}).out,
              header + first + second + third + summary + "\n  processor-repeated                       3\n");
    EXPECT_EQ(qtrace({"check", "--limit", "3", "wrong0"}).out, qtrace({"check", "wrong0"}).out);
    EXPECT_EQ(qtrace({"check", "--limit", "2", "wrong0"}).out,
              header + first + second + summary +
                  "\n  processor-repeated                       3 (2 shown, --limit shows more)\n");
    EXPECT_EQ(qtrace({"check", "--limit", "0", "wrong0"}).out,
              summary + " (0 shown, --limit shows more)"
                        "\n  processor-repeated                       3 (0 shown, --limit shows more)\n");
    EXPECT_EQ(qtrace({"check", "--ignore", "header-gated-sdr1-is-present,processor-repeated", "wrong0"}).out,
              "wrong0: 14 records, 3 headers: all invariants hold\n");
    EXPECT_EQ(
        qtrace({"check", "--limit", "0", "--ignore", "header-gated-sdr1-is-present,processor-repeated", "wrong0"})
            .out,
        "wrong0: 14 records, 3 headers: all invariants hold\n");
    EXPECT_EQ(qtrace({"check", "--from", "10", "--count", "3", "--limit", "1", "wrong0"}).out,
              first + "wrong0: 3 records, 0 headers: invariants are violated\n"
                      "  processor-repeated                       2 (1 shown, --limit shows more)\n");
}

TEST_F(hand_counts, check_json_has_every_finding_up_to_the_limit_and_their_number)
{
    folder.write("wrong0", wrong_trace());
    const std::string summary =
        R"({"file":"wrong0","records":14,"headers":3,"violations":{"header-gated-sdr1-is-present":1,"processor-repeated":3}})"
        "\n";
    EXPECT_EQ(
        qtrace({"check", "--json", "--limit", "1", "wrong0"}).out,
        R"({"file":"wrong0","rule":"header-gated-sdr1-is-present","before_record":9,"address":"0x4000","sentence":")" +
            UNANNOUNCED + "\"}\n" +
            R"({"file":"wrong0","rule":"processor-repeated","record":11,"address":"0x4008","sentence":")" +
            REPEATED + "\"}\n" + summary);
    EXPECT_EQ(qtrace({"check", "--json", "--limit", "0", "wrong0"}).out, summary);
}

TEST_F(recover_figures, check_adds_up_the_records_of_all_blocks)
{
    EXPECT_EQ(qtrace({"check", "long0"}).out, "long0: 20000 records, 1 header: all invariants hold\n");
}

// In each group of blocks the first finding waits until the records before it were checked.
TEST_F(hand_counts, check_shows_findings_of_all_blocks_in_order)
{
    Trace trace = long_trace(20000);
    for (size_t i = 1; i < trace.size(); i++)
        trace[i].record.header.control.fld.processor_present = 1,
        trace[i].record.processor = trace[1].record.processor;
    folder.write("wrong0", trace);
    std::istringstream lines(qtrace({"check", "--limit", "20000", "wrong0"}).out);
    std::string line;
    for (uint64_t record = 1; record < 20000; record++) {
        std::getline(lines, line);
        ASSERT_THAT(
            line, testing::StartsWith(fmt::format("wrong0: record {} at {:016x}: ", record, 0x1000 + 4 * record)));
    }
    std::getline(lines, line);
    EXPECT_EQ(line, "wrong0: 20000 records, 1 header: invariants are violated");
}

TEST_F(hand_counts, check_takes_one_companion_for_each_file)
{
    for (const auto &[option, what] : {std::pair("--text", "text files"), {"--pte", "page-table-entry files"}}) {
        const Outcome few = qtrace({"check", option, "none", "trace0", "trace0"});
        EXPECT_EQ(few.exit_code, 2);
        EXPECT_THAT(few.err, testing::StartsWith(fmt::format("qtrace: 1 {} for 2 trace files\n", what)));
        const Outcome many = qtrace({"check", option, "none", option, "none", "trace0"});
        EXPECT_THAT(many.err, testing::StartsWith(fmt::format("qtrace: 2 {} for 1 trace files\n", what)));
        EXPECT_EQ(qtrace({"check", option, "none", "trace0"}).exit_code, 1);
    }
}

// ---- info of a range -----------------------------------------------------------------------------------

struct info_of_a_range : recover_figures {
    std::string of(uint64_t from, uint64_t count) const
    {
        return qtrace({"info", "--verify", "--headers", "0", "--from", std::to_string(from), "--count",
                       std::to_string(count), "long0"})
            .out;
    }
    size_t bytes_of(size_t block) const { return blocks[block + 1].offset - blocks[block].offset; }
    // Without the header that comes before record 0.
    static std::string expected(uint64_t from, uint64_t records, size_t blocks, size_t size)
    {
        return fmt::format("long0\n  format       version 1, blocks compressed with zstd\n"
                           "  records      {}, from number {} on\n"
                           "  headers      0: 0 full, 0 for partition changes\n"
                           "  gaps         0\n"
                           "  size         {} ({:.1f} KiB) in {} block{}, {:.2f} bytes a record\n"
                           "  ends         cleanly\n",
                           records, from, size, static_cast<double>(size) / 1024, blocks, blocks == 1 ? "" : "s",
                           static_cast<double>(size) / static_cast<double>(records));
    }
};

TEST_F(info_of_a_range, counts_the_blocks_that_hold_its_records)
{
    const uint64_t second = blocks[0].records, third = second + blocks[1].records;
    EXPECT_EQ(of(second, 1), expected(second, 1, 1, bytes_of(1)));
    EXPECT_EQ(of(second - 1, 1), expected(second - 1, 1, 1, bytes_of(0)));
    EXPECT_EQ(of(second - 1, 2), expected(second - 1, 2, 2, bytes_of(0) + bytes_of(1)));
    EXPECT_EQ(of(second, third - second), expected(second, third - second, 1, bytes_of(1)));
    EXPECT_EQ(of(second, third - second + 1), expected(second, third - second + 1, 2, bytes_of(1) + bytes_of(2)));
}

TEST_F(info_of_a_range, has_the_headers_before_its_records)
{
    EXPECT_THAT(of(0, 1), HasSubstr("\n  headers      1: 1 full, 0 for partition changes\n"));
    EXPECT_THAT(of(0, 20000), HasSubstr("\n  records      20000, from number 0 on\n"));
    EXPECT_THAT(of(1, 1), HasSubstr("\n  headers      0: 0 full, 0 for partition changes\n"));
}

// ---- diff ----------------------------------------------------------------------------------------------

namespace
{

// Lines of `dump`, without what it prints of headers and pauses.
std::vector<std::string> record_lines(const char *file)
{
    std::istringstream from(qtrace({"dump", file}).out);
    std::vector<std::string> lines;
    for (std::string line; std::getline(from, line);)
        if (line.size() > 9 && std::isdigit(line[9]) != 0 && line.starts_with(" ")) // the end of a record's number
            lines.push_back(line + '\n');
    return lines;
}

} // namespace

TEST_F(hand_counts, diff_shows_a_changed_record_between_its_neighbours)
{
    Trace other = good_trace();
    other[CALL].record.header.instruction ^= 2; // from `bl` to `bla`
    folder.write("old0", good_trace());
    folder.write("new0", other);
    const std::vector<std::string> a = record_lines("old0"), b = record_lines("new0");
    ASSERT_EQ(a.size(), 11u);
    const std::string head = "old0 | new0\n"
                             "at record 6 | 6 (000000000000200c): instruction\n"
                             "    instruction: 0x48000ff5 | 0x48000ff7\n";
    const std::string changed = "-" + a[6] + "+" + b[6];
    const std::string summary = "11 | 11 records: they differ\n"
                                "  records differ             1\n"
                                "    instruction              1\n";
    EXPECT_EQ(qtrace({"diff", "--context", "1", "old0", "new0"}).out,
              head + "          - partition lpid 0x2 pid 8\n " + a[5] + changed + " " + a[7] + summary);
    EXPECT_EQ(qtrace({"diff", "--context", "0", "old0", "new0"}).out, head + changed + summary);
    EXPECT_EQ(qtrace({"diff", "--limit", "0", "old0", "new0"}).out, "old0 | new0\n" + summary);
    EXPECT_EQ(qtrace({"diff", "old0", "new0"}).out, qtrace({"diff", "--context", "3", "old0", "new0"}).out);
    EXPECT_EQ(std::ranges::count(qtrace({"diff", "old0", "new0"}).out, '\n'),
              3 + 3 + 1 + 2 + 3 + 1 + 3); // two headers
    EXPECT_EQ(qtrace({"diff", "--ignore", "instruction", "old0", "new0"}).out,
              "old0 | new0\n11 | 11 records: no difference but those ignored\n");
    EXPECT_EQ(qtrace({"diff", "old0", "old0"}).out, "old0 | old0\n11 | 11 records: no difference\n");
    EXPECT_EQ(
        qtrace({"diff", "--json", "old0", "new0"}).out,
        R"({"a":"old0","b":"new0","differences":[{"record_a":6,"record_b":6,"address":"0x200c",)"
        R"("kinds":["instruction"],"only_a":0,"only_b":0,"members":{"instruction":["0x48000ff5","0x48000ff7"]}}],)"
        R"("records_a":11,"records_b":11,"differing":1,"only_a":0,"only_b":0,"kinds":{"instruction":1}})"
        "\n");
}

TEST_F(hand_counts, diff_names_every_kind_of_difference)
{
    Trace other = good_trace();
    other[CALL].record.header.instruction ^= 2;
    other[CALL].record.header.control.fld.register_trace_present = 1;
    other[CALL].record.regs.num_gprs_out = 1;
    other[CALL].record.regs.gpr_out[0] = {3, 0x77};
    folder.write("old0", good_trace());
    folder.write("new0", other);
    const std::string text = qtrace({"diff", "--context", "0", "old0", "new0"}).out;
    EXPECT_THAT(text, HasSubstr("at record 6 | 6 (000000000000200c): instruction, registers\n"));
    EXPECT_THAT(text, testing::EndsWith("\n11 | 11 records: they differ\n"
                                        "  records differ             1\n"
                                        "    instruction              1\n"
                                        "    registers                1\n"));
    const json told = json::parse(qtrace({"diff", "--json", "old0", "new0"}).out);
    EXPECT_EQ(told["differences"][0]["kinds"], json({"instruction", "registers"}));
    EXPECT_EQ(told["kinds"], json({{"instruction", 1}, {"registers", 1}}));
}

TEST_F(hand_counts, diff_compares_one_thread_with_a_file_whatever_their_names)
{
    folder.write("old0", good_trace());
    folder.write("new0", good_trace());
    const std::string same = "11 | 11 records: no difference\n";
    EXPECT_EQ(qtrace({"diff", "old", "new0"}).out, "old0 | new0\n" + same);
    EXPECT_EQ(qtrace({"diff", "old0", "new"}).out, "old0 | new0\n" + same);
    folder.write("old1", good_trace());
    const std::string missing = "qtrace: old0: there is no such thread in new0\n"
                                "qtrace: old1: there is no such thread in new0\n"
                                "qtrace: new0: there is no such thread in old\n";
    EXPECT_EQ(qtrace({"diff", "old", "new0"}).err, missing);
    EXPECT_THAT(qtrace({"diff", "new0", "old"}).err, HasSubstr("qtrace: old1: there is no such thread in new0\n"));
}

TEST_F(recover_figures, diff_tells_damage_once_and_a_single_record_on_one_side)
{
    Trace right = long_trace(20000);
    right.erase(right.begin() + 5001);
    folder.write("right0", right);
    const std::string text = qtrace({"diff", "long0", "right0"}).out;
    EXPECT_THAT(text, HasSubstr(": missing: 1 record only in long0, 0 only in right0\n"));
    EXPECT_THAT(text, HasSubstr("  missing in 1 run: 1 record only on the left, 0 only on the right\n"));
    bytes[blocks[1].offset + 100] ^= 0x20;
    folder.text("broken0", bytes);
    const Outcome outcome = qtrace({"diff", "--limit", "9", "broken0", "long0"});
    EXPECT_EQ(std::ranges::count(outcome.err, '\n'), 1) << outcome.err;
}

TEST_F(hand_counts, files_after_one_that_cannot_be_read_are_read)
{
    folder.write("short0", good_trace());
    for (const char *command : {"stats", "tlb", "check", "info"})
        EXPECT_THAT(qtrace({command, "none0", "trace0"}).out, HasSubstr("trace0")) << command;
    for (const char *command : {"stats", "tlb"})
        EXPECT_THAT(qtrace({command, "--from", "15", "short0", "trace0"}).out, HasSubstr("trace0")) << command;
    EXPECT_THAT(qtrace({"stats", "--kind", "store", "--from", "15", "short0", "trace0"}).out, HasSubstr("trace0"));
}

TEST_F(hand_counts, tlb_tells_of_accesses_to_pages_that_were_mapped_anew_only_where_there_are_some)
{
    Item again = with_data(0xe8640008, 0x5008, Case::single), elsewhere = again;
    elsewhere.record.data_rpn[0] = 0x52; // of another page of 64K
    const std::string line = "    accesses to a page that was mapped anew, which miss: ";
    folder.write("same0", {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], again, again});
    EXPECT_THAT(qtrace({"tlb", "same0"}).out, Not(HasSubstr(line)));
    folder.write("anew0", {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], again, elsewhere});
    EXPECT_THAT(qtrace({"tlb", "anew0"}).out, HasSubstr(line + "1\n"));
}

TEST_F(hand_counts, tlb_gives_file_names_in_their_own_letters)
{
    folder.write("\xC3\xA4_0", good_trace());
    EXPECT_THAT(qtrace({"tlb", "--json", "\xC3\xA4_0"}).out, testing::StartsWith("{\"file\":\"\xC3\xA4_0\","));
}

TEST_F(hand_counts, dump_says_which_file_lines_are_of_where_there_are_two)
{
    folder.write("short0", good_trace());
    const std::string one = qtrace({"dump", "--count", "1", "short0"}).out;
    EXPECT_EQ(qtrace({"dump", "--count", "1", "short0", "short0"}).out, "# short0\n" + one + "# short0\n" + one);
}

TEST_F(hand_counts, options_that_name_no_format_or_address_are_refused)
{
    const auto refusal = [](std::vector<std::string> words) {
        words.insert(words.end(), {"-o", "out", "trace0"});
        words.insert(words.begin(), "export");
        const Outcome outcome = qtrace(words);
        EXPECT_EQ(outcome.exit_code, 2);
        return outcome.err.substr(0, outcome.err.find('\n'));
    };
    EXPECT_EQ(refusal({"--format", "cvs"}), "qtrace: unknown format `cvs`; did you mean `csv`?");
    EXPECT_EQ(refusal({"--format", "csv", "--address", "reel"}),
              "qtrace: unknown kind of address `reel`; did you mean `real`?");
    EXPECT_FALSE(std::filesystem::exists("out"));
    EXPECT_EQ(qtrace({"dump", "--format", "jso", "trace0"}).err.substr(0, 60),
              "qtrace: unknown output format `jso`; did you mean `json`?\nSe");
}

TEST_F(hand_counts, nothing_is_written_to_the_standard_input)
{
    folder.text("input", "");
    const int input = dup(0), file = open("input", O_RDWR | O_CLOEXEC);
    dup2(file, 0);
    close(file);
    qtrace({"export", "--format", "csv", "-o", "table", "trace0"});
    qtrace({"export", "--format", "ctf", "-o", "folder", "trace0"});
    qtrace({"dump", "trace0"});
    qtrace({"dump", "--kind", "load", "--count", "1", "trace0"});
    dup2(input, 0);
    close(input);
    EXPECT_EQ(folder.contents("input"), "");
}

TEST_F(hand_counts, export_says_how_many_records_it_wrote)
{
    EXPECT_EQ(qtrace({"export", "--format", "csv", "-o", "out", "trace0"}).out, "out: 25 records\n");
    EXPECT_EQ(qtrace({"export", "--format", "csv", "-o", "out", "trace0"}).exit_code, 1); // it exists
    EXPECT_EQ(qtrace({"export", "--force", "--format", "csv", "-o", "out", "--count", "1", "trace0"}).out,
              "out: 1 record\n");
    EXPECT_EQ(qtrace({"export", "--force", "--json", "--format", "csv", "-o", "out", "trace0", "trace0"}).out,
              "{\"output\":\"out\",\"records\":50}\n");
    EXPECT_EQ(qtrace({"export", "--force", "--json", "--format", "csv", "-o", "out", "--kind", "store", "--count",
                      "2", "trace0"})
                  .out,
              "{\"output\":\"out\",\"records\":2}\n");
    EXPECT_EQ(qtrace({"export", "--force", "--format", "sqlite", "-o", "out", "trace0", "trace0"}).out,
              "out: 50 records\n");
    const Outcome beyond = qtrace({"export", "--force", "--format", "csv", "-o", "out", "--from", "25", "trace0"});
    EXPECT_EQ(beyond.exit_code, 1);
    EXPECT_EQ(beyond.err, "qtrace: trace0: no record 25: the file has 25\n");
}

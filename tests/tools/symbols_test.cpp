// Names of addresses: which symbol an address belongs to, and how files of symbols are read.
#include "function_counts.h"
#include "planted_trace.h"
#include "symbol_file.h"
#include "symbol_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <memory>
#include <set>
#include <stdexcept>
#include <unistd.h>

using namespace qtrace_tool;
using planted::Folder;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

Symbol symbol(const char *name, uint64_t first, uint64_t last, uint8_t rank = 0)
{
    return {name, first, last, rank, nullptr};
}

std::string name_at(const Symbol_Table &table, uint64_t address)
{
    const Named_Range range = table.range_of(address);
    EXPECT_TRUE(range.contains(address)) << std::hex << address;
    return range.symbol == nullptr ? "-" : range.symbol->name;
}

std::string name_at(const Symbol_File &file, uint64_t address)
{
    return name_at(Symbol_Table(file.symbols), address);
}

std::string refusal(const std::string &file, std::optional<uint64_t> load_address = {})
{
    try {
        read_symbol_file(file, load_address);
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "it was read";
}

// ---- An ELF file, byte by byte ---------------------------------------------------------------------------

enum : unsigned { NO_TYPE = 0, OBJECT = 1, FUNCTION = 2, LOCAL_BIND = 0, GLOBAL_BIND = 1, WEAK_BIND = 2 };
enum : uint16_t { UNDEFINED = 0, TEXT = 1, DESCRIPTORS = 2, ABSOLUTE = 0xFFF1 };

struct Elf_Symbol {
    std::string name;
    uint64_t value, size;
    unsigned type = FUNCTION, binding = GLOBAL_BIND;
    uint16_t section = TEXT;
};

struct Elf_Shape {
    bool big_endian = false, wide = true; // wide: 64 bits
    uint16_t type = 2;                    // linked, at fixed addresses
    unsigned table = 2;                   // kind of the symbol table; 0: stripped
    std::string second = ".data";         // name of the second section
    std::vector<uint64_t> words{};        // in it
    // Kinds and addresses of the segments: 1 is loaded.
    std::vector<std::pair<unsigned, uint64_t>> segments = {{1, 0x10000}};
};

constexpr uint64_t TEXT_AT = 0x10000, TEXT_SIZE = 0x1000, SECOND_AT = 0x20000;

class Elf_Bytes
{
public:
    explicit Elf_Bytes(const Elf_Shape &shape) : shape_(shape) {}
    void number(uint64_t value, size_t bytes)
    {
        for (size_t i = 0; i < bytes; i++)
            text += static_cast<char>(value >> 8 * (shape_.big_endian ? bytes - 1 - i : i));
    }
    void half(uint64_t value) { number(value, 2); }
    void word(uint64_t value) { number(value, 4); }
    void address(uint64_t value) { number(value, shape_.wide ? 8 : 4); }
    void section(unsigned name, unsigned type, unsigned flags, uint64_t at, uint64_t offset, uint64_t size,
                 unsigned link, uint64_t entry)
    {
        word(name), word(type), address(flags), address(at), address(offset), address(size), word(link), word(0);
        address(1), address(entry);
    }
    std::string text;

private:
    Elf_Shape shape_;
};

void put_symbol(Elf_Bytes &to, const Elf_Shape &shape, unsigned name, const Elf_Symbol &symbol)
{
    const unsigned info = symbol.binding << 4 | symbol.type;
    to.word(name);
    if (!shape.wide)
        to.address(symbol.value), to.address(symbol.size);
    to.number(info, 1), to.number(0, 1), to.half(symbol.section);
    if (shape.wide)
        to.address(symbol.value), to.address(symbol.size);
}

// Headers, then the words of the second section, the symbols, their names and those of the sections.
std::string elf(const Elf_Shape &shape, const std::vector<Elf_Symbol> &symbols)
{
    Elf_Bytes words(shape), table(shape), out(shape);
    for (const uint64_t value : shape.words)
        words.number(value, 8);
    std::string names(1, '\0');
    put_symbol(table, shape, 0, {"", 0, 0, NO_TYPE, LOCAL_BIND, UNDEFINED});
    for (const Elf_Symbol &one : symbols) {
        put_symbol(table, shape, static_cast<unsigned>(names.size()), one);
        names += one.name + '\0';
    }
    const std::string section_names = std::string(1, '\0') + ".text" + '\0' + shape.second + '\0';
    const unsigned header = shape.wide ? 64 : 52, segment = shape.wide ? 56 : 32, section = shape.wide ? 64 : 40;
    const uint64_t data = header + shape.segments.size() * segment;
    const uint64_t table_at = data + words.text.size(), names_at = table_at + table.text.size();
    const uint64_t section_names_at = names_at + names.size(),
                   sections_at = section_names_at + section_names.size();

    out.text = "\177ELF";
    out.number(shape.wide ? 2 : 1, 1), out.number(shape.big_endian ? 2 : 1, 1), out.number(1, 1), out.number(0, 1),
        out.number(0, 8);
    out.half(shape.type), out.half(21), out.word(1), out.address(TEXT_AT), out.address(header),
        out.address(sections_at);
    out.word(0), out.half(header), out.half(segment), out.half(shape.segments.size()), out.half(section),
        out.half(6), out.half(5);
    for (const auto &[kind, at] : shape.segments) {
        out.word(kind);
        if (shape.wide)
            out.word(5);
        out.address(0), out.address(at), out.address(at), out.address(TEXT_SIZE), out.address(TEXT_SIZE);
        if (!shape.wide)
            out.word(5);
        out.address(0x1000);
    }
    out.text += words.text + table.text + names + section_names;
    const uint64_t symbol_bytes = shape.wide ? 24 : 16;
    out.section(0, 0, 0, 0, 0, 0, 0, 0);
    out.section(1, 8, 6, TEXT_AT, data, TEXT_SIZE, 0, 0); // code, not in the file
    out.section(7, 1, 3, SECOND_AT, data, words.text.size(), 0, 0);
    out.section(0, shape.table, 0, 0, table_at, table.text.size(), 4, symbol_bytes);
    out.section(0, 3, 0, 0, names_at, names.size(), 0, 0);
    out.section(0, 3, 0, 0, section_names_at, section_names.size(), 0, 0);
    return out.text;
}

Symbol_File read_elf(const Elf_Shape &shape, const std::vector<Elf_Symbol> &symbols,
                     std::optional<uint64_t> load_address = {})
{
    const Folder folder;
    return read_symbol_file(folder.text("program", elf(shape, symbols)), load_address);
}

} // namespace

// ---- Which symbol --------------------------------------------------------------------------------------

TEST(symbol_table, an_address_belongs_to_the_symbol_that_covers_it)
{
    const Symbol_Table table({symbol("second", 0x200, 0x2ff), symbol("first", 0x100, 0x17f)});
    EXPECT_EQ(name_at(table, 0xff), "-");
    EXPECT_EQ(name_at(table, 0x100), "first");
    EXPECT_EQ(name_at(table, 0x17f), "first");
    EXPECT_EQ(name_at(table, 0x180), "-");
    EXPECT_EQ(name_at(table, 0x2ff), "second");
    EXPECT_EQ(name_at(table, 0x300), "-");
    EXPECT_EQ(name_at(table, ~uint64_t{0}), "-");
}

TEST(symbol_table, the_symbol_that_begins_last_hides_the_others_while_it_lasts)
{
    const Symbol_Table table({symbol("outer", 0x100, 0x1ff), symbol("inner", 0x120, 0x13f),
                              symbol("innermost", 0x130, 0x137), symbol("across", 0x1f0, 0x20f)});
    EXPECT_EQ(name_at(table, 0x11f), "outer");
    EXPECT_EQ(name_at(table, 0x120), "inner");
    EXPECT_EQ(name_at(table, 0x130), "innermost");
    EXPECT_EQ(name_at(table, 0x138), "inner");
    EXPECT_EQ(name_at(table, 0x140), "outer");
    EXPECT_EQ(name_at(table, 0x1f0), "across");
    EXPECT_EQ(name_at(table, 0x20f), "across");
    EXPECT_EQ(name_at(table, 0x210), "-");
}

TEST(symbol_table, of_symbols_that_begin_together_the_shortest_then_the_lowest_rank_then_the_first_counts)
{
    EXPECT_EQ(name_at(Symbol_Table({symbol("short", 0, 7), symbol("long", 0, 15)}), 0), "short");
    EXPECT_EQ(name_at(Symbol_Table({symbol("local", 0, 7, 2), symbol("global", 0, 7, 0)}), 0), "global");
    EXPECT_EQ(name_at(Symbol_Table({symbol("this", 0, 7), symbol("that", 0, 7)}), 0), "this");
}

TEST(symbol_table, reaches_the_last_address_of_all)
{
    const Symbol_Table table({symbol("top", ~uint64_t{0} - 15, ~uint64_t{0}), symbol("whole", 0, ~uint64_t{0})});
    EXPECT_EQ(name_at(table, ~uint64_t{0}), "top");
    EXPECT_EQ(name_at(table, ~uint64_t{0} - 16), "whole");
    EXPECT_EQ(name_at(table, 0), "whole");
}

namespace
{

// By looking at every symbol: the last to begin, then the first to end, then the lowest rank, then the first given.
const Symbol *plain_search(const std::vector<Symbol> &symbols, uint64_t address)
{
    const Symbol *best = nullptr;
    for (const Symbol &one : symbols) {
        if (address < one.first || address > one.last)
            continue;
        if (best == nullptr || one.first > best->first ||
            (one.first == best->first &&
             (one.last < best->last || (one.last == best->last && one.rank < best->rank))))
            best = &one;
    }
    return best;
}

} // namespace

TEST(symbol_table, agrees_with_a_plain_search_wherever_symbols_lie)
{
    uint64_t noise = 1;
    const auto random = [&noise](uint64_t below) {
        noise = noise * 6364136223846793005u + 1442695040888963407u;
        return (noise >> 33) % below;
    };
    constexpr uint64_t PLACES = 24;
    for (int round = 0; round < 400; round++) {
        const uint64_t base = round % 2 == 0 ? 0 : ~uint64_t{0} - (PLACES - 1); // at either end of all addresses
        std::vector<Symbol> symbols;
        for (uint64_t n = random(7); n > 0; n--) {
            const uint64_t first = random(PLACES), last = first + random(PLACES - first);
            symbols.push_back(symbol(std::to_string(n).c_str(), base + first, base + last, random(2) != 0));
        }
        const Symbol_Table table(symbols);
        for (uint64_t place = 0; place < PLACES; place++) {
            const Named_Range range = table.range_of(base + place);
            const Symbol *const expected = plain_search(symbols, base + place);
            ASSERT_TRUE(range.contains(base + place));
            ASSERT_EQ(range.symbol == nullptr ? "" : range.symbol->name, expected == nullptr ? "" : expected->name);
            for (uint64_t other = 0; other < PLACES; other++) {
                const Symbol *const there = plain_search(symbols, base + other);
                const bool beside = (range.first != 0 && base + other == range.first - 1) ||
                                    (range.last != ~uint64_t{0} && base + other == range.last + 1);
                ASSERT_TRUE(!range.contains(base + other) || there == expected);
                // A range without a name goes as far as there is none.
                ASSERT_TRUE(expected != nullptr || !beside || there != nullptr);
            }
        }
    }
}

TEST(symbol_table, without_symbols_no_address_has_a_name)
{
    EXPECT_EQ(name_at(Symbol_Table({}), 0), "-");
    EXPECT_EQ(name_at(Symbol_Table({}), ~uint64_t{0}), "-");
}

// ---- Maps ----------------------------------------------------------------------------------------------

TEST(symbol_map, takes_lines_as_nm_and_other_programs_print_them)
{
    const Symbol_File map = read_symbol_map("map", "# made by hand\n"
                                                   "c000000000001000 T first\n"
                                                   "0xc000000000001100 second\r\n"
                                                   "                 U elsewhere\n"
                                                   "                 w maybe_elsewhere\n"
                                                   "\n"
                                                   "c000000000001200 0000000000000020 t sized\n"
                                                   "c000000000001300 T operator new(unsigned long)\n"
                                                   "c000000000001400 t driver_open\t[driver]\n"
                                                   "0000000000000010 A constant");
    EXPECT_EQ(name_at(map, 0xc000000000001000), "first");
    EXPECT_EQ(name_at(map, 0xc0000000000010ff), "first");
    EXPECT_EQ(name_at(map, 0xc0000000000011ff), "second");
    EXPECT_EQ(name_at(map, 0xc00000000000121f), "sized");
    EXPECT_EQ(name_at(map, 0xc000000000001220), "-");
    EXPECT_EQ(name_at(map, 0xc000000000001304), "operator new(unsigned long)");
    EXPECT_EQ(name_at(map, 0xc000000000001400), "driver_open\t[driver]");
    EXPECT_EQ(name_at(map, 0x10), "-");
}

TEST(symbol_map, the_last_symbol_ends_with_its_4_KiB)
{
    const Symbol_File map = read_symbol_map("map", "1000 T last\n");
    EXPECT_EQ(name_at(map, 0x1fff), "last");
    EXPECT_EQ(name_at(map, 0x2000), "-");
}

TEST(symbol_map, a_symbol_without_a_size_names_nothing_within_one_that_has_a_size)
{
    const Symbol_File map = read_symbol_map("map", "1000 80 T function\n1040 t label\n1100 T next\n");
    EXPECT_EQ(name_at(map, 0x1050), "function");
    EXPECT_EQ(name_at(map, 0x1090), "-");
    EXPECT_EQ(name_at(map, 0x1100), "next");
}

// First and last addresses of the symbols, in order.
static std::vector<std::pair<uint64_t, uint64_t>> places_in(const char *map)
{
    std::vector<std::pair<uint64_t, uint64_t>> places;
    for (const Symbol &one : read_symbol_map("map", map).symbols)
        places.emplace_back(one.first, one.last);
    return places;
}

TEST(symbol_map, a_symbol_without_a_size_ends_directly_before_the_next_address_that_has_one)
{
    using Places = std::vector<std::pair<uint64_t, uint64_t>>;
    EXPECT_EQ(places_in("0 T zero\n1 1 T one\n"), (Places{{0, 0}, {1, 1}}));
    EXPECT_EQ(places_in("1000 T first\n1100 10 T next\n"), (Places{{0x1000, 0x10ff}, {0x1100, 0x110f}}));
    EXPECT_EQ(places_in("1000 T first\n1000 t second\n1100 10 T next\n1200 10 T other\n"),
              (Places{{0x1000, 0x10ff}, {0x1000, 0x10ff}, {0x1100, 0x110f}, {0x1200, 0x120f}}));
}

TEST(symbol_map, of_the_same_first_address_the_symbol_with_a_size_counts)
{
    EXPECT_EQ(places_in("1000 t label\n1000 10 T sized\n1100 10 T next\n"),
              (std::vector<std::pair<uint64_t, uint64_t>>{{0x1000, 0x100f}, {0x1100, 0x110f}}));
}

TEST(symbol_map, of_several_names_of_an_address_the_global_one_counts)
{
    const Symbol_File map = read_symbol_map("map", "1000 t local\n1000 W weak\n1000 T global\n1010 T next\n");
    EXPECT_EQ(name_at(map, 0x100f), "global");
    EXPECT_EQ(name_at(map, 0x1010), "next");
}

TEST(symbol_map, types_are_single_letters_and_everything_else_is_a_name)
{
    const auto name = [](const std::string &line) {
        return name_at(read_symbol_map("map", line + "\n8000 T other\n"), 0x1000);
    };
    EXPECT_EQ(name("1000 z last"), "last");
    EXPECT_EQ(name("1000 Z last"), "last");
    EXPECT_EQ(name("1000 b first"), "first");
    EXPECT_EQ(name("1000 [ x"), "[ x");
    EXPECT_EQ(name("1000 @ x"), "@ x");
    EXPECT_EQ(name("1000 TT x"), "TT x");
    EXPECT_EQ(name("1000 T"), "T");
    EXPECT_EQ(name("1000 20 t"), "20 t");
    EXPECT_EQ(name("1000 20 tt x"), "20 tt x");
    EXPECT_EQ(name("1000 20 t x"), "x");
    EXPECT_EQ(name("0X1000\tt\tx y \r"), "x y");
    EXPECT_EQ(name(" \t1000 T  x"), "x");
    EXPECT_EQ(name("  1000 T x \t\r"), "x");
    for (const char type : std::string("UAaNn"))
        EXPECT_EQ(name(std::string("1000 ") + type + " x"), "-") << type;
    for (const std::string line : {"U x", "w x", "v x"})
        EXPECT_EQ(name(line + "\n1000 T y"), "y") << line;
}

TEST(symbol_map, names_of_an_address_are_global_before_weak_before_local)
{
    for (const char *weak : {"V", "v", "W", "w"}) {
        const std::string line = std::string("1000 10 ") + weak + " weak\n";
        EXPECT_EQ(name_at(read_symbol_map("map", line + "1000 10 t local\n"), 0x1000), "weak") << weak;
        EXPECT_EQ(name_at(read_symbol_map("map", "1000 10 t local\n" + line), 0x1000), "weak") << weak;
        EXPECT_EQ(name_at(read_symbol_map("map", line + "1000 10 Z global\n"), 0x1000), "global") << weak;
    }
}

TEST(symbol_map, a_symbol_with_a_size_hides_labels_up_to_its_last_address)
{
    const Symbol_File map = read_symbol_map("map", "0 t zero\n1000 80 T sized\n107f t within\n1080 t after\n");
    EXPECT_EQ(name_at(map, 0), "zero");
    EXPECT_EQ(name_at(map, 0xfff), "zero");
    EXPECT_EQ(name_at(map, 0x107f), "sized");
    EXPECT_EQ(name_at(map, 0x1080), "after");
    EXPECT_EQ(map.symbols.size(), 3u);
}

TEST(symbol_map, a_symbol_may_have_a_single_address)
{
    const Symbol_File map = read_symbol_map("map", "0 1 T zero\n1 t one\n1000 1 T sized\n1fff t last\n");
    EXPECT_EQ(name_at(map, 0), "zero");
    EXPECT_EQ(name_at(map, 1), "one");
    EXPECT_EQ(name_at(map, 0x1000), "sized");
    EXPECT_EQ(name_at(map, 0x1001), "-");
    EXPECT_EQ(name_at(map, 0x1fff), "last");
    EXPECT_EQ(name_at(map, 0x2000), "-");
}

TEST(symbol_map, a_symbol_reaches_the_last_address_of_all_and_not_beyond)
{
    const Symbol_File map = read_symbol_map("map", "fffffffffffffff0 10 T top\nffffffffffffffe0 21 T too_long\n");
    ASSERT_EQ(map.symbols.size(), 1u);
    EXPECT_EQ(name_at(map, ~uint64_t{0}), "top");
}

TEST(symbol_map, one_symbol_may_stand_at_0_and_long_maps_are_read_whole)
{
    EXPECT_EQ(name_at(read_symbol_map("map", "0 T zero\n"), 0), "zero");
    std::string text;
    for (unsigned n = 0; n < 9000; n++)
        text += fmt::format("{:x} T symbol{}\n", 0x1000 + 16 * n, n);
    const Folder folder;
    const Symbol_File map = read_symbol_file(folder.text("long", text), {});
    EXPECT_EQ(map.symbols.size(), 9000u);
    EXPECT_EQ(name_at(map, 0x1000 + 16 * 8999), "symbol8999");
}

TEST(symbol_map, of_a_long_line_80_characters_are_shown)
{
    try {
        read_symbol_map("m", "y" + std::string(200, 'z'));
        ADD_FAILURE();
    } catch (const std::runtime_error &error) {
        EXPECT_EQ(error.what(), "m: line 1: `y" + std::string(79, 'z') +
                                    "` is not a symbol: ADDRESS [SIZE] [TYPE] NAME expected");
    }
}

TEST(symbol_map, a_line_that_is_no_symbol_is_refused_with_its_number)
{
    for (const char *line : {"main", "zzzz T main", "1000", "1000 ", "12345678123456781 T main"})
        try {
            read_symbol_map("my.map", "1000 T fine\n" + std::string(line) + "\n");
            ADD_FAILURE() << line;
        } catch (const std::runtime_error &error) {
            EXPECT_THAT(error.what(), testing::StartsWith("my.map: line 2: `"));
            EXPECT_THAT(error.what(), HasSubstr("is not a symbol: ADDRESS [SIZE] [TYPE] NAME expected"));
        }
}

TEST(symbol_map, without_a_symbol_is_refused)
{
    const Folder folder;
    EXPECT_EQ(refusal(folder.text("empty", "")), folder.path("empty") + ": no symbols");
    EXPECT_EQ(refusal(folder.text("comment", "# nothing\n")), folder.path("comment") + ": no symbols");
    EXPECT_EQ(refusal(folder.path("absent")), folder.path("absent") + ": No such file or directory");
    EXPECT_THAT(refusal(folder.path("")), HasSubstr("Is a directory"));
}

TEST(symbol_map, whose_addresses_are_hidden_is_refused)
{
    const Folder folder;
    EXPECT_THAT(refusal(folder.text("kallsyms", "0000000000000000 T a\n0000000000000000 T b\n")),
                HasSubstr("every address is 0"));
}

TEST(symbol_map, has_no_load_address)
{
    const Folder folder;
    EXPECT_THAT(refusal(folder.text("map", "1000 T main\n"), 0), HasSubstr("is no ELF file"));
}

TEST(symbol_map, may_come_through_a_pipe)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "1000 T piped\n", 13), 13);
    close(ends[1]);
    EXPECT_EQ(name_at(read_symbol_file("/dev/fd/" + std::to_string(ends[0]), {}), 0x1000), "piped");
    close(ends[0]);
}

// As a process has it that was started without a standard input.
TEST(symbol_map, may_be_the_first_file_that_is_open)
{
    const Folder folder;
    const std::string map = folder.text("map", "1000 T first\n");
    const int input = dup(0);
    close(0);
    EXPECT_EQ(name_at(read_symbol_file(map, {}), 0x1000), "first");
    EXPECT_EQ(dup2(input, 0), 0);
    close(input);
}

// ---- ELF files -----------------------------------------------------------------------------------------

TEST(symbol_elf, is_read_in_either_byte_order_and_word_length)
{
    for (const bool big_endian : {false, true})
        for (const bool wide : {false, true}) {
            const Symbol_File file = read_elf(
                {big_endian, wide}, {{"main", 0x10100, 0x40}, {"helper", 0x10200, 0x10, FUNCTION, LOCAL_BIND}});
            EXPECT_THAT(file.remarks, IsEmpty());
            EXPECT_EQ(name_at(file, 0x100ff), "-");
            EXPECT_EQ(name_at(file, 0x1013f), "main");
            EXPECT_EQ(name_at(file, 0x10140), "-");
            EXPECT_EQ(name_at(file, 0x1020c), "helper");
        }
}

TEST(symbol_elf, moves_with_its_load_address)
{
    const std::vector<Elf_Symbol> symbols = {{"main", 0x10100, 0x40}};
    const Symbol_File up = read_elf({.type = 3}, symbols, 0xc000000000000000);
    EXPECT_EQ(name_at(up, 0xc000000000000100), "main");
    EXPECT_EQ(name_at(up, 0x10100), "-");
    EXPECT_EQ(name_at(read_elf({}, symbols, 0), 0x100), "main");
}

TEST(symbol_elf, is_loaded_with_the_lowest_of_its_segments_at_the_load_address)
{
    const std::vector<Elf_Symbol> symbols = {{"main", 0x10100, 0x40}};
    for (const auto &segments :
         std::vector<std::vector<std::pair<unsigned, uint64_t>>>{{{6, 0x400}, {1, TEXT_AT}},
                                                                 {{1, SECOND_AT}, {6, 0x400}, {1, TEXT_AT}},
                                                                 {{1, TEXT_AT}, {1, SECOND_AT}, {6, 0x400}}})
        EXPECT_EQ(name_at(read_elf({.segments = segments}, symbols, 0x7000), 0x7100), "main");
}

TEST(symbol_elf, the_end_of_a_section_moves_with_its_load_address)
{
    const Symbol_File file = read_elf({}, {{"last", 0x10ff0, 0}}, 0x7000);
    EXPECT_EQ(name_at(file, 0x7fff), "last");
    EXPECT_EQ(name_at(file, 0x8000), "-");
}

TEST(symbol_elf, leaves_out_what_is_no_place_of_the_program)
{
    const Symbol_File file = read_elf({}, {{"main", 0x10100, 0x40},
                                           {"file.c", 0x10200, 0x10, 4, LOCAL_BIND},
                                           {"elsewhere", 0x10210, 0x10, FUNCTION, GLOBAL_BIND, UNDEFINED},
                                           {"constant", 0x10220, 0x10, NO_TYPE, GLOBAL_BIND, ABSOLUTE},
                                           {".L1", 0x10230, 0x10, NO_TYPE, LOCAL_BIND},
                                           {"", 0x10240, 0x10}});
    ASSERT_EQ(file.symbols.size(), 1u);
    EXPECT_EQ(file.symbols[0].name, "main");
}

TEST(symbol_elf, a_symbol_without_a_size_reaches_to_the_next_one_or_the_end_of_its_section)
{
    const Symbol_File file = read_elf({}, {{"start", 0x10000, 0, NO_TYPE},
                                           {"main", 0x10100, 0x40},
                                           {"label", 0x10120, 0, NO_TYPE, LOCAL_BIND},
                                           {"last", 0x10ff0, 0},
                                           {"last_byte", 0x10fff, 0},
                                           {"end_of_code", 0x11000, 0, NO_TYPE}});
    EXPECT_EQ(name_at(file, 0x100ff), "start");
    EXPECT_EQ(name_at(file, 0x10130), "main");
    EXPECT_EQ(name_at(file, 0x10140), "-");
    EXPECT_EQ(name_at(file, 0x10ffe), "last");
    EXPECT_EQ(name_at(file, 0x10fff), "last_byte");
    EXPECT_EQ(name_at(file, 0x11000), "-");
    EXPECT_THAT(file.remarks,
                ElementsAre(HasSubstr("program: 4 of 5 symbols have no size; they reach to the next one")));
}

TEST(symbol_elf, a_symbol_without_a_size_names_nothing_in_an_empty_section)
{
    const Symbol_File file =
        read_elf({}, {{"main", 0x10100, 0x40}, {"data_start", 0x1000, 0, NO_TYPE, GLOBAL_BIND, 2}});
    ASSERT_EQ(file.symbols.size(), 1u);
    EXPECT_EQ(file.symbols[0].name, "main");
}

TEST(symbol_elf, says_how_many_symbols_overlap)
{
    const Symbol_File file =
        read_elf({}, {{"outer", 0x10000, 0x100}, {"inner", 0x10010, 0x10}, {"alias", 0x10010, 0x10}});
    EXPECT_EQ(name_at(file, 0x10010), "inner");
    EXPECT_EQ(name_at(file, 0x10020), "outer");
    EXPECT_THAT(file.remarks,
                ElementsAre(HasSubstr("1 of 3 symbols begin within another one; the last to begin counts")));
}

TEST(symbol_elf, symbols_that_only_touch_do_not_overlap)
{
    EXPECT_THAT(read_elf({}, {{"zero", 0, 0x10}, {"a", 0x10000, 0x10}, {"b", 0x10010, 0x10}}).remarks, IsEmpty());
    EXPECT_THAT(read_elf({}, {{"a", 0x10000, 0x11}, {"b", 0x10010, 0x10}}).remarks,
                ElementsAre(HasSubstr("1 of 2 symbols begin within")));
    EXPECT_THAT(
        read_elf({}, {{"outer", 0x10000, 0x100}, {"a", 0x10010, 0x10}, {"b", 0x10040, 0x10}, {"c", 0x10080, 0}})
            .remarks,
        ElementsAre(HasSubstr("1 of 4 symbols have no size"), HasSubstr("2 of 4 symbols begin within")));
}

TEST(symbol_elf, functions_objects_and_labels_of_loaded_sections_are_symbols)
{
    for (unsigned type = 0; type <= 12; type++) {
        const Symbol_File file = read_elf({}, {{"it", 0x10100, 0x10, type}, {"main", 0x10200, 0x10}});
        const bool is_place = type <= 2 || type == 10; // label, object, function, function chosen when loaded
        EXPECT_EQ(name_at(file, 0x10100), is_place ? "it" : "-") << type;
    }
    for (const uint16_t section : std::initializer_list<uint16_t>{0, 3, 4, 6, 7, 0xFFF2}) {
        const Symbol_File file =
            read_elf({}, {{"it", 0x10100, 0x10, FUNCTION, GLOBAL_BIND, section}, {"main", 0x10200, 0x10}});
        EXPECT_EQ(name_at(file, 0x10100), "-") << section;
    }
}

TEST(symbol_elf, names_of_an_address_are_global_before_weak_before_local_before_labels)
{
    const std::vector<Elf_Symbol> order = {
        {"global", 0x10000, 4, FUNCTION, GLOBAL_BIND},  {"weak", 0x10000, 4, FUNCTION, WEAK_BIND},
        {"local", 0x10000, 4, FUNCTION, LOCAL_BIND},    {"global_label", 0x10000, 4, NO_TYPE, GLOBAL_BIND},
        {"weak_label", 0x10000, 4, NO_TYPE, WEAK_BIND}, {"local_label", 0x10000, 4, NO_TYPE, LOCAL_BIND}};
    for (size_t first = 0; first + 1 < order.size(); first++)
        EXPECT_EQ(name_at(read_elf({}, {order[first + 1], order[first]}), 0x10000), order[first].name);
}

TEST(symbol_elf, descriptors_are_read_up_to_the_last_whole_one)
{
    const auto at = [](uint64_t place) -> Elf_Symbol {
        return {"it", SECOND_AT + place, 0, FUNCTION, GLOBAL_BIND, DESCRIPTORS};
    };
    const Elf_Symbol other = {"other", 0x18000, 0x10};
    const Elf_Shape shape = {.second = ".opd", .words = {0x12304, 0, 0x14504}};
    EXPECT_EQ(name_at(read_elf(shape, {at(0), other}), 0x12304), "it");
    EXPECT_EQ(name_at(read_elf(shape, {at(0), other}), 0x12fff), "it"); // without a size: to the end of its 4 KiB
    EXPECT_EQ(name_at(read_elf(shape, {at(0), other}), 0x13000), "-");
    EXPECT_EQ(name_at(read_elf(shape, {at(16), other}), 0x14504), "it");
    for (const uint64_t nowhere : {8, 17, 24, -8}) // 8: its code is at 0, which means that there is none
        EXPECT_EQ(read_elf(shape, {at(nowhere), other}).symbols.size(), 1u) << nowhere;
    EXPECT_EQ(read_elf({.second = ".opd", .words = {}}, {at(0), other}).symbols.size(), 1u);
    EXPECT_EQ(name_at(read_elf({.second = ".opx", .words = {0x12304, 0, 0}}, {at(8)}), SECOND_AT + 8), "it");
}

TEST(symbol_elf, descriptors_have_addresses_of_eight_bytes)
{
    const Elf_Symbol function = {"it", SECOND_AT, 0x10, FUNCTION, GLOBAL_BIND, DESCRIPTORS},
                     other = {"other", 0x18000, 0x10};
    for (const bool big_endian : {false, true}) {
        const Elf_Shape shape = {.big_endian = big_endian, .second = ".opd", .words = {0xC100000000012304}};
        EXPECT_EQ(name_at(read_elf(shape, {function, other}), 0xC100000000012304), "it");
    }
    std::string cut = elf({.second = ".opd", .words = {0xC100000000012304}}, {function, other});
    uint64_t sections;
    std::memcpy(&sections, &cut[40], sizeof sections);
    ASSERT_EQ(cut.at(sections + 2 * 64 + 32), 8); // bytes in the section
    cut[sections + 2 * 64 + 32] = 7;
    const Folder folder;
    EXPECT_EQ(read_symbol_file(folder.text("cut", cut), {}).symbols.size(), 1u);
}

TEST(symbol_elf, a_load_address_needs_a_segment_that_is_loaded)
{
    const Folder folder;
    const std::string file = folder.text("program", elf({.segments = {{6, TEXT_AT}}}, {{"main", 0x10100, 0x40}}));
    EXPECT_EQ(refusal(file, 0), file + ": has no segments that are loaded, so that a load address means nothing");
    EXPECT_EQ(refusal(file), "it was read");
}

TEST(symbol_elf, a_typed_symbol_names_an_address_rather_than_a_label)
{
    EXPECT_EQ(
        name_at(read_elf({}, {{"label", 0x10000, 4, NO_TYPE}, {"function", 0x10000, 4, FUNCTION, LOCAL_BIND}}),
                0x10000),
        "function");
}

TEST(symbol_elf, functions_are_found_through_their_descriptors)
{
    for (const bool big_endian : {true, false}) {
        const Symbol_File file =
            read_elf({.big_endian = big_endian, .second = ".opd", .words = {0x10100, 0, 0}},
                     {{"main", SECOND_AT, 0x40, FUNCTION, GLOBAL_BIND, DESCRIPTORS},
                      {"not_there", SECOND_AT + 0x800, 0x40, FUNCTION, GLOBAL_BIND, DESCRIPTORS}},
                     0xc000000000000000);
        EXPECT_EQ(name_at(file, 0xc000000000000104), "main");
        EXPECT_EQ(file.symbols.size(), 1u);
    }
}

TEST(symbol_elf, a_stripped_file_is_refused_unless_it_has_symbols_of_the_dynamic_linker)
{
    const Folder folder;
    EXPECT_EQ(refusal(folder.text("stripped", elf({.table = 0}, {{"main", 0x10100, 0x40}}))),
              folder.path("stripped") + ": no symbols: the file was stripped");
    const Symbol_File dynamic = read_elf({.table = 11}, {{"main", 0x10100, 0x40}});
    EXPECT_EQ(name_at(dynamic, 0x10100), "main");
    EXPECT_THAT(dynamic.remarks, ElementsAre(HasSubstr("only the symbols of the dynamic linker are left")));
}

TEST(symbol_elf, without_symbols_of_use_is_refused)
{
    const Folder folder;
    EXPECT_THAT(refusal(folder.text("none", elf({}, {}))), HasSubstr("no symbols of code or data"));
    EXPECT_THAT(refusal(folder.text("object", elf({.type = 1}, {{"main", 0x100, 0x40}}))),
                HasSubstr("is not linked"));
    const std::string cut = refusal(folder.text("cut", elf({}, {{"main", 0x10100, 0x40}}).substr(0, 100)));
    EXPECT_NE(cut, "it was read");
    EXPECT_THAT(cut, testing::Not(HasSubstr("unknown error")));
}

// Whatever lies in memory after the last section that there is.
TEST(symbol_elf, sections_that_do_not_exist_hold_no_symbols)
{
    const Folder folder;
    const std::string file =
        folder.text("program", elf({}, {{"it", 0x10100, 0x10, FUNCTION, GLOBAL_BIND, 6}, {"main", 0x10200, 0x10}}));
    {
        std::vector<std::unique_ptr<char[]>> filled;
        for (size_t size = 16; size <= 1024; size += 16)
            for (int i = 0; i < 4; i++) {
                filled.push_back(std::make_unique_for_overwrite<char[]>(size));
                std::memset(filled.back().get(), 0xFF, size);
            }
    }
    EXPECT_EQ(name_at(read_symbol_file(file, {}), 0x10100), "-");
}

TEST(symbol_elf, that_cannot_be_read_is_refused_with_the_reason)
{
    const Folder folder;
    std::string header = elf({}, {{"main", 0x10100, 0x40}}).substr(0, 100);
    const std::string cut = folder.text("cut", header.substr(0, 40));
    header[62] = header[63] =
        '\xFF'; // the number of the section with their names is in a section that is not there
    const std::string nameless = folder.text("nameless", header);
    for (const std::string &file : {cut, nameless}) {
        EXPECT_THAT(refusal(file), testing::StartsWith(file + ": invalid "));
        EXPECT_THAT(refusal(file), testing::Not(HasSubstr("unknown error")));
    }
}

TEST(symbol_elf, any_damaged_byte_is_survived)
{
    const Folder folder;
    const std::string whole =
        elf({.big_endian = true, .second = ".opd", .words = {0x10100, 0, 0}},
            {{"main", SECOND_AT, 0x40, FUNCTION, GLOBAL_BIND, DESCRIPTORS}, {"start", 0x10000, 0, NO_TYPE}});
    for (size_t i = 4; i < whole.size(); i++) {
        std::string damaged = whole;
        damaged[i] = static_cast<char>(damaged[i] ^ 0xFF);
        EXPECT_THAT(refusal(folder.text("damaged", damaged), 0), testing::Not(IsEmpty()));
    }
}

// ---- Partitions and processes --------------------------------------------------------------------------

namespace
{

QTRACE_FILE_HDR under(uint8_t lpid, uint8_t pid)
{
    QTRACE_FILE_HDR header{};
    header.lpid[0] = lpid;
    header.pid[0] = pid;
    return header;
}

class Silent_Run
{
public:
    Silent_Run() : null_(open("/dev/null", O_WRONLY)), run(null_, null_) {}
    ~Silent_Run() { close(null_); }

private:
    int null_;

public:
    Tool_Run run;
};

} // namespace

TEST(symbol_names, belong_to_partitions_and_processes_the_most_specific_first)
{
    const Folder folder;
    Symbol_Options options;
    options.add(folder.text("all", "1000 10 T all\n2000 10 T shared\n"));
    options.add("lpid=1:" + folder.text("partition", "1000 10 T partition\n"));
    options.add("pid=0x2:" + folder.text("process", "1000 10 T process\n"));
    options.add("lpid=1,pid=2:" + folder.text("both", "1000 10 T both\n"));
    Silent_Run silent;
    const Symbol_Names names(silent.run, options);
    Name_Finder finder(names);
    const auto name_under = [&](uint8_t lpid, uint8_t pid) {
        const QTRACE_FILE_HDR header = under(lpid, pid);
        finder.enter(&header);
        EXPECT_EQ(finder.text(0x2004), "shared+0x4");
        return finder.text(0x1000);
    };
    EXPECT_EQ(name_under(1, 2), "both+0x0");
    EXPECT_EQ(name_under(3, 2), "process+0x0");
    EXPECT_EQ(name_under(1, 7), "partition+0x0");
    EXPECT_EQ(name_under(4, 4), "all+0x0");
    EXPECT_EQ(name_under(1, 2), "both+0x0");
    finder.enter(Address_Space{});
    EXPECT_EQ(finder.text(0x1000), "all+0x0");
    EXPECT_EQ(finder.text(0x1010), "");
}

TEST(symbol_names, of_the_first_addresses_are_found_first)
{
    const Folder folder;
    Symbol_Options options;
    options.add(folder.text("all", "0 4 T zero\n4 10 T four\n"));
    options.add("lpid=0,pid=0:" + folder.text("first", "8 4 T eight\n"));
    Silent_Run silent;
    const Symbol_Names names(silent.run, options);
    for (const auto &[address, name] :
         {std::pair<uint64_t, const char *>(0, "zero+0x0"), {1, "zero+0x1"}, {2, "zero+0x2"}}) {
        Name_Finder finder(names);
        finder.enter(nullptr);
        EXPECT_EQ(finder.text(address), name);
    }
    Name_Finder finder(names);
    finder.enter(Address_Space{});
    EXPECT_EQ(finder.text(8), "four+0x4"); // nobody's address
    const QTRACE_FILE_HDR header = under(0, 0);
    finder.enter(&header);
    EXPECT_EQ(finder.text(8), "eight+0x0");
}

TEST(symbol_names, a_file_whose_name_begins_like_a_scope_needs_a_folder)
{
    Symbol_Options options;
    options.add("./pid=2");
    EXPECT_EQ(options.files[0].name, "./pid=2");
    options.add("lpid=0x10:a:b");
    EXPECT_EQ(options.files[1].name, "a:b");
    EXPECT_EQ(options.files[1].lpid, 0x10u);
    EXPECT_FALSE(options.files[1].pid);
    options.add("pid=19:c");
    EXPECT_EQ(options.files[2].pid, 19u);
    for (const char *wrong : {"pid=x:FILE", "pid=:FILE", "lpid=1", "lpid=1,cpu=2:FILE", "lpid=1 :FILE"})
        EXPECT_THROW(options.add(wrong), std::invalid_argument) << wrong;
}

// ---- Counts of functions --------------------------------------------------------------------------------

TEST(function_counts, most_instructions_come_first_then_lower_addresses)
{
    const Folder folder;
    Symbol_Options options;
    options.add(folder.text("map", "1000 10 T f\n2000 10 T g\n3000 10 T h\n"));
    Silent_Run silent;
    const Symbol_Names names(silent.run, options);
    qtrace_tool::Function_Counts counts(names), more(names);
    EXPECT_TRUE(counts.any());
    QTRACE_Item item{};
    const auto add = [&](qtrace_tool::Function_Counts &to, uint64_t address, bool known = true) {
        item.address = address;
        item.address_known = known;
        to.add(item, nullptr);
    };
    const auto top = [&](size_t count) {
        std::string text;
        for (const auto &[symbol, times] : counts.top(count))
            text += fmt::format("{} {}, ", symbol != nullptr ? symbol->name : "none", times);
        return text;
    };
    for (const uint64_t address : {0x3004, 0x2000, 0x1004, 0x1008, 0x2008, 0x5000, 0x3008})
        add(counts, address);
    add(counts, 0x1000, false);
    EXPECT_EQ(top(9), "none 2, f 2, g 2, h 2, ");
    EXPECT_EQ(top(3), "none 2, f 2, g 2, ");
    add(more, 0x2000);
    add(more, 0x2000);
    add(more, 0x3000);
    counts.add(more);
    EXPECT_EQ(top(9), "g 4, h 3, none 2, f 2, ");
}

TEST(function_counts, instructions_without_a_name_come_before_as_many_of_a_function_at_0)
{
    const Folder folder;
    Symbol_Options options;
    options.add(folder.text("map", "0 10 T zero\n"));
    Silent_Run silent;
    const Symbol_Names names(silent.run, options);
    qtrace_tool::Function_Counts counts(names);
    QTRACE_Item item{};
    for (const uint64_t address : {0x5000, 0x4}) {
        item.address = address;
        item.address_known = true;
        counts.add(item, nullptr);
    }
    const auto top = counts.top(9);
    ASSERT_EQ(top.size(), 2u);
    EXPECT_EQ(top[0].first, nullptr);
    ASSERT_NE(top[1].first, nullptr);
    EXPECT_EQ(top[1].first->name, "zero");
    EXPECT_EQ(top[1].second, 1u);
}

// As when all of them have the same library at the same address.
TEST(function_counts, of_functions_that_40_processes_have_at_one_address_are_kept_apart)
{
    const Folder folder;
    const std::string map = folder.text("map", "1000 10 T f\n");
    Symbol_Options options;
    for (int pid = 1; pid <= 40; pid++)
        options.add(fmt::format("pid={}:{}", pid, map));
    Silent_Run silent;
    const Symbol_Names names(silent.run, options);
    qtrace_tool::Function_Counts counts(names);
    QTRACE_Item item{};
    item.address = 0x1004;
    item.address_known = true;
    for (uint8_t pid = 1; pid <= 40; pid++) {
        QTRACE_FILE_HDR header = planted::good_trace()[planted::PARTITION].header;
        header.pid[0] = pid;
        counts.add(item, &header);
    }
    const auto top = counts.top(99);
    EXPECT_EQ(top.size(), 40u);
    std::set<const Symbol *> met;
    for (const auto &[symbol, times] : top) {
        EXPECT_EQ(times, 1u);
        ASSERT_NE(symbol, nullptr);
        EXPECT_EQ(symbol->name, "f");
        met.insert(symbol);
    }
    EXPECT_EQ(met.size(), 40u);
}

// ---- What commands show --------------------------------------------------------------------------------

namespace
{

// A trace and two maps: one for all, one for partition 2 alone.
class Named_Trace
{
    Folder folder_;

public:
    std::string trace = folder_.write("trace0", planted::good_trace());
    std::string map = folder_.text("map", "1000 10 T start\n2000 20 T common\n5000 10 D table\n");
    std::string guest = "lpid=2:" + folder_.text("guest", "2000 20 T guest\n");

    planted::Outcome run(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.end(), {"--symbols", map, "--symbols", guest});
        return planted::qtrace(arguments);
    }
    // The same with one item changed.
    template <class Change> std::string changed(planted::Place place, Change change) const
    {
        planted::Trace items = planted::good_trace();
        change(items[place]);
        return folder_.write("changed0", items);
    }
    std::string path(const std::string &name) const { return folder_.path(name); }
};

// Adds a register that the instruction writes.
void write_register(planted::Item &item)
{
    item.record.header.control.fld.register_trace_present = 1;
    item.record.regs.num_gprs_out = 1;
    item.record.regs.gpr_out[0] = {3, 0x77};
}

} // namespace

TEST(commands_with_symbols, dump_names_instructions_and_the_addresses_that_they_use)
{
    const Named_Trace named;
    const std::string out = named.run({"dump", named.trace}).out;
    EXPECT_THAT(out, HasSubstr("header address 0000000000001000 <start+0x0> "));
    EXPECT_THAT(
        out, HasSubstr(" 0000000000001004 e8640008 --- <start+0x4> data 0000000000005008 <table+0x8> none/radix"));
    EXPECT_THAT(out, HasSubstr(" <start+0x8> next 0000000000002000 <common+0x0> "));
    EXPECT_THAT(out, HasSubstr(" 0000000000003004 60000000 ---\n"));
}

TEST(commands_with_symbols, dump_takes_the_names_of_the_partition_that_runs)
{
    const Named_Trace named;
    const std::string out = named.run({"dump", named.trace}).out;
    EXPECT_THAT(out, HasSubstr(" 0000000000002004 41820010 -NT <common+0x4>"));
    EXPECT_THAT(out, HasSubstr(" 0000000000002008 7c6484aa --- <guest+0x8>"));
}

TEST(commands_with_symbols, dump_in_json_has_names_under_keys_of_their_own)
{
    const Named_Trace named;
    const std::string out = named.run({"dump", "--json", named.trace}).out;
    EXPECT_THAT(out, HasSubstr("\"record\":1,\"address\":\"0x1004\",\"symbol\":\"start+0x4\""));
    EXPECT_THAT(out, HasSubstr("\"data_ea\":\"0x5008\",\"data_symbol\":\"table+0x8\""));
    EXPECT_THAT(out, HasSubstr("\"next_instruction_ea\":\"0x2000\",\"next_symbol\":\"common+0x0\""));
    EXPECT_THAT(out, HasSubstr("\"iar\":\"0x1000\",\"symbol\":\"start+0x0\""));
    EXPECT_THAT(planted::qtrace({"dump", "--json", named.trace}).out, testing::Not(HasSubstr("symbol\":")));
}

TEST(commands_with_symbols, stats_counts_instructions_by_function)
{
    const Named_Trace named;
    EXPECT_THAT(named.run({"stats", named.trace}).out, HasSubstr("hot functions (instructions)\n"
                                                                 "             4   36.4 %  (no symbol)\n"
                                                                 "             3   27.3 %  start\n"
                                                                 "             2   18.2 %  common\n"
                                                                 "             2   18.2 %  guest\n"));
    const std::string json = named.run({"stats", "--json", "--pid", "8", named.trace}).out;
    EXPECT_THAT(json, HasSubstr("\"hot_functions\":[{\"symbol\":null,\"instructions\":2},"
                                "{\"symbol\":\"guest\",\"address\":\"0x2000\",\"instructions\":2}]"));
    EXPECT_THAT(planted::qtrace({"stats", named.trace}).out, testing::Not(HasSubstr("hot functions")));
}

TEST(commands_with_symbols, stats_names_branch_targets)
{
    const Named_Trace named;
    const auto out = planted::qtrace({"stats", "--symbols", named.map, named.trace}).out;
    EXPECT_THAT(out, HasSubstr("  0000000000002000                      1 <common+0x0>\n"));
}

TEST(commands_with_symbols, stats_adds_functions_up_over_threads_and_groups_of_blocks)
{
    const Named_Trace named;
    const std::string out = named.run({"stats", named.trace, named.trace}).out;
    EXPECT_THAT(out, HasSubstr("             6   27.3 %  start\n"));
}

TEST(commands_with_symbols, check_names_the_place_of_a_finding)
{
    const Named_Trace named;
    const std::string wrong = named.changed(
        planted::STRING, [](planted::Item &item) { item.record.header.control.fld.length_present = 0; });
    const auto outcome = named.run({"check", wrong});
    EXPECT_EQ(outcome.exit_code, 3);
    EXPECT_THAT(outcome.out, HasSubstr("record 5 at 0000000000002008 <guest+0x8>: "));
    EXPECT_THAT(named.run({"check", "--json", wrong}).out,
                HasSubstr("\"record\":5,\"address\":\"0x2008\",\"symbol\":\"guest+0x8\",\"sentence\""));
}

TEST(commands_with_symbols, diff_names_the_place_of_a_difference_and_its_records)
{
    const Named_Trace named;
    const std::string other = named.changed(planted::CALL, write_register);
    const std::string out = named.run({"diff", named.trace, other}).out;
    EXPECT_THAT(out, HasSubstr("at record 6 | 6 (000000000000200c <guest+0xc>): registers\n"));
    EXPECT_THAT(out, HasSubstr("\n-         6 000000000000200c 48000ff5 INU <guest+0xc> next"));
    EXPECT_THAT(named.run({"diff", "--json", named.trace, other}).out,
                HasSubstr("\"address\":\"0x200c\",\"symbol\":\"guest+0xc\",\"kinds\""));
}

TEST(commands_with_symbols, a_report_lists_the_hottest_functions_and_names_hot_places)
{
    const Named_Trace named;
    const Folder folder;
    EXPECT_EQ(named.run({"report", "-o", folder.path("page.html"), named.trace}).exit_code, 0);
    const std::string page = folder.contents("page.html");
    EXPECT_THAT(page, HasSubstr("aria-label=\"Hot functions\""));
    EXPECT_THAT(page, HasSubstr("start+0x4"));
    EXPECT_EQ(planted::qtrace({"report", "-o", folder.path("plain.html"), named.trace}).exit_code, 0);
    EXPECT_THAT(folder.contents("plain.html"), testing::Not(HasSubstr("aria-label=\"Hot functions\"")));
}

TEST(commands_with_symbols, a_load_address_belongs_to_the_file_before_it)
{
    const Named_Trace named;
    const Folder folder;
    const std::string program =
        folder.text("program", elf({}, {{"entry", 0x10000, 0x10}, {"helper", 0x11000, 0x10}}));
    const auto dump = [&](const std::vector<std::string> &options) {
        std::vector<std::string> arguments = {"dump", named.trace};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return planted::qtrace(arguments);
    };
    const std::string out = dump({"--symbols", program, "--load-address", "1000", "--symbols", "pid=8:" + program,
                                  "--load-address=0x2000"})
                                .out;
    EXPECT_THAT(out, HasSubstr(" 0000000000001004 e8640008 --- <entry+0x4>"));
    EXPECT_THAT(out, HasSubstr(" 0000000000002004 41820010 -NT <helper+0x4>"));
    EXPECT_THAT(out, HasSubstr(" 0000000000002008 7c6484aa --- <entry+0x8>"));
    for (const std::vector<std::string> &wrong :
         std::vector<std::vector<std::string>>{{"--load-address", "0"},
                                               {"--symbols", program, "--load-address", "0", "--load-address", "0"},
                                               {"--symbols", program, "--load-address", "here"},
                                               {"--symbols", "pid=x:" + program}})
        EXPECT_EQ(dump(wrong).exit_code, 2);
}

TEST(commands_with_symbols, files_that_name_nothing_are_an_error_before_anything_is_printed)
{
    const Named_Trace named;
    for (const std::string command : {"dump", "stats", "check"})
        for (const std::string &file : {named.path("absent"), named.path("map") + "0"}) {
            const auto outcome = planted::qtrace({command, named.trace, "--symbols", file});
            EXPECT_EQ(outcome.exit_code, 1);
            EXPECT_EQ(outcome.out, "");
            EXPECT_EQ(outcome.err, "qtrace: " + file + ": No such file or directory\n");
        }
}

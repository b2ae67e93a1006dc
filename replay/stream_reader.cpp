#include "stream_reader.h"

#include "commit_stream_writer.h"
#include "printable.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <simdjson.h>
#include <span>
#include <type_traits>

namespace replay
{

namespace
{

namespace json = simdjson::ondemand;

// Thrown while a line is read; the reader adds line and key.
struct Refusal {
    std::string expected;
    std::string found;
};

// ---- values ---------------------------------------------------------------------------------------------

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

// The value as it stands in the line; tokens reach up to what comes next.
std::string_view without_blanks_after(std::string_view token)
{
    while (!token.empty() && token.back() <= ' ' && is_blank(token.back()))
        token.remove_suffix(1);
    return token;
}

// The value for an error: shortened, printable.
std::string shown(std::string_view token)
{
    constexpr size_t LONGEST = 40;
    token = without_blanks_after(token);
    if (token.starts_with('{'))
        return "an object";
    if (token.starts_with('['))
        return "a list";
    const std::string text = printable(token.substr(0, LONGEST));
    return token.size() > LONGEST ? text + "..." : text;
}

[[noreturn]] void refuse(std::string expected, std::string_view token)
{
    throw Refusal{std::move(expected), shown(token)};
}

// A number without its sign. `wrong` is 0 when what was read is one. Two words are returned in registers; a flag
// beside a word, as in std::optional, goes through memory, and the processor waits for it.
struct Magnitude {
    uint64_t value;
    uint64_t wrong;
};

using Digits = uint8_t __attribute__((vector_size(16)));
using Digit_Pairs = uint16_t __attribute__((vector_size(16)));
using Digit_Words = uint64_t __attribute__((vector_size(16)));

constexpr size_t MOST_DIGITS = sizeof(Digits);

template <class Vector> Vector vector_at(const void *from)
{
    Vector vector;
    std::memcpy(&vector, from, sizeof vector);
    return vector;
}

// Read at MOST_DIGITS - n, it keeps the first n bytes.
constexpr std::array<uint8_t, 2 *MOST_DIGITS> KEPT = [] {
    std::array<uint8_t, 2 * MOST_DIGITS> kept{};
    std::fill_n(kept.begin(), MOST_DIGITS, uint8_t{0xFF});
    return kept;
}();

// What the `count` (1 to 16) hexadecimal digits at `at` stand for; sixteen bytes can be read. All are converted at once:
// numbers differ in length, and the processor cannot foresee where a loop would end.
inline Magnitude digits_at(const char *at, size_t count)
{
    static_assert(std::endian::native == std::endian::little, "a big-endian machine needs the digits swapped");
    const auto text = vector_at<Digits>(at);
    const auto kept = vector_at<Digits>(&KEPT[MOST_DIGITS - count]);
    const Digits digits = text - '0', letters = (text | 0x20) - 'a';
    const auto is_digit = reinterpret_cast<Digits>(digits < 10), is_letter = reinterpret_cast<Digits>(letters < 6);
    const auto wrong = reinterpret_cast<Digit_Words>(~(is_digit | is_letter) & kept);
    const auto values = reinterpret_cast<Digit_Pairs>(((digits & is_digit) | ((letters + 10) & is_letter)) & kept);
    const auto bytes = reinterpret_cast<Digits>((values << 4 | values >> 8) & 0xFF); // one of each pair
    const auto packed = reinterpret_cast<Digit_Words>(
        __builtin_shufflevector(bytes, bytes, 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30));
    return {__builtin_bswap64(packed[0]) >> 4 * (MOST_DIGITS - count), wrong[0] | wrong[1]};
}

// "0x" and 1 to 16 digits, between quotes.
inline Magnitude hexadecimal_of(std::string_view token)
{
    constexpr std::string_view BEGIN = "\"0x";
    const size_t count = token.size() - BEGIN.size() - 1; // huge for what is shorter
    if (std::memcmp(token.data(), BEGIN.data(), BEGIN.size()) != 0 || count - 1 >= MOST_DIGITS)
        return {0, 1};
    return digits_at(token.data() + BEGIN.size(), count);
}

// A JSON number without sign, fraction and exponent.
Magnitude decimal_of(std::string_view token)
{
    uint64_t value = 0;
    const char *end = token.data() + token.size();
    const auto [stop, error] = std::from_chars(token.data(), end, value);
    const bool leading_zero = token.size() > 1 && token[0] == '0';
    return {value, error != std::errc{} || stop != end || leading_zero};
}

// What a decimal digit stands for; 10 or more for any other byte.
inline unsigned digit_of(char c)
{
    return static_cast<unsigned char>(c) - unsigned{'0'};
}

[[noreturn]] void refuse_number(int64_t least, uint64_t most, std::string_view token)
{
    refuse(fmt::format("{} to {}, as a number or \"0x...\"", least, most), token);
}

// A number that fits Integer, given as one.
template <class Integer> [[gnu::noinline]] Integer decimal_as(std::string_view token)
{
    constexpr auto LEAST = std::numeric_limits<Integer>::min();
    constexpr auto MOST = std::numeric_limits<Integer>::max();
    const bool negative = token.front() == '-';
    const auto [value, wrong] = decimal_of(token.substr(negative));
    const uint64_t limit = negative ? -static_cast<uint64_t>(LEAST) : static_cast<uint64_t>(MOST);
    if (wrong || value > limit)
        refuse_number(LEAST, MOST, token);
    return static_cast<Integer>(negative ? -value : value);
}

// The same, or given as "0x...".
template <class Integer> Integer number_of(json::value &given)
{
    constexpr auto LEAST = std::numeric_limits<Integer>::min();
    constexpr auto MOST = std::numeric_limits<Integer>::max();
    const std::string_view token = without_blanks_after(given.raw_json_token());
    if (token.front() != '"') { // most have one or two digits
        const unsigned first = digit_of(token.front()), last = digit_of(token.back());
        if (token.size() == 1 && first < 10)
            return static_cast<Integer>(first);
        const unsigned both = 10 * first + last;
        if (token.size() == 2 && first - 1 < 9 && last < 10)
            return static_cast<Integer>(both);
        return decimal_as<Integer>(token);
    }
    const auto [value, wrong] = hexadecimal_of(token);
    if (wrong || value > static_cast<uint64_t>(MOST))
        refuse_number(LEAST, MOST, token);
    static_cast<void>(given.get_raw_json_string()); // takes it, which is quicker than being passed over
    return static_cast<Integer>(value);
}

bool truth_of(json::value &given)
{
    const std::string_view word = without_blanks_after(given.raw_json_token());
    if (word == "true" || word == "1")
        return true;
    if (word != "false" && word != "0")
        refuse("true, false, 0 or 1", word);
    return false;
}

// What `given` is, when it is a Wanted; refused when it is of another type.
template <class Wanted>
Wanted checked(simdjson::simdjson_result<Wanted> result, json::value &given, const char *what)
{
    Wanted wanted;
    const simdjson::error_code error = std::move(result).get(wanted);
    if (error == simdjson::INCORRECT_TYPE)
        refuse(what, given.raw_json_token());
    if (error)
        throw simdjson::simdjson_error(error);
    return wanted;
}

std::string_view text_of(json::value &given)
{
    const std::string_view token = without_blanks_after(given.raw_json_token());
    // Without an escape it stands in the line as it is.
    if (token.front() == '"' && std::memchr(token.data(), '\\', token.size()) == nullptr)
        return token.substr(1, token.size() - 2);
    return checked(given.get_string(), given, "a string");
}

inline json::array list_of(json::value &given, const char *what)
{
    return checked(given.get_array(), given, what);
}

json::object object_of(json::value &given)
{
    return checked(given.get_object(), given, "an object");
}

// Gives a member of any type its value.
template <class Member> void assign(Member &member, json::value &given)
{
    if constexpr (std::is_same_v<Member, bool>)
        member = truth_of(given);
    else if constexpr (std::is_enum_v<Member>) { // codes are handed through, also those that have no name
        const auto code = number_of<uint32_t>(given);
        static_assert(sizeof code == sizeof member);
        std::memcpy(&member, &code, sizeof code);
    } else if constexpr (std::is_same_v<Member, std::string>)
        member = text_of(given);
    else
        member = number_of<Member>(given);
}

// ---- lists ----------------------------------------------------------------------------------------------

// Calls read(entry, n) for every entry; refuses more than `most`. Returns how many there are.
template <class Read> size_t read_list(json::value &given, size_t most, const char *what, Read read)
{
    size_t count = 0;
    for (json::value entry : list_of(given, "a list")) {
        if (count == most)
            throw Refusal{fmt::format("at most {} {}", most, what), "more"};
        read(entry, count++);
    }
    return count;
}

// The same for a list of exactly `count` entries; `what` says which.
template <class Read> void read_exactly(json::value &given, size_t count, const char *what, Read read)
{
    size_t found = 0;
    for (json::value entry : list_of(given, what)) {
        if (found == count)
            throw Refusal{what, "a longer list"};
        read(entry, found++);
    }
    if (found < count)
        throw Refusal{what, fmt::format("a list of {}", found)};
}

// ---- keys -----------------------------------------------------------------------------------------------

// Where in the line we are, for errors: the key, and the one whose object it is in.
struct Place {
    std::string_view key;
    std::string_view outer;
    std::string unknown_key; // owns `key` when that is none of ours
};

// A key's spelling, compared with the line all at once, closing quote included.
struct Spelling {
    using Words = std::array<uint64_t, 2>; // room for the longest key and its quote
    std::string_view text;
    Words words{};
    Words masks{};

    constexpr Spelling(const char *spelt) : text(spelt)
    {
        std::array<uint8_t, sizeof(Words)> bytes{}, bits{};
        for (size_t i = 0; i <= text.size(); ++i) {
            bytes[i] = i < text.size() ? static_cast<uint8_t>(text[i]) : '"';
            bits[i] = 0xFF;
        }
        words = std::bit_cast<Words>(bytes);
        masks = std::bit_cast<Words>(bits);
    }

    // `at`: after the opening quote; at least sizeof(Words) bytes can be read.
    bool stands_at(const char *at) const
    {
        Words there;
        std::memcpy(&there, at, sizeof there);
        return (there[0] & masks[0]) == words[0] && (there[1] & masks[1]) == words[1];
    }
};

template <class Target> struct Key {
    Spelling name;
    void (*set)(Place &place, Target &target, json::value &given);
};

template <class Target> using Keys = std::span<const Key<Target>>;

template <class Target> [[noreturn]] void refuse_key(Keys<Target> keys, Place &place, std::string_view name)
{
    place.unknown_key = name;
    place.key = place.unknown_key;
    std::string known;
    for (const Key<Target> &key : keys)
        known += fmt::format("{}\"{}\"", known.empty() ? "" : " ", key.name.text);
    throw Refusal{"a key out of " + known, ""};
}

// Index of the field's key. Streams mostly keep one order of keys: the search begins after the last one found.
template <class Target> size_t index_of(Keys<Target> keys, size_t cursor, json::field &field, Place &place)
{
    const char *at = field.key().raw();
    for (size_t tried = 0; tried < keys.size(); ++tried, ++cursor) {
        if (cursor >= keys.size())
            cursor = 0;
        if (keys[cursor].name.stands_at(at))
            return cursor;
    }
    const std::string_view name = field.unescaped_key(); // an escape may hide a key that we know
    const auto found =
        std::find_if(keys.begin(), keys.end(), [&](const auto &key) { return key.name.text == name; });
    if (found == keys.end())
        refuse_key(keys, place, name);
    return static_cast<size_t>(found - keys.begin());
}

// Sets `target` from all fields of the object. A field is used where it was made: a copy is made in larger pieces than
// the field was just written in, and the processor waits until those are in the cache.
template <class Target> void read_fields(json::object object, Keys<Target> keys, Place &place, Target &target)
{
    uint64_t seen = 0;
    size_t cursor = 0;
    for (auto found : object) {
        if (found.error())
            throw simdjson::simdjson_error(found.error());
        json::field &&field = std::move(found).value_unsafe();
        const size_t index = index_of(keys, cursor, field, place);
        place.key = keys[index].name.text;
        if (seen >> index & 1)
            throw Refusal{"the key once", "it twice"};
        seen |= uint64_t{1} << index;
        keys[index].set(place, target, field.value());
        cursor = index + 1;
    }
}

// The object that a key has as its value.
template <class Target> void read_inner(json::value &given, Keys<Target> keys, Place &place, Target &target)
{
    const json::object object = object_of(given);
    const std::string_view key = place.key;
    place.outer = key;
    read_fields(object, keys, place, target);
    place.outer = {};
    place.key = key;
}

// ---- registers ------------------------------------------------------------------------------------------

void assign_word(uint64_t &value, size_t, json::value &given)
{
    assign(value, given);
}

void assign_word(QuadWord &value, size_t n, json::value &given)
{
    assign(value.word[n], given);
}

template <size_t N, class Value>
void read_registers(json::value &given, int32_t &count, int32_t (&numbers)[N], Value (&values)[N])
{
    constexpr size_t WORDS = sizeof(Value) / sizeof(uint64_t);
    constexpr const char *WHAT = WORDS == 1 ? "[number, \"0xvalue\"]" : "[number, \"0xword0\", \"0xword1\"]";
    count = static_cast<int32_t>(read_list(given, N, "registers", [&](json::value &entry, size_t n) {
        read_exactly(entry, 1 + WORDS, WHAT, [&](json::value &part, size_t at) {
            if (at == 0)
                assign(numbers[n], part);
            else
                assign_word(values[n], at - 1, part);
        });
    }));
}

#define CLASS(name, constant, most, words)                                                                         \
    {#name, [](Place &, Plugin_Inst_Registers &to, json::value &given) {                                           \
         read_registers(given, to.name##_num, to.name##_index, to.name##_value);                                   \
     }},
// clang-format off
constexpr Key<Plugin_Inst_Registers> REGISTER_KEYS[] = {COMMIT_STREAM_REGISTER_CLASSES(CLASS)};
// clang-format on
#undef CLASS

// ---- translations ---------------------------------------------------------------------------------------

void read_host_walks(json::value &given, std::array<HostRadixTree, 5> &walks)
{
    read_list(given, walks.size(), "host walks", [&](json::value &entry, size_t n) {
        PA *const parts[] = {&walks[n].RTPDE_ra_l1, &walks[n].RTPDE_ra_l2, &walks[n].RTPDE_ra_l3,
                             &walks[n].RTPTE_ra};
        read_exactly(entry, std::size(parts), R"(["l1", "l2", "l3", "pte"])",
                     [&](json::value &part, size_t at) { assign(*parts[at], part); });
    });
}

void read_host_addresses(json::value &given, std::array<PA, 4> &addresses)
{
    read_list(given, addresses.size(), "host real addresses",
              [&](json::value &entry, size_t n) { assign(addresses[n], entry); });
}

void read_guest_walk(json::value &given, GuestRadixTree &walk)
{
    PA *const parts[] = {&walk.RTPDE_GUEST_ra_l1, &walk.RTPDE_GUEST_ra_l2, &walk.RTPDE_GUEST_ra_l3,
                         &walk.RTPTE_GUEST_ra, &walk.GUEST_ra};
    read_exactly(given, std::size(parts), R"(["l1", "l2", "l3", "pte", "ra"])",
                 [&](json::value &part, size_t at) { assign(*parts[at], part); });
}

void read_effective_address(Place &, Instruction &instruction, json::value &given)
{
    assign(instruction.ea, given);
    instruction.ea_valid = true;
}

using Address_Side = Address_Answers Instruction::*;

#define TO(member)            [](Place &, Instruction &to, json::value &given) { assign((to.*SIDE).member, given); }
#define BY(read, member)      [](Place &, Instruction &to, json::value &given) { read(given, (to.*SIDE).member); }
#define ROW(key, type, shape) {#key, TO(key)},
// Keys of `fetch` and `data`; the first is of `data` alone.
// clang-format off
template <Address_Side SIDE>
constexpr Key<Instruction> ADDRESS_KEYS[] = {
    {"ea",         read_effective_address},
    COMMIT_STREAM_ADDRESS_KEYS(ROW)
    {"host_walk",  BY(read_host_walks, host_walk)},
    {"host_ra",    BY(read_host_addresses, host_ra)},
    {"guest_walk", BY(read_guest_walk, guest_walk)},
};
// clang-format on
#undef TO
#undef BY
#undef ROW

void read_fetch(Place &place, Stream_Event &event, json::value &given)
{
    read_inner(given, Keys<Instruction>(ADDRESS_KEYS<&Instruction::fetch>).subspan(1), place, event.instruction);
}

void read_data(Place &place, Stream_Event &event, json::value &given)
{
    read_inner(given, Keys<Instruction>(ADDRESS_KEYS<&Instruction::data>), place, event.instruction);
}

// ---- lists of words -------------------------------------------------------------------------------------

struct Flag {
    std::string_view word;
    bool Instruction::*member;
};

#define ROW(word, constant, bit) {#word, &Instruction::word},
constexpr Flag FLAGS[] = {COMMIT_STREAM_FLAGS(ROW)};
#undef ROW

struct Page_Size {
    std::string_view word;
    boolean PAGE_SIZES_USED::*member;
};

#define ROW(word, bit) {#word, &PAGE_SIZES_USED::PAGE_##word},
constexpr Page_Size PAGE_SIZES[] = {COMMIT_STREAM_PAGE_SIZES(ROW)};
#undef ROW

// Sets the members that the words of a list stand for.
template <class Row, size_t N, class Target>
void read_words(json::value &given, const Row (&rows)[N], Target &target)
{
    for (json::value entry : list_of(given, "a list")) {
        const std::string_view token = entry.raw_json_token();
        const std::string_view word = text_of(entry);
        const auto row =
            std::find_if(std::begin(rows), std::end(rows), [&](const Row &r) { return r.word == word; });
        if (row == std::end(rows)) {
            std::string known;
            for (const Row &one : rows)
                known += fmt::format("{}\"{}\"", known.empty() ? "" : " ", one.word);
            refuse("words out of " + known, token);
        }
        target.*(row->member) = true;
    }
}

void read_pages(json::value &given, PAGE_SIZES_USED &pages)
{
    pages = {};
    read_words(given, PAGE_SIZES, pages);
}

void read_options(json::value &given, std::vector<unsigned> &options)
{
    read_list(given, PROCESSOR_OPTION_COUNT, "processor options", [&](json::value &entry, size_t) {
        const unsigned option = number_of<unsigned>(entry);
        if (option >= PROCESSOR_OPTION_COUNT)
            refuse(fmt::format("0 to {}", PROCESSOR_OPTION_COUNT - 1), entry.raw_json_token());
        options.push_back(option);
    });
}

// ---- the kinds of line ----------------------------------------------------------------------------------

#define TO(member)       [](Place &, Stream_Event &to, json::value &given) { assign(to.member, given); }
#define BY(read, member) [](Place &, Stream_Event &to, json::value &given) { read(given, to.member); }
#define INNER(keys, member)                                                                                        \
    [](Place &place, Stream_Event &to, json::value &given) {                                                       \
        read_inner<Plugin_Inst_Registers>(given, keys, place, to.member);                                          \
    }
#define KIND                                                                                                       \
    {                                                                                                              \
        "t", [](Place &, Stream_Event &, json::value &) {}                                                         \
    } // read before all others
#define TID                                                                                                        \
    {                                                                                                              \
        "tid", TO(instruction.tid)                                                                                 \
    }

// How a value of each shape is read.
#define READ_NUMBER(member)           TO(member)
#define READ_WORD(member)             TO(member)
#define READ_TRUTH(member)            TO(member)
#define READ_PAGES(member)            BY(read_pages, member)
// A row of a list of keys: where the value goes is named by the list and the key.
#define MACHINE_ROW(key, type, shape) {#key, READ_##shape(machine.key)},
#define CONTEXT_ROW(key, type, shape) {#key, READ_##shape(context.key)},
#define COMMIT_ROW(key, type, shape)  {#key, READ_##shape(instruction.key)},
#define PTE_ROW(key, type, shape)     {#key, READ_##shape(PTE_##key)},
#define PTE_pa                        pte.pa
#define PTE_upper                     pte.pte.upper
#define PTE_lower                     pte.pte.lower
#define RTPTE_ROW(key, type, shape)   {#key, READ_##shape(RTPTE_##key)},
#define RTPTE_l1                      rtpte.RTPDE_ra_l1
#define RTPTE_l2                      rtpte.RTPDE_ra_l2
#define RTPTE_l3                      rtpte.RTPDE_ra_l3
#define RTPTE_pte                     rtpte.RTPTE_ra
#define RTPTE_pa                      rtpte.pa

// clang-format off
constexpr Key<Stream_Event> MACHINE_KEYS[] = {
    KIND,
    COMMIT_STREAM_MACHINE_KEYS(MACHINE_ROW)
    {"options", BY(read_options, machine.options)},
    {"source",  TO(source)},
};

constexpr Key<Stream_Event> CONTEXT_KEYS[] = {KIND, TID, COMMIT_STREAM_CONTEXT_KEYS(CONTEXT_ROW)};

constexpr Key<Stream_Event> COMMIT_KEYS[] = {
    KIND,
    TID,
    COMMIT_STREAM_COMMIT_KEYS(COMMIT_ROW)
    {"text",          TO(instruction.text)},
    {"is",            [](Place &, Stream_Event &to, json::value &given) { read_words(given, FLAGS, to.instruction); }},
    {"string_length", TO(instruction.string_length)},
    {"fetch",         read_fetch},
    {"data",          read_data},
    {"in",            INNER(REGISTER_KEYS, instruction.in)},
    {"out",           INNER(REGISTER_KEYS, instruction.out)},
    {"time",          [](Place &, Stream_Event &to, json::value &given) { assign(to.time.emplace(), given); }},
};

constexpr Key<Stream_Event> PRE_KEYS[] = {KIND, TID};
constexpr Key<Stream_Event> PTE_KEYS[] = {KIND, TID, COMMIT_STREAM_PTE_KEYS(PTE_ROW)};
constexpr Key<Stream_Event> RTPTE_KEYS[] = {KIND, TID, COMMIT_STREAM_RTPTE_KEYS(RTPTE_ROW)};

struct Kind_Of_Line {
    std::string_view name;
    Keys<Stream_Event> keys;
};

constexpr Kind_Of_Line KINDS[EVENT_KINDS] = { // in the order of Event_Kind
    {"machine", MACHINE_KEYS},
    {"context", CONTEXT_KEYS},
    {"commit",  COMMIT_KEYS},
    {"pre",     PRE_KEYS},
    {"pte",     PTE_KEYS},
    {"rtpte",   RTPTE_KEYS},
};
// clang-format on
#undef TO
#undef BY
#undef INNER
#undef KIND
#undef TID
#undef MACHINE_ROW
#undef CONTEXT_ROW
#undef COMMIT_ROW
#undef PTE_ROW
#undef RTPTE_ROW

Event_Kind kind_called(std::string_view token)
{
    for (size_t kind = 0; kind < EVENT_KINDS; ++kind) {
        const std::string_view name = KINDS[kind].name;
        if (token.size() >= name.size() + 2 && token[0] == '"' && token.substr(1, name.size()) == name &&
            token[name.size() + 1] == '"')
            return static_cast<Event_Kind>(kind);
    }
    refuse("\"machine\", \"context\", \"commit\", \"pre\", \"pte\" or \"rtpte\"", token);
}

// What simdjson objects to.
Refusal refusal_of(simdjson::error_code error)
{
    switch (error) {
    case simdjson::MEMALLOC:
        throw std::bad_alloc();
    case simdjson::UTF8_ERROR:
        return {"valid UTF-8", ""};
    case simdjson::INCORRECT_TYPE:
        return {"an object", ""};
    case simdjson::UNCLOSED_STRING:
        return {"well-formed JSON", "a string without end"};
    case simdjson::UNESCAPED_CHARS:
        return {"well-formed JSON", "a control character in a string"};
    case simdjson::STRING_ERROR:
        return {"well-formed JSON", "a wrong escape in a string"};
    case simdjson::INCOMPLETE_ARRAY_OR_OBJECT:
        return {"well-formed JSON", "an object or list without end"};
    default:
        return {"well-formed JSON", ""};
    }
}

} // namespace

std::string_view name_of(Event_Kind kind)
{
    return KINDS[static_cast<size_t>(kind)].name;
}

std::string Stream_Error::text() const
{
    std::string text = line ? fmt::format("line {}: ", line) : "";
    if (!key.empty())
        text += fmt::format("key \"{}\": ", printable(key));
    text += expected;
    if (!found.empty())
        text += ", found " + found;
    return text;
}

// ---- the reader -----------------------------------------------------------------------------------------

struct Stream_Reader::Parser {
    Parser();

    json::parser parser{Line_Source::MAX_LINE};
    Stream_Event *event = nullptr; // being read
    Place place;
    bool machine_known = false;
    std::vector<Thread_Context> contexts; // as of the last line, by thread

    void read(std::string_view line, Stream_Event &to);

private:
    void make_room(size_t length);
    void check_order(Event_Kind kind) const;
    int checked_tid() const;
    void begin_event(json::object &object);
    void finish_event();

    const Instruction blank_{};
};

Stream_Reader::Parser::Parser()
{
    make_room(1 << 14); // for most lines for good
}

// Claims memory for lines of that length. One attempt may leave the parser without its strings and say nothing; the
// second makes up for that, or fails.
void Stream_Reader::Parser::make_room(size_t length)
{
    for (int attempt = 0; attempt < 2; ++attempt)
        if (parser.allocate(length) != simdjson::SUCCESS)
            throw std::bad_alloc();
}

void Stream_Reader::Parser::check_order(Event_Kind kind) const
{
    if (!machine_known && kind != Event_Kind::machine)
        throw Refusal{"\"machine\" in the first line", fmt::format("\"{}\"", name_of(kind))};
    if (machine_known && kind == Event_Kind::machine)
        throw Refusal{"\"machine\" in the first line only", "a second one"};
}

int Stream_Reader::Parser::checked_tid() const
{
    const int tid = event->instruction.tid;
    if (contexts.empty())
        throw Refusal{"no event: the machine has no hardware threads", std::to_string(tid)};
    if (tid < 0 || static_cast<size_t>(tid) >= contexts.size())
        throw Refusal{fmt::format("a hardware thread from 0 to {}", contexts.size() - 1), std::to_string(tid)};
    return tid;
}

// Everything that the line may leave out is as it is without it. A context begins with what its thread has, so its
// thread is looked for first.
void Stream_Reader::Parser::begin_event(json::object &object)
{
    event->instruction = blank_;
    event->time.reset();
    if (event->kind == Event_Kind::machine) {
        event->machine = {0, 0, 0, 0, {}};
        event->source.clear();
    } else if (event->kind == Event_Kind::context) {
        place.key = "tid";
        json::value tid;
        const simdjson::error_code missing = object.find_field_unordered("tid").get(tid);
        if (!missing)
            assign(event->instruction.tid, tid);
        else if (missing != simdjson::NO_SUCH_FIELD)
            throw simdjson::simdjson_error(missing);
        event->context = contexts[static_cast<size_t>(checked_tid())];
        object.reset();
    } else if (event->kind != Event_Kind::commit) {
        event->pte = {};
        event->rtpte = {};
    }
}

void Stream_Reader::Parser::finish_event()
{
    if (event->kind == Event_Kind::machine) {
        const uint64_t threads = uint64_t{event->machine.processors} * event->machine.threads;
        place.key = "threads";
        if (threads > MAX_HARDWARE_THREADS)
            throw Refusal{fmt::format("at most {} hardware threads", MAX_HARDWARE_THREADS),
                          std::to_string(threads)};
        contexts.resize(static_cast<size_t>(threads));
        machine_known = true;
        return;
    }
    place.key = "tid";
    const int tid = checked_tid();
    if (event->kind == Event_Kind::context)
        contexts[static_cast<size_t>(tid)] = event->context;
}

void Stream_Reader::Parser::read(std::string_view line, Stream_Event &to)
{
    event = &to;
    place = {};
    if (line.size() > parser.capacity())
        make_room(std::min(2 * line.size(), Line_Source::MAX_LINE));
    json::document document = parser.iterate(line.data(), line.size(), line.size() + Line_Source::PADDING);
    json::object object = document.get_object();
    place.key = "t";
    json::value kind;
    if (const auto error = object.find_field_unordered("t").get(kind); error == simdjson::NO_SUCH_FIELD)
        throw Refusal{"the kind of line", "no such key"};
    else if (error)
        throw simdjson::simdjson_error(error);
    event->kind = kind_called(kind.raw_json_token());
    check_order(event->kind);
    object.reset();
    begin_event(object);
    place.key = {};
    read_fields(object, KINDS[static_cast<size_t>(event->kind)].keys, place, *event);
    place.key = {};
    if (document.current_location().error() != simdjson::OUT_OF_BOUNDS)
        throw Refusal{"nothing after the object", ""};
    finish_event();
}

Stream_Reader::Stream_Reader(const std::string &file, const Stop_Request *stop)
    : stop_(stop), parser_(std::make_unique<Parser>()), event_(std::make_unique<Stream_Event>())
{
    try {
        lines_ = std::make_unique<Line_Source>(file, stop);
    } catch (const Input_Error &problem) {
        error_ = {0, "", problem.what(), ""};
    }
}

Stream_Reader::~Stream_Reader() = default;

const Stream_Event *Stream_Reader::next()
{
    return next(*event_) ? event_.get() : nullptr;
}

// After a line that could not be taken in nothing may be delivered: the trace would lack it.
bool Stream_Reader::next(Stream_Event &to)
{
    if (error_)
        return false;
    try {
        return read_line(to);
    } catch (const std::bad_alloc &) {
        error_ = {line_number(), "", "out of memory", ""};
    }
    return false;
}

bool Stream_Reader::read_line(Stream_Event &to)
{
    try {
        std::string_view line;
        do {
            if (stop_ && stop_->requested())
                return false;
            if (!lines_->next(line)) {
                end();
                return false;
            }
        } while (std::all_of(line.begin(), line.end(), is_blank));
        parser_->read(line, to);
        return true;
    } catch (const Input_Interrupted &) {
        return false;
    } catch (const Input_Error &problem) {
        error_ = {lines_->format_known() ? line_number() + 1 : 0, "", problem.what(), ""};
    } catch (const Refusal &refusal) {
        refuse_line(refusal.expected, refusal.found);
    } catch (const simdjson::simdjson_error &error) {
        const Refusal refusal = refusal_of(error.error());
        refuse_line(refusal.expected, refusal.found);
    }
    return false;
}

// A stream must have its first line.
void Stream_Reader::end()
{
    at_end_ = true;
    if (!parser_->machine_known)
        error_ = {line_number() + 1, "", "expected \"machine\" in the first line", "the end of the stream"};
}

void Stream_Reader::refuse_line(const std::string &expected, const std::string &found)
{
    const Place &place = parser_->place;
    const std::string key = (place.outer.empty() ? "" : std::string(place.outer) + ".") + std::string(place.key);
    error_ = {line_number(), key, "expected " + expected, found};
}

uint64_t Stream_Reader::line_number() const
{
    return lines_ ? lines_->line_number() : 0;
}

uint64_t Stream_Reader::bytes_used() const
{
    return lines_ ? lines_->bytes_used() : 0;
}

std::optional<uint64_t> Stream_Reader::input_size() const
{
    return lines_ ? lines_->input_size() : std::nullopt;
}

} // namespace replay

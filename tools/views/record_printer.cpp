#include "record_printer.h"

#include "block_sequence.h"
#include "instruction_kinds.h"
#include "record_rows.h"
#include "text_in_place.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace qtrace_tool
{

using namespace trace;

// ---- Selection -----------------------------------------------------------------------------------------

void Field_Selection::add_group(Field_Group group)
{
    for (size_t i = 0; i < RECORD_MEMBERS.size(); i++)
        if (RECORD_MEMBERS[i].group == group)
            members_.add(i);
    if (group == Field_Group::registers)
        registers_.set();
    if (group == Field_Group::flags)
        flags_ = true;
}

bool Field_Selection::add(std::string_view name)
{
    bool found = false;
    for (size_t i = 0; i < GROUPS.size(); i++)
        if (GROUPS[i].name == name && GROUPS[i].name != "header") {
            add_group(static_cast<Field_Group>(i));
            found = true;
        }
    for (size_t i = 0; i < RECORD_MEMBERS.size(); i++)
        if (RECORD_MEMBERS[i].name == name ||
            (name == "regs" && RECORD_MEMBERS[i].shape == Member_Shape::registers)) {
            members_.add(i);
            found = true;
        }
    for (size_t i = 0; i < REGISTER_CLASSES.size(); i++)
        if (REGISTER_CLASSES[i].name == name) {
            registers_.set(i);
            members_.add(static_cast<size_t>(find_record_member("regs") - RECORD_MEMBERS.data()));
            found = true;
        }
    if (name == "regs")
        registers_.set();
    return found;
}

Field_Selection Field_Selection::usual()
{
    Field_Selection selection;
    for (size_t i = 0; i < GROUPS.size(); i++) {
        const auto group = static_cast<Field_Group>(i);
        if (group != Field_Group::next_walk && group != Field_Group::data_walk && group != Field_Group::unused)
            selection.add_group(group);
    }
    return selection;
}

Field_Selection Field_Selection::all()
{
    Field_Selection selection;
    for (size_t i = 0; i < GROUPS.size(); i++)
        selection.add_group(static_cast<Field_Group>(i));
    return selection;
}

std::optional<Field_Selection> Field_Selection::parse(const std::vector<std::string> &names, std::string &unknown)
{
    Field_Selection selection;
    if (std::ranges::find(names, "all") != names.end())
        return all();
    for (const std::string &name : names)
        if (!selection.add(name)) {
            unknown = name;
            return std::nullopt;
        }
    return selection;
}

std::vector<std::string> Field_Selection::names()
{
    std::vector<std::string> names;
    for (const Group_Info &group : GROUPS)
        if (group.name != "header")
            names.emplace_back(group.name);
    for (const Trace_Member &member : RECORD_MEMBERS)
        if (std::ranges::find(names, member.name) == names.end())
            names.emplace_back(member.name);
    for (const Register_Class &kind : REGISTER_CLASSES)
        names.emplace_back(kind.name);
    return names;
}

// ---- Values --------------------------------------------------------------------------------------------

namespace
{

// Shapes that are tables of 64-bit addresses: `rows` of `columns`.
struct Table_Shape {
    unsigned rows, columns;
};

Table_Shape table_of(const Trace_Member &member)
{
    const unsigned words = member.size / sizeof(QTRACE_RTP_Ln);
    return member.shape == Member_Shape::host_walks
               ? Table_Shape{RDX_MAX_2LEVEL_DEPTH, words / RDX_MAX_2LEVEL_DEPTH}
               : Table_Shape{1, words};
}

// Rows up to the last one that is not zero.
unsigned used_rows(Table_Shape table, const uint8_t *bytes)
{
    const size_t row = table.columns * sizeof(QTRACE_RTP_Ln);
    unsigned used = table.rows;
    while (used > 0 && is_zero(bytes + (used - 1) * row, row))
        used--;
    return used;
}

uint64_t word_at(const uint8_t *bytes, unsigned i)
{
    uint64_t word;
    std::memcpy(&word, bytes + i * sizeof(word), sizeof(word));
    return word;
}

void print_table(Output &out, const Trace_Member &member, const uint8_t *bytes)
{
    const Table_Shape table = table_of(member);
    const unsigned used = used_rows(table, bytes);
    for (unsigned row = 0; row < used; row++) {
        if (row > 0)
            out.put('|');
        for (unsigned column = 0; column < table.columns; column++) {
            if (column > 0)
                out.put(',');
            out.put_hex(word_at(bytes, row * table.columns + column));
        }
    }
    if (used == 0)
        out.put('-');
}

void print_registers(Output &out, const QTRACE_REGISTERS &registers, const Field_Selection &fields)
{
    std::string_view lead[] = {" in", " out"};
    for (size_t i = 0; i < REGISTER_CLASSES.size(); i++) {
        const Register_Class &kind = REGISTER_CLASSES[i];
        const unsigned entries = fields.shows_registers(i) ? kind.entries(registers) : 0;
        for (unsigned n = 0; n < entries; n++) {
            const Register_Entry entry = register_entry(kind, registers, n);
            out.put(lead[kind.output]);
            lead[kind.output] = {};
            out.put(' ');
            out.put(kind.letter);
            out.put_decimal(entry.index);
            out.put("=0x");
            if (kind.words == 2)
                out.put_hex(entry.value[0], 16);
            if (kind.words == 2)
                out.put_hex(entry.value[1], 16);
            else
                out.put_hex(entry.value[0]);
        }
    }
}

void print_modes(Output &out, Mode_Pair modes)
{
    out.put(' ');
    out.put(mode_word(modes.guest));
    out.put('/');
    out.put(mode_word(modes.host));
}

char end_letter(const QTRACE_RECORD &record)
{
    if (!record.header.control.fld.termination_present)
        return '-';
    return record.termination_code == QTRACE_UnconditionalBranchNode ? 'U' : 'T';
}

// A member that says nothing beyond the columns before it: node numbers of 0 and the usual ends of runs.
bool is_implied(const Trace_Member &member, const QTRACE_RECORD &record)
{
    if (member.group != Field_Group::node)
        return false;
    const uint64_t value = member_value(member, record);
    return value == 0 ||
           (member.offset == offsetof(QTRACE_RECORD, termination_code) &&
            (value == QTRACE_UnconditionalBranchNode || value == QTRACE_ExceededMaximumInstructionDepth));
}

void print_member(Output &out, const Trace_Member &member, const QTRACE_RECORD &record,
                  const Field_Selection &fields, const Item_Notes &notes)
{
    if (member.shape == Member_Shape::registers) {
        print_registers(out, record.regs, fields);
        return;
    }
    out.put(' ');
    out.put(member.label);
    out.put(' ');
    print_value(out, member, record);
    if (member.shape == Member_Shape::address)
        print_name(out, notes, member_value(member, record));
    if (member.group == Field_Group::next_address)
        print_modes(out, instruction_modes(record.header.control));
    if (member.group == Field_Group::data_address)
        print_modes(out, data_modes(record.header.control));
}

bool is_shown(const Trace_Member &member, const QTRACE_RECORD &record, const Flag_Words &flags)
{
    if (member.offset == 0)
        return false; // the instruction word has its column
    if (!member.gated() || !flags.any_of(member.gate))
        return !is_zero(member.at(record), member.size);
    return !is_implied(member, record) && !(member.size >= sizeof(QTRACE_RTW_HOST_RA) * RDX_MAX_GUEST_LEVELS &&
                                            is_zero(member.at(record), member.size));
}

// ---- JSON ----------------------------------------------------------------------------------------------
// A record's members are put together where nothing has to be asked for room, and handed on as one text, with their
// commas in keys that are made once: half the time of a Json_Writer, and dumps are large.

// Characters that the members of a record or header can take at most.
consteval size_t json_room(std::span<const Trace_Member> rows)
{
    constexpr size_t VALUE = 32;                                           // with quotes, brackets and a comma
    size_t room = 64 * Padded_Text::CAPACITY + 16 * Padded_Text::CAPACITY; // flags and kinds
    for (const Trace_Member &row : rows)
        room += Padded_Text::CAPACITY + (row.size / sizeof(uint64_t) + 1) * VALUE;
    return room + rows::REGISTER_ROWS.size() * (2 * Padded_Text::CAPACITY + VALUE);
}

class Json_Line
{
public:
    explicit Json_Line(Output &to) : to_(to) {}
    template <size_t N> void put(const char (&literal)[N])
    {
        std::memcpy(end_, literal, N - 1);
        end_ += N - 1;
    }
    void put(const Padded_Text &text)
    {
        std::memcpy(end_, text.text, Padded_Text::CAPACITY);
        end_ += text.size;
    }
    void put_decimal(uint64_t value) { end_ = decimal_text(end_, value); }
    void put_hex(uint64_t value) { end_ = hex_text(end_, value); }
    // The output, which then has everything.
    Output &handed_on()
    {
        to_.put(std::string_view(text_, std::exchange(end_, text_)));
        return to_;
    }

private:
    Output &to_;
    char text_[std::max(json_room(rows::RECORD_ROWS), json_room(rows::HEADER_ROWS)) + Padded_Text::CAPACITY];
    char *end_ = text_;
};

Padded_Text json_key(std::string_view name, std::string_view value = "")
{
    return Padded_Text(fmt::format(",\"{}\":{}", name, value));
}

using Register_Keys = std::array<Padded_Text, std::tuple_size_v<decltype(REGISTER_CLASSES)>>;

const Register_Keys REGISTER_KEYS = [] {
    Register_Keys keys;
    std::ranges::transform(REGISTER_CLASSES, keys.begin(),
                           [](const Register_Class &kind) { return json_key(kind.name, "["); });
    return keys;
}();

const Register_Keys COUNT_KEYS = [] {
    Register_Keys keys;
    std::ranges::transform(REGISTER_CLASSES, keys.begin(),
                           [](const Register_Class &kind) { return json_key(fmt::format("{}_count", kind.name)); });
    return keys;
}();

void print_entries_json(Json_Line &out, const Register_Class &kind, const QTRACE_REGISTERS &registers,
                        unsigned entries)
{
    for (unsigned n = 0; n < entries; n++) {
        const Register_Entry entry = register_entry(kind, registers, n);
        n > 0 ? out.put(",[") : out.put("[");
        out.put_decimal(entry.index);
        for (unsigned word = 0; word < kind.words; word++) {
            out.put(",\"0x");
            out.put_hex(entry.value[word]);
            out.put("\"");
        }
        out.put("]");
    }
}

void print_registers_json(Json_Line &out, const QTRACE_REGISTERS &registers, const Field_Selection &fields)
{
    for (size_t i = 0; i < REGISTER_CLASSES.size(); i++) {
        const Register_Class &kind = REGISTER_CLASSES[i];
        if (kind.held(registers) == 0 || !fields.shows_registers(i))
            continue;
        out.put(REGISTER_KEYS[i]);
        print_entries_json(out, kind, registers, kind.entries(registers));
        out.put("]");
        if (kind.held(registers) > kind.capacity) {
            out.put(COUNT_KEYS[i]);
            out.put_decimal(kind.held(registers));
        }
    }
}

void print_table_json(Json_Line &out, const Trace_Member &member, const uint8_t *bytes)
{
    const Table_Shape table = table_of(member);
    const unsigned used = used_rows(table, bytes);
    const bool nested = member.shape == Member_Shape::host_walks;
    out.put("[");
    for (unsigned row = 0; row < used; row++) {
        if (nested)
            row > 0 ? out.put(",[") : out.put("[");
        for (unsigned column = 0; column < table.columns; column++) {
            column > 0 ? out.put(",\"0x") : out.put("\"0x");
            out.put_hex(word_at(bytes, row * table.columns + column));
            out.put("\"");
        }
        if (nested)
            out.put("]");
    }
    out.put("]");
}

// A flag, or a bit of one that has several, as a member of a JSON object: ready but for the value of the latter.
struct Json_Flag {
    Padded_Text text;
    uint64_t others; // all bits that are not the flag's
    const Trace_Flag *flag;
};
using Json_Flags = std::array<Json_Flag, 64>;

Json_Flags json_flags(const std::array<const Trace_Flag *, 64> &flag_of_bit)
{
    Json_Flags flags{};
    for (size_t bit = 0; bit < flags.size(); bit++)
        if (const Trace_Flag *flag = flag_of_bit[bit])
            flags[bit] = {json_key(flag->name, flag->width == 1 ? "1" : ""), ~flag->mask(), flag};
    return flags;
}

const Json_Flags CONTROL_JSON = json_flags(CONTROL_FLAG_OF_BIT);
const Json_Flags FILE_JSON = json_flags(FILE_FLAG_OF_BIT);

void print_flags_json(Json_Line &out, const Json_Flags &flags, uint64_t word)
{
    while (word != 0) {
        const Json_Flag &flag = flags[static_cast<size_t>(std::countr_zero(word))];
        out.put(flag.text);
        if (flag.flag->width > 1)
            out.put_decimal(flag.flag->value(word));
        word &= flag.others;
    }
}

std::vector<Padded_Text> json_keys(std::span<const Trace_Member> members)
{
    std::vector<Padded_Text> keys;
    for (const Trace_Member &member : members)
        keys.push_back(json_key(member.name));
    return keys;
}

const std::vector<Padded_Text> RECORD_KEYS = json_keys(RECORD_MEMBERS), HEADER_KEYS = json_keys(HEADER_MEMBERS);

bool is_table(const Trace_Member &member)
{
    return member.shape == Member_Shape::host_walks || member.shape == Member_Shape::host_addresses ||
           member.shape == Member_Shape::guest_walk;
}

void print_number_json(Json_Line &out, const Trace_Member &member, uint64_t value)
{
    if (member.shape == Member_Shape::decimal) {
        out.put_decimal(value);
    } else {
        out.put("\"0x");
        out.put_hex(value);
        out.put("\"");
    }
}

// The key of the name of an address: "next_symbol" beside "next_instruction_ea".
std::string_view symbol_key(const Trace_Member &member)
{
    return member.group == Field_Group::next_address   ? "next_symbol"
           : member.group == Field_Group::data_address ? "data_symbol"
                                                       : "symbol";
}

void put_name(Json_Line &out, std::string_view key, const Item_Notes &notes, uint64_t address)
{
    Json_Writer json = Json_Writer::inside_object(out.handed_on());
    name_member(json, key, notes, address);
}

template <class Structure>
void print_member_json(Json_Line &out, const Padded_Text &key, const Trace_Member &member,
                       const Structure &structure, const Item_Notes &notes)
{
    if (!is_table(member)) {
        if (const uint64_t value = member_value(member, structure); value != 0) {
            out.put(key);
            print_number_json(out, member, value);
            if (member.shape == Member_Shape::address && notes.names != nullptr)
                put_name(out, symbol_key(member), notes, value);
        }
    } else if (!is_zero(member.at(structure), member.size)) {
        out.put(key);
        print_table_json(out, member, member.at(structure));
    }
}

} // namespace

void print_value(Output &out, const Trace_Member &member, const uint8_t *bytes)
{
    switch (member.shape) {
    case Member_Shape::decimal:
        out.put_decimal(member_value(member, bytes));
        break;
    case Member_Shape::address:
        out.put_hex(member_value(member, bytes), 16);
        break;
    case Member_Shape::hexadecimal:
    case Member_Shape::vsid:
        out.put("0x");
        out.put_hex(member_value(member, bytes));
        break;
    case Member_Shape::host_walks:
    case Member_Shape::host_addresses:
    case Member_Shape::guest_walk:
        print_table(out, member, bytes);
        break;
    case Member_Shape::text: {
        const char *text = nullptr;
        std::memcpy(&text, bytes, sizeof(text));
        print_json_bytes(out, text != nullptr ? text : "");
        break;
    }
    case Member_Shape::registers:
        break; // printed by class
    }
}

std::string registers_text(const QTRACE_REGISTERS &registers)
{
    Output text;
    print_registers(text, registers, Field_Selection::all());
    const std::string words = text.take();
    return words.empty() ? "none" : words.substr(1);
}

// ---- Lines ---------------------------------------------------------------------------------------------

void print_name(Output &out, const Item_Notes &notes, uint64_t address)
{
    const Symbol *const symbol = notes.names != nullptr ? notes.names->find(address) : nullptr;
    if (symbol == nullptr)
        return;
    out.put(" <");
    print_visible(out, symbol->name);
    out.put("+0x");
    out.put_hex(address - symbol->first);
    out.put('>');
}

void name_member(Json_Writer &json, std::string_view key, const Item_Notes &notes, uint64_t address)
{
    if (notes.names != nullptr && notes.names->find(address) != nullptr)
        json.member(key, notes.names->text(address));
}

void print_header(Output &out, const QTRACE_Item &item, const Item_Notes &notes)
{
    const QTRACE_FILE_HDR &header = item.header;
    const Flag_Words flags = flags_of(header);
    const bool full = header.control.iar_is_present;
    out.paint(Colour::head);
    out.put(full ? "         - header" : "         - partition");
    for (const Trace_Member &member : HEADER_MEMBERS) {
        const bool walk = is_table(member);
        const bool filled = member.gated() && flags.any_of(member.gate);
        if (walk || member.label == "comment-length" || (!filled && is_zero(member.at(header), member.size)) ||
            (filled && member.label == "version" && header.version == 0))
            continue;
        out.put(' ');
        out.put(member.label);
        out.put(' ');
        print_value(out, member, header);
        if (member.shape == Member_Shape::address)
            print_name(out, notes, member_value(member, header));
        if (member.label == "address")
            print_modes(out, instruction_modes(header.sec_ext_controlword.control));
    }
    out.paint(Colour::plain);
    out.put('\n');
    out.settle();
}

// In a column, so that what follows stands below each other where mnemonics are short.
static void print_mnemonic(Output &out, std::string_view mnemonic)
{
    constexpr size_t WIDTH = 24;
    out.put(' ');
    print_visible(out, mnemonic);
    for (size_t width = mnemonic.size(); width < WIDTH; width++)
        out.put(' ');
}

void print_record(Output &out, const QTRACE_Item &item, const Field_Selection &fields, const Item_Notes &notes)
{
    const QTRACE_RECORD &record = item.record;
    const Flag_Words flags = flags_of(record);
    out.put_padded(item.record_number, 10);
    out.put(' ');
    if (item.address_known)
        out.put_hex(item.address, 16);
    else
        out.put("????????????????");
    out.put(' ');
    out.put_hex(record.header.instruction, 8);
    if (!notes.mnemonic.empty())
        print_mnemonic(out, notes.mnemonic);
    if (fields.shows_flags()) {
        out.put(' ');
        out.put(record.header.control.fld.iar_change_present ? 'I' : '-');
        out.put(record.header.control.fld.node_present ? 'N' : '-');
        out.put(end_letter(record));
    }
    if (item.address_known)
        print_name(out, notes, item.address);
    Member_Set shown = maybe_filled(record);
    ((shown |= gated_by(flags)) &= fields.members()).for_each([&](size_t row) {
        if (is_shown(RECORD_MEMBERS[row], record, flags))
            print_member(out, RECORD_MEMBERS[row], record, fields, notes);
    });
    out.put('\n');
    out.settle();
}

void print_discontinuity(Output &out, const QTRACE_Item &item)
{
    const QTRACE_Discontinuity &what = item.discontinuity;
    out.paint(is_damage(what) ? Colour::bad : Colour::head);
    out.print("         - {}", qtrace_cause_name(what.cause));
    const char *before = ": ";
    if (what.records > 0 || !what.records_known) {
        out.print("{}{}{} lost", before, what.records_known ? "" : "at least ", counted(what.records, "record"));
        before = ", ";
    }
    if (what.headers > 0)
        out.print("{}{} lost", before, counted(what.headers, "header"));
    out.paint(Colour::plain);
    out.put('\n');
    out.settle();
}

static void print_header_members_json(Output &to, const QTRACE_FILE_HDR &header, const Item_Notes &notes)
{
    const Flag_Words flags = flags_of(header);
    Json_Line out(to);
    print_flags_json(out, FILE_JSON, flags.file);
    print_flags_json(out, CONTROL_JSON, flags.control);
    if (header.sec_ext_controlword.instruction != 0) {
        out.put(",\"instruction\":\"0x");
        out.put_hex(header.sec_ext_controlword.instruction);
        out.put("\"");
    }
    for (size_t row = 0; row < HEADER_MEMBERS.size(); row++)
        if (HEADER_MEMBERS[row].shape != Member_Shape::text)
            print_member_json(out, HEADER_KEYS[row], HEADER_MEMBERS[row], header, notes);
    out.handed_on();
}

void print_discontinuity_json(Output &out, const QTRACE_Item &item, std::string_view beginning)
{
    const QTRACE_Discontinuity &what = item.discontinuity;
    out.put(beginning);
    Json_Writer json = Json_Writer::inside_object(out);
    json.member("discontinuity", qtrace_cause_name(what.cause));
    json.member("at_record", item.record_number);
    json.member("lost_records", what.records);
    json.member("lost_records_known", what.records_known != 0);
    json.member("lost_headers", what.headers);
    json.member("offset", what.offset);
    json.member("lost_bytes", what.bytes);
    if (what.context != nullptr)
        json.object("context", [&] {
            Output members;
            print_header_members_json(members, *what.context, {});
            out.put(members.text().substr(1)); // an address is one of them
        });
    json.end_object();
    json.end_line();
}

void print_header_json(Output &out, const QTRACE_Item &item, std::string_view beginning, const Item_Notes &notes)
{
    out.put(beginning);
    Json_Writer json = Json_Writer::inside_object(out);
    json.member("header", item.header_number);
    json.member("before_record", item.record_number);
    print_header_members_json(out, item.header, notes);
    if (item.header.comment != nullptr)
        json.member("comment", Json_Bytes{{item.header.comment, item.header.comment_length}});
    json.end_object();
    json.end_line();
}

// By the number of the kind's bit.
static const std::array<Padded_Text, 32> KIND_TEXTS = [] {
    std::array<Padded_Text, 32> texts;
    for (const Kind_Name &row : KINDS)
        texts[static_cast<size_t>(std::countr_zero(static_cast<uint32_t>(row.kind)))] =
            Padded_Text(fmt::format("\"{}\"", row.name));
    return texts;
}();

static void print_kinds_json(Json_Line &out, uint32_t kinds)
{
    if (kinds == 0)
        return;
    out.put(",\"kinds\":[");
    for (uint32_t left = kinds; left != 0; left &= left - 1) {
        if (left != kinds)
            out.put(",");
        out.put(KIND_TEXTS[static_cast<size_t>(std::countr_zero(left))]);
    }
    out.put("]");
}

static void print_place_json(Json_Line &out, const QTRACE_Item &item, const Item_Notes &notes)
{
    out.put(",\"record\":");
    out.put_decimal(item.record_number);
    if (item.address_known) {
        out.put(",\"address\":\"0x");
        out.put_hex(item.address);
        out.put("\"");
        if (notes.names != nullptr)
            put_name(out, "symbol", notes, item.address);
    }
    if (!notes.mnemonic.empty()) {
        Json_Writer::inside_object(out.handed_on()).member("mnemonic", notes.mnemonic);
    }
}

void print_record_json(Output &out, const QTRACE_Item &item, std::string_view beginning,
                       const Field_Selection &fields, const Item_Notes &notes)
{
    out.put(beginning);
    Json_Line line(out);
    print_place_json(line, item, notes);
    if (fields.shows_flags()) {
        print_kinds_json(line, kinds_of(item.record, item.address));
        print_flags_json(line, CONTROL_JSON, flags_of(item.record).control);
    }
    Member_Set shown = maybe_filled(item.record);
    (shown &= fields.members()).for_each([&](size_t row) {
        if (RECORD_MEMBERS[row].shape == Member_Shape::registers)
            print_registers_json(line, item.record.regs, fields);
        else
            print_member_json(line, RECORD_KEYS[row], RECORD_MEMBERS[row], item.record, notes);
    });
    line.put("}\n");
    line.handed_on().settle();
}

const char *const LINE_LEGEND =
    R"(# A line a record: its number, the instruction's address and word, then three letters:
#   I  control-flow change: not the next sequential instruction (the line says `next ADDRESS`)
#   N  the record carries a node number: `node`, 0 when not shown
#   T  a run of instructions ends here; U: at an unconditional branch. `ends-at`, `end`: node and code, if unusual
# next, data: the next instruction's address and the data address, each followed by its translation as
# GUEST/HOST mode (radix, hpt: hashed page table, real, none: not involved) and what that mode has:
#   vsid      virtual segment, without its lowest 8 bits     page, guest-page  page-size codes of the simulator
#   rpn       real page number (guest's in radix/radix)      host-depth, guest-depth  levels of the walks
#   host-walks, guest-walk, host-addresses  real addresses of the table entries (--fields next-walk,data-walk)
# <name+0x10>  the symbol of the instruction's address after the letters, else of the address before it (--symbols)
# the text after the word is its mnemonic, from the text trace (--text)
# length     bytes that a string instruction moves
# error      8: the data address is suspect, its translation failed
# in, out    registers read and written: r general, f floating-point, s special, v vector, x vector-scalar
# processor  the hardware thread, in the first record after a header
# Lines without a number are file headers (`header` opens a trace segment, `partition` names a new lpid and pid), or
# tell why the trace does not simply go on: `pause`, `refused`, `left out`, `damage`, `cut end`, with what is lost there.
)";

} // namespace qtrace_tool

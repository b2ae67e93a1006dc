#include "check_rules.h"

#include "address_view.h"
#include "check_pte.h"
#include "check_text.h"
#include "deep_rules.h"
#include "header_comment.h"
#include "record_printer.h"
#include "record_rows.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>

namespace qtrace_tool
{

using namespace trace;

// ---- Records -------------------------------------------------------------------------------------------

struct Record_View {
    const QTRACE_Item &item;
    const QTRACE_RECORD &record;
    const decltype(control_word::fld) &flags;
    Flag_Words words;
    uint64_t next;
    const Check_State &before;

    explicit Record_View(const QTRACE_Item &from, const Check_State &state)
        : item(from), record(from.record), flags(from.record.header.control.fld), words(flags_of(from.record)),
          next(number(from.record.next_instruction_ea)), before(state)
    {
    }
    bool has_next() const { return flags.next_instruction_EA_present; }
    bool goes_on() const { return has_next() && next == item.address + 4; }
};

namespace
{

constexpr uint64_t bits_of(std::span<const Trace_Flag> rows, Flag_Role role)
{
    uint64_t bits = 0;
    for (const Trace_Flag &row : rows)
        if (row.role == role)
            bits |= row.mask();
    return bits;
}

const uint64_t RESERVED = bits_of(CONTROL_FLAGS, Flag_Role::reserved);
const uint64_t UNUSED = bits_of(CONTROL_FLAGS, Flag_Role::unused);
const uint64_t HEADER_ONLY = bits_of(CONTROL_FLAGS, Flag_Role::header_only);

// Bytes of members that lie side by side.
struct Byte_Range {
    size_t offset, size;
};

std::vector<Byte_Range> ranges_of(const std::vector<const Trace_Member *> &members)
{
    std::vector<Byte_Range> ranges;
    ranges.reserve(members.size());
    for (const Trace_Member *member : members)
        ranges.push_back({member->offset, member->size});
    std::ranges::sort(ranges, {}, &Byte_Range::offset);
    std::vector<Byte_Range> merged;
    for (const Byte_Range &range : ranges)
        if (!merged.empty() && merged.back().offset + merged.back().size == range.offset)
            merged.back().size += range.size;
        else
            merged.push_back(range);
    return merged;
}

template <class Structure> bool any_filled(const std::vector<Byte_Range> &ranges, const Structure &structure)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(&structure);
    return std::ranges::any_of(ranges, [&](const Byte_Range &r) { return !is_zero(bytes + r.offset, r.size); });
}

std::vector<const Trace_Member *> members_in(std::span<const Trace_Member> rows, Field_Group group)
{
    std::vector<const Trace_Member *> members;
    for (const Trace_Member &row : rows)
        if (row.group == group)
            members.push_back(&row);
    return members;
}

const std::vector<Byte_Range> &unused_in_records()
{
    static const std::vector<Byte_Range> ranges = ranges_of(members_in(RECORD_MEMBERS, Field_Group::unused));
    return ranges;
}

const std::vector<Byte_Range> &unused_in_headers()
{
    static const std::vector<Byte_Range> ranges = ranges_of(members_in(HEADER_MEMBERS, Field_Group::unused));
    return ranges;
}

bool has_entries_beyond_counts(const QTRACE_REGISTERS &registers)
{
    return std::ranges::any_of(REGISTER_CLASSES, [&](const Register_Class &kind) {
        const unsigned entries = kind.entries(registers);
        return !is_zero(kind.entry(registers, entries), (kind.capacity - entries) * kind.entry_size());
    });
}

bool is_listed_twice(const Register_Class &kind, const QTRACE_REGISTERS &registers)
{
    const unsigned entries = kind.entries(registers);
    for (unsigned i = 1; i < entries; i++)
        for (unsigned k = 0; k < i; k++)
            if (register_entry(kind, registers, i).index == register_entry(kind, registers, k).index)
                return true;
    return false;
}

bool is_empty(const QTRACE_REGISTERS &registers)
{
    return is_zero(reinterpret_cast<const uint8_t *>(&registers), offsetof(QTRACE_REGISTERS, num_gprs_in) + 1);
}

struct Record_Rule {
    const char *name;
    const char *sentence;
    const char *shows; // names of members, separated by blanks
    bool (*broken)(const Record_View &view);
    Rule_Values values = Rule_Values::members;
};

const Record_Rule RECORD_RULES[] = {
    // flags and members that are not for use
    {"reserved-flags", "reserved flags are set", "",
     [](const Record_View &v) { return (v.words.control & RESERVED) != 0; }, Rule_Values::flags},
    {"unused-flags", "a flag is set that no producer sets", "",
     [](const Record_View &v) { return (v.words.control & UNUSED) != 0; }, Rule_Values::flags},
    {"header-flags-in-record", "the record claims a register that only headers carry", "",
     [](const Record_View &v) { return (v.words.control & HEADER_ONLY) != 0; }},
    {"extender-missing", "secondary_extender_present is clear, although every record has a translation mode", "",
     [](const Record_View &v) { return !v.flags.secondary_extender_present; }},
    {"unused-members", "a member is filled that no producer fills", "",
     [](const Record_View &v) { return any_filled(unused_in_records(), v.record); }, Rule_Values::unused_members},
    // how the trace goes on: change (I), node (N), termination (T), next address
    {"change-without-node", "the address changes, but there is no node number", "",
     [](const Record_View &v) { return v.flags.iar_change_present && !v.flags.node_present; }},
    {"change-without-address", "the address changes, but there is no next address", "",
     [](const Record_View &v) { return v.flags.iar_change_present && !v.has_next(); }},
    {"node-without-address", "the record has a node number and ends no run, but has no next address", "node",
     [](const Record_View &v) {
         return v.flags.node_present && !v.flags.termination_present && !v.flags.iar_change_present &&
                !v.has_next();
     }},
    {"address-without-reason", "the record has a next address although nothing calls for one",
     "next_instruction_ea",
     [](const Record_View &v) {
         return v.has_next() && !v.flags.iar_change_present &&
                (!v.flags.node_present || v.flags.termination_present);
     }},
    {"change-to-next",
     "a control-flow change is flagged, but the next address is that of the next sequential instruction",
     "next_instruction_ea",
     [](const Record_View &v) {
         return v.item.address_known && v.flags.iar_change_present && !v.flags.termination_present && v.goes_on();
     }},
    {"jump-without-change",
     "the next address is not that of the next sequential instruction, but no control-flow change is flagged",
     "next_instruction_ea",
     [](const Record_View &v) {
         return v.item.address_known && !v.flags.iar_change_present && v.flags.node_present &&
                !v.flags.termination_present && v.has_next() && !v.goes_on();
     }},
    {"next-alignment", "the next address is not a multiple of 4", "next_instruction_ea",
     [](const Record_View &v) { return v.has_next() && (v.next & 3) != 0; }},
    {"node-order", "the node number is neither 0 nor 1 nor one more than the last", "node",
     [](const Record_View &v) {
         return v.flags.node_present && v.record.node > 1 && !v.before.discontinuous &&
                v.record.node != static_cast<uint8_t>(v.before.last_node + 1);
     }},
    {"termination-node", "the run ends at another node than the record's", "node termination_node",
     [](const Record_View &v) {
         return v.flags.node_present && v.flags.termination_present && v.record.node != v.record.termination_node;
     }},
    {"termination-code", "the run ends for a reason that is neither 8 (unconditional branch) nor 64",
     "termination_code",
     [](const Record_View &v) {
         return v.flags.termination_present && v.record.termination_code != QTRACE_UnconditionalBranchNode &&
                v.record.termination_code != QTRACE_ExceededMaximumInstructionDepth;
     }},
    {"unconditional-not-taken", "an unconditional branch falls through", "termination_code",
     [](const Record_View &v) {
         return v.flags.node_present && v.flags.termination_present && !v.flags.iar_change_present &&
                v.record.termination_code == QTRACE_UnconditionalBranchNode;
     }},
    {"address-chain", "the instruction is not where the record before it says", "",
     [](const Record_View &v) {
         return v.before.address_known && v.item.address_known && v.item.address != v.before.address;
     }},
    {"idle-instruction-modes", "a translation is named for a next address that the record does not have", "",
     [](const Record_View &v) {
         return !v.has_next() && !(instruction_modes(v.record.header.control) == Mode_Pair{3, 3}) &&
                PAIRS[instruction_modes(v.record.header.control).index()].exists;
     }},
    // place in the file
    {"record-before-header", "a record precedes the first file header", "",
     [](const Record_View &v) { return !v.before.header_seen; }},
    {"processor-missing", "the first record after a file header does not name its processor", "",
     [](const Record_View &v) { return v.before.opened && !v.flags.processor_present; }},
    {"processor-repeated", "a record names its processor that is not the first after a file header", "processor",
     [](const Record_View &v) { return !v.before.opened && !v.before.discontinuous && v.flags.processor_present; }},
    {"processor-changed", "the processor is not that of the records before", "processor",
     [](const Record_View &v) {
         return v.flags.processor_present && v.before.processor && *v.before.processor != v.record.processor;
     }},
    // data, strings, errors
    {"error-without-data", "an error of the data address is reported, but there is no data address", "error_code",
     [](const Record_View &v) { return v.flags.trace_error_code_present && !v.flags.data_address_present; }},
    {"error-code", "the error is not 8 (the data address is suspect)", "error_code",
     [](const Record_View &v) {
         return v.flags.trace_error_code_present && v.record.error_code != QTRACE_DataAddressIsSuspect;
     }},
    {"length-unknown", "the length 65535 stands for an unknown length, which is not carried", "length",
     [](const Record_View &v) { return v.flags.length_present && v.record.length == 0xFFFF; }},
    // registers
    {"registers-empty", "registers are announced, but none is listed", "",
     [](const Record_View &v) { return v.flags.register_trace_present && is_empty(v.record.regs); }},
    {"register-counts", "more registers are counted than a record holds", "",
     [](const Record_View &v) {
         return std::ranges::any_of(REGISTER_CLASSES,
                                    [&](const Register_Class &c) { return c.held(v.record.regs) > c.capacity; });
     }},
    {"registers-beyond-count", "register entries are filled that the counts do not cover", "",
     [](const Record_View &v) {
         return v.flags.register_trace_present && has_entries_beyond_counts(v.record.regs);
     }},
    {"register-written-twice", "a register is listed twice among those written", "",
     [](const Record_View &v) {
         return std::ranges::any_of(REGISTER_CLASSES, [&](const Register_Class &c) {
             return c.output && c.held(v.record.regs) > 1 && is_listed_twice(c, v.record.regs);
         });
     }},
};

// ---- Headers -------------------------------------------------------------------------------------------

} // namespace

struct Header_View {
    const QTRACE_Item &item;
    const QTRACE_FILE_HDR &header;
    Flag_Words words;
    bool full; // opens a trace segment; else it names a new partition or process
    std::string_view text;
    Header_Comment comment;
    bool comment_good;
    const Check_State &before;

    Header_View(const QTRACE_Item &from, const Check_State &state)
        : item(from), header(from.header), words(flags_of(header)), full(words.file != 0),
          text(header.comment != nullptr ? header.comment : ""), comment_good(parse_comment(text, comment)),
          before(state)
    {
    }
};

namespace
{

constexpr uint64_t PARTITION_FLAGS = control_mask("pid_is_present") | control_mask("lpid_is_present");
constexpr uint64_t RADIX_FLAGS = PARTITION_FLAGS | control_mask("ptcr_is_present");
constexpr uint64_t FULL_FLAGS = RADIX_FLAGS | control_mask("guest_xlate_mode_instruction") |
                                control_mask("host_xlate_mode_instruction") |
                                control_mask("secondary_extender_present");
const uint64_t FILE_RESERVED = bits_of(FILE_FLAGS, Flag_Role::reserved);
const uint64_t FILE_UNUSED = bits_of(FILE_FLAGS, Flag_Role::unused);

struct Header_Rule {
    const char *name;
    const char *sentence;
    const char *shows;
    bool (*broken)(const Header_View &view);
    Rule_Values values = Rule_Values::members;
};

const Header_Rule HEADER_RULES[] = {
    {"header-reserved-flags", "reserved flags are set in a file header", "",
     [](const Header_View &v) {
         return v.full && ((v.words.control & RESERVED) != 0 || (v.words.file & FILE_RESERVED) != 0);
     },
     Rule_Values::flags},
    {"header-unused-flags", "a flag is set in a file header that no producer sets", "",
     [](const Header_View &v) {
         return v.full && ((v.words.control & ~(FULL_FLAGS | RESERVED)) != 0 || (v.words.file & FILE_UNUSED) != 0);
     },
     Rule_Values::flags},
    {"header-unused-members", "a member of a file header is filled that no producer fills", "",
     [](const Header_View &v) {
         return any_filled(unused_in_headers(), v.header) || v.header.sec_ext_controlword.instruction != 0;
     },
     Rule_Values::unused_members},
    {"header-address", "a file header has no instruction address", "",
     [](const Header_View &v) {
         return v.full && !v.header.control.iar_is_present && first_address_of(v.header).pieces == 0;
     }},
    {"header-alignment", "the instruction address of a file header is not a multiple of 4", "iar",
     [](const Header_View &v) { return v.header.control.iar_is_present && (number(v.header.iar) & 3) != 0; }},
    {"header-version", "a file header does not say that it has a version", "",
     [](const Header_View &v) { return v.full && !v.header.control.version_number_present; }},
    {"header-extender", "secondary_extender_present is clear in a file header", "",
     [](const Header_View &v) {
         return v.full && !v.header.sec_ext_controlword.control.fld.secondary_extender_present;
     }},
    {"header-registers", "a file header lacks ptcr, lpid or pid", "",
     [](const Header_View &v) { return v.full && (v.words.control & RADIX_FLAGS) != RADIX_FLAGS; }},
    {"header-sdr1", "a file header claims an sdr1 of 0", "",
     [](const Header_View &v) { return v.header.control.sdr1_is_present && number(v.header.sdr1) == 0; }},
    {"header-comment-missing", "a file header has no comment", "",
     [](const Header_View &v) { return v.full && !v.header.control.comment_present; }},
    {"header-comment-length", "the comment is not as long as its length says", "comment_length comment",
     [](const Header_View &v) {
         return v.header.control.comment_present && v.header.comment_length != v.text.size();
     }},
    {"header-comment", "the comment does not consist of the known keys in their order", "comment",
     [](const Header_View &v) { return v.header.control.comment_present && !v.comment_good; }},
    {"header-machine", "the simulator version or the memory size is not that of the header before", "comment",
     [](const Header_View &v) {
         return v.header.control.comment_present && v.comment_good && v.before.machine &&
                (v.before.machine->version != v.comment.version || v.before.machine->memory != v.comment.memory);
     }},
    {"header-without-record", "no record follows a file header", "",
     [](const Header_View &v) { return v.full && v.before.open_header && v.before.header_seen; }},
    {"partition-flags", "a partition header carries something else than lpid and pid", "",
     [](const Header_View &v) { return !v.full && v.words.control != PARTITION_FLAGS; }, Rule_Values::flags},
    {"partition-before-header", "a partition header precedes the first file header", "lpid pid",
     [](const Header_View &v) { return !v.full && !v.before.header_seen; }},
    {"partition-repeated", "two partition headers precede one record", "lpid pid",
     [](const Header_View &v) { return !v.full && v.before.open_partition; }},
};

// ---- Translations, the same for every address ----------------------------------------------------------

struct Side_Info {
    const char *name;
    const char *what;
    const char *prefix; // of the member names
    Rule_Scope scope;
};
constexpr Side_Info SIDES[] = {
    {"next", "the next address", "next_instruction", Rule_Scope::record},
    {"data", "the data address", "data", Rule_Scope::record},
    {"header", "the address of a file header", "iar", Rule_Scope::header},
};
constexpr size_t SIDE_COUNT = std::size(SIDES);
enum Side : size_t { NEXT_SIDE, DATA_SIDE, HEADER_SIDE };

bool lacks_or_exceeds(const Translated_Address &a, uint8_t piece)
{
    return a.pieces != 0 && ((a.pieces ^ a.pair().pieces) & piece) != 0;
}

template <class Structure> bool filled(const Structure *first, size_t count)
{
    return !is_zero(reinterpret_cast<const uint8_t *>(first), count * sizeof(Structure));
}

// Members of a guest walk by level; the final address apart.
constexpr unsigned GUEST_LEVELS = 4;
bool has_guest_level(const QTRACE_RTW_GUEST &walk, unsigned level)
{
    return filled(&walk.RTPDE_GUEST_ra_l1 + (level - 1), 1);
}

bool is_walk(const Translated_Address &a, Walk_Kind kind)
{
    return a.pieces != 0 && a.pair().walk == kind;
}

unsigned walks_of(const Translated_Address &a)
{
    return std::min<unsigned>(a.guest_depth, RDX_MAX_2LEVEL_DEPTH);
}

// Directory entries after the first `levels` of a host walk.
bool has_directory_beyond(const QTRACE_RTW &walk, unsigned levels)
{
    return filled(&walk.RTPDE_ra_l1 + levels, 3 - levels);
}

struct Side_Rule {
    const char *name;
    const char *sentence; // {} stands for the side
    const char *shows;    // members without the side's prefix, "_" first
    bool (*broken)(const Translated_Address &address);
};

// The first two hold whether or not there is an address.
constexpr size_t ALWAYS_SIDE_RULES = 2;
const Side_Rule SIDE_RULES[] = {
    {"mode-pair", "the translation modes of {} are a pair that does not exist", "",
     [](const Translated_Address &a) { return !a.pair().exists; }},
    {"translation-without-address", "a translation is given, but {} is missing", "",
     [](const Translated_Address &a) { return !a.present && a.pieces != 0; }},
    {"vsid", "{} has a VSID that its translation does not have, or lacks it", "_vsid",
     [](const Translated_Address &a) { return lacks_or_exceeds(a, PIECE_VSID); }},
    {"page-number", "{} has a page number that its translation does not have, or lacks it", "_rpn",
     [](const Translated_Address &a) { return lacks_or_exceeds(a, PIECE_RPN); }},
    {"page-size", "{} has a page size that its translation does not have, or lacks it", "_page_size",
     [](const Translated_Address &a) { return lacks_or_exceeds(a, PIECE_PAGE); }},
    {"guest-page-size", "{} has a guest page size that its translation does not have, or lacks it", "_gpage_size",
     [](const Translated_Address &a) { return lacks_or_exceeds(a, PIECE_GUEST_PAGE); }},
    {"host-depth", "the host walk of {} is deeper than 4 levels", "_hRTW_num_level",
     [](const Translated_Address &a) { return a.host_depth > 4; }},
    {"guest-depth", "the guest walk of {} is deeper than 5 levels", "_hRTW_depth",
     [](const Translated_Address &a) { return a.guest_depth > RDX_MAX_2LEVEL_DEPTH; }},
    {"walk-without-radix", "walks are given for {}, whose translation has none", "_hRTW _hRTW_host_RA _gRTW",
     [](const Translated_Address &a) {
         return (a.pieces == 0 || a.pair().walk == Walk_Kind::none) &&
                (filled(a.walks, RDX_MAX_2LEVEL_DEPTH) || filled(a.host_addresses, RDX_MAX_GUEST_LEVELS) ||
                 filled(a.guest, 1));
     }},
    {"single-walk", "{} has one host walk, but more than that is filled", "_hRTW _hRTW_host_RA _gRTW",
     [](const Translated_Address &a) {
         return is_walk(a, Walk_Kind::single) &&
                (filled(a.walks + 1, RDX_MAX_2LEVEL_DEPTH - 1) || filled(a.host_addresses, RDX_MAX_GUEST_LEVELS) ||
                 !is_zero(reinterpret_cast<const uint8_t *>(a.guest), offsetof(QTRACE_RTW_GUEST, GUEST_ra)));
     }},
    {"guest-real-depth", "{} is guest real, but its guest depth is 0", "_gRTW",
     [](const Translated_Address &a) {
         return is_walk(a, Walk_Kind::single) && a.guest_depth == 0 && number(a.guest->GUEST_ra) != 0;
     }},
    {"nested-depth", "{} has a guest walk of no levels", "_hRTW_depth",
     [](const Translated_Address &a) { return is_walk(a, Walk_Kind::nested) && a.guest_depth == 0; }},
    {"nested-walks", "{} has host walks beyond the last one of its guest walk", "_hRTW_depth _hRTW",
     [](const Translated_Address &a) {
         return is_walk(a, Walk_Kind::nested) && a.guest_depth > 0 &&
                filled(a.walks + walks_of(a), RDX_MAX_2LEVEL_DEPTH - walks_of(a));
     }},
    {"nested-addresses", "{} has host addresses beyond the last one of its guest walk", "_hRTW_depth _hRTW_host_RA",
     [](const Translated_Address &a) {
         return is_walk(a, Walk_Kind::nested) && a.guest_depth > 0 &&
                filled(a.host_addresses + (walks_of(a) - 1), RDX_MAX_2LEVEL_DEPTH - walks_of(a));
     }},
    {"nested-directories", "{} has host directory entries below the depth of its walks", "_hRTW_num_level _hRTW",
     [](const Translated_Address &a) {
         const unsigned levels = a.host_depth >= 2 && a.host_depth <= 4 ? a.host_depth - 1u : 0u;
         return is_walk(a, Walk_Kind::nested) && a.host_depth <= 4 &&
                std::any_of(a.walks, a.walks + walks_of(a),
                            [&](const QTRACE_RTW &walk) { return has_directory_beyond(walk, levels); });
     }},
    {"guest-directories", "{} has guest directory entries below the depth of its guest walk", "_hRTW_depth _gRTW",
     [](const Translated_Address &a) {
         bool below = false;
         for (unsigned level = 1; level <= GUEST_LEVELS; level++)
             below |= (level == GUEST_LEVELS || level >= a.guest_depth) && has_guest_level(*a.guest, level);
         return is_walk(a, Walk_Kind::nested) && a.guest_depth > 0 && below;
     }},
};

// ---- All rules in one list -----------------------------------------------------------------------------

// Members that a flag gates: they are zero while it is clear.
struct Gate_Rule {
    Flag_Words gate;
    std::vector<const Trace_Member *> members;
    std::vector<Byte_Range> ranges;
    size_t rule; // in check_rules()
};

struct End_Rule {
    const char *name;
    const char *sentence;
};
constexpr End_Rule END_RULES[] = {
    {"segment-continued", "the last record of a trace segment tells its successor"},
    {"file-whole", "a part of the file is damaged or missing"},
};
enum End : size_t { SEGMENT_CONTINUED, FILE_WHOLE };

template <class Rows> void add_named_rows(std::vector<Check_Rule> &rules, const Rows &rows, Rule_Scope scope)
{
    for (const auto &row : rows)
        rules.push_back({std::string(row.name), row.sentence, scope, {}});
}

struct Rule_Book {
    std::vector<Check_Rule> rules;
    size_t first_record, first_header, first_side[SIDE_COUNT], first_end;
    std::vector<Gate_Rule> record_gates, header_gates;

    Rule_Book();

private:
    template <class Rows>
    size_t add_rows(const Rows &rows, Rule_Scope scope, std::span<const Trace_Member> members);
    size_t add_side(const Side_Info &side);
    std::vector<Gate_Rule> add_gates(std::span<const Trace_Member> members, Rule_Scope scope);
};

std::vector<const Trace_Member *> members_named(std::string_view names, std::string_view prefix,
                                                std::span<const Trace_Member> rows)
{
    std::vector<const Trace_Member *> members;
    while (!names.empty()) {
        const size_t blank = std::min(names.find(' '), names.size());
        const std::string name = std::string(prefix) + std::string(names.substr(0, blank));
        const auto row = std::ranges::find(rows, name, &Trace_Member::name);
        if (row != rows.end())
            members.push_back(&*row);
        names.remove_prefix(std::min(blank + 1, names.size()));
    }
    return members;
}

template <class Rows>
size_t Rule_Book::add_rows(const Rows &rows, Rule_Scope scope, std::span<const Trace_Member> members)
{
    const size_t first = rules.size();
    for (const auto &row : rows)
        rules.push_back({row.name, row.sentence, scope, members_named(row.shows, "", members), row.values});
    return first;
}

size_t Rule_Book::add_side(const Side_Info &side)
{
    const size_t first = rules.size();
    const auto members = side.scope == Rule_Scope::record ? RECORD_MEMBERS : HEADER_MEMBERS;
    for (const Side_Rule &row : SIDE_RULES)
        rules.push_back({fmt::format("{}-{}", side.name, row.name),
                         fmt::format(fmt::runtime(row.sentence), side.what), side.scope,
                         members_named(row.shows, side.prefix, members)});
    return first;
}

const Trace_Flag &flag_of(const Flag_Words &gate)
{
    const auto rows = gate.control != 0 ? CONTROL_FLAGS : FILE_FLAGS;
    const uint64_t mask = gate.control != 0 ? gate.control : gate.file;
    return *std::ranges::find(rows, mask, &Trace_Flag::mask);
}

std::vector<Gate_Rule> Rule_Book::add_gates(std::span<const Trace_Member> members, Rule_Scope scope)
{
    std::vector<Gate_Rule> gates;
    for (const Trace_Member &member : members) {
        const bool in_every_header = scope == Rule_Scope::header && (member.gate.control & PARTITION_FLAGS) != 0;
        if (!member.gated() || member.shape == Member_Shape::text || in_every_header)
            continue;
        auto gate = std::ranges::find(gates, member.gate, &Gate_Rule::gate);
        if (gate == gates.end())
            gate = gates.insert(gates.end(), {member.gate, {}, {}, 0});
        gate->members.push_back(&member);
    }
    for (Gate_Rule &gate : gates) {
        const std::string_view flag = flag_of(gate.gate).name;
        std::string name = fmt::format("{}-{}", scope == Rule_Scope::record ? "gated" : "header-gated", flag);
        std::ranges::replace(name, '_', '-');
        gate.ranges = ranges_of(gate.members);
        gate.rule = rules.size();
        rules.push_back(
            {name, fmt::format("{} is clear, but what it stands for is filled", flag), scope, gate.members});
    }
    return gates;
}

Rule_Book::Rule_Book()
{
    first_record = add_rows(RECORD_RULES, Rule_Scope::record, RECORD_MEMBERS);
    first_side[NEXT_SIDE] = add_side(SIDES[NEXT_SIDE]);
    first_side[DATA_SIDE] = add_side(SIDES[DATA_SIDE]);
    record_gates = add_gates(RECORD_MEMBERS, Rule_Scope::record);
    first_header = add_rows(HEADER_RULES, Rule_Scope::header, HEADER_MEMBERS);
    first_side[HEADER_SIDE] = add_side(SIDES[HEADER_SIDE]);
    header_gates = add_gates(HEADER_MEMBERS, Rule_Scope::header);
    first_end = rules.size();
    for (const End_Rule &row : END_RULES)
        rules.push_back({row.name, row.sentence, Rule_Scope::end, {}});
    add_named_rows(rules, DEEP_RULES, Rule_Scope::deep);
    add_named_rows(rules, TEXT_RULES, Rule_Scope::text);
    add_named_rows(rules, ENTRY_RULES, Rule_Scope::entries);
}

const Rule_Book &book()
{
    static const Rule_Book rules;
    return rules;
}

// ---- Applying them -------------------------------------------------------------------------------------

template <class Broken> void for_broken_side_rules(size_t side, const Translated_Address &address, Broken &&broken)
{
    const size_t count = address.present && address.pair().exists ? std::size(SIDE_RULES) : ALWAYS_SIDE_RULES;
    for (size_t i = 0; i < count; i++)
        if (SIDE_RULES[i].broken(address))
            broken(book().first_side[side] + i);
}

template <class Structure, class Broken>
void for_broken_gates(const std::vector<Gate_Rule> &gates, const Structure &structure, const Flag_Words &flags,
                      Broken &&broken)
{
    for (const Gate_Rule &gate : gates)
        if (!flags.any_of(gate.gate) && any_filled(gate.ranges, structure))
            broken(gate.rule);
}

// The set flags that the rules about flags object to, by name.
std::string flag_names(uint64_t word, std::span<const Trace_Flag> rows)
{
    std::string names;
    for (const Trace_Flag &flag : rows)
        if (flag.value(word) != 0 && (flag.role == Flag_Role::reserved || flag.role == Flag_Role::unused))
            names += (names.empty() ? "" : " ") + std::string(flag.name);
    return names;
}

// Values of those members that are filled, or that alone explain the violation.
template <class Structure>
std::string values_of(const std::vector<const Trace_Member *> &members, const Structure &structure)
{
    std::string values;
    for (const Trace_Member *member : members)
        if (members.size() <= 2 || !is_zero(member->at(structure), member->size))
            values +=
                fmt::format("{}{} {}", values.empty() ? "" : ", ", member->name, value_text(*member, structure));
    return values;
}

// What explains a violation: flags for the rules about flags, unused members for the rules about those.
template <class Structure>
std::string explanation(const Check_Rule &rule, const Structure &structure, const Flag_Words &flags,
                        std::span<const Trace_Member> rows)
{
    if (rule.values == Rule_Values::flags)
        return flag_names(flags.control, CONTROL_FLAGS) + flag_names(flags.file, FILE_FLAGS);
    if (rule.values == Rule_Values::unused_members)
        return values_of(members_in(rows, Field_Group::unused), structure);
    return values_of(rule.shows, structure);
}

} // namespace

const std::vector<Check_Rule> &check_rules()
{
    return book().rules;
}

size_t rule_number(std::string_view name)
{
    return static_cast<size_t>(std::ranges::find(check_rules(), name, &Check_Rule::name) - check_rules().begin());
}

void Check_State::complete(const Check_State &before)
{
    if (!told.items) {
        open_header = before.open_header;
        open_partition = before.open_partition;
    }
    if (!told.segment) {
        opened = before.opened;
        discontinuous = before.discontinuous;
        address_known = before.address_known;
        address = before.address;
        last = before.last;
    }
    if (!told.processor)
        processor = before.processor;
    if (!told.node)
        last_node = before.last_node;
    if (!told.machine)
        machine = before.machine;
    header_seen |= before.header_seen;
    records = std::max(records, before.records);
    told = {};
}

Trace_Checker::Trace_Checker(Report report, Defer defer) : report_(std::move(report)), defer_(std::move(defer))
{
}

void Trace_Checker::begin(const QTRACE_FILE_HDR *context)
{
    state_ = {};
    state_.told = {false, false, false, false, false};
    state_.header_seen = context != nullptr;
}

bool Trace_Checker::must_defer(const Header_View &view) const
{
    const Check_State::Told &told = state_.told;
    return !told.items || (view.full && (!told.segment || (view.comment_good && !told.machine)));
}

bool Trace_Checker::must_defer(const Record_View &view) const
{
    const Check_State::Told &told = state_.told;
    return !told.segment || (view.flags.processor_present && !told.processor) ||
           (view.flags.node_present && !told.node);
}

void Trace_Checker::defer(const QTRACE_Item &item)
{
    const bool comment = item.kind == QTRACE_ITEM_HEADER && item.header.comment != nullptr;
    defer_({item, comment ? std::string(item.header.comment, item.header.comment_length) : "", state_});
}

void Trace_Checker::judge(const Deferred_Item &deferred)
{
    Check_State state = deferred.state;
    state.complete(state_);
    QTRACE_Item item = deferred.item;
    if (item.kind == QTRACE_ITEM_RECORD)
        return judge(Record_View(item, state));
    if (item.header.comment != nullptr)
        item.header.comment = const_cast<char *>(deferred.comment.c_str());
    judge(Header_View(item, state));
}

void Trace_Checker::append(const Trace_Checker &next)
{
    Check_State state = next.state_;
    state.complete(state_);
    state_ = state;
}

void Trace_Checker::judge(const Header_View &view)
{
    const auto broken = [&](size_t rule) {
        const Check_Rule &row = book().rules[rule];
        report_({row, view.item.record_number,
                 view.header.control.iar_is_present ? number(view.header.iar) : view.item.address,
                 view.header.control.iar_is_present || view.item.address_known, true,
                 explanation(row, view.header, view.words, HEADER_MEMBERS)});
    };
    for (size_t i = 0; i < std::size(HEADER_RULES); i++)
        if (HEADER_RULES[i].broken(view))
            broken(book().first_header + i);
    for_broken_side_rules(HEADER_SIDE, first_address_of(view.header), broken);
    for_broken_gates(book().header_gates, view.header, view.words, broken);
    if (view.full)
        end_segment(view.before.last);
}

void Trace_Checker::header(const QTRACE_Item &item)
{
    const Header_View view(item, state_);
    must_defer(view) ? defer(item) : judge(view);
    follow(view);
}

// What the next item is measured against, after a header.
void Trace_Checker::follow(const Header_View &view)
{
    state_.told.items = true;
    state_.open_header = true;
    state_.open_partition = !view.full;
    if (!view.full)
        return;
    state_.told.segment = true;
    state_.header_seen = state_.opened = true;
    state_.discontinuous = false;
    state_.last.reset();
    state_.address_known = view.header.control.iar_is_present;
    state_.address = number(view.header.iar);
    if (view.comment_good) {
        state_.machine = view.comment;
        state_.told.machine = true;
    }
}

void Trace_Checker::judge(const Record_View &view)
{
    const auto broken = [&](size_t rule) {
        const Check_Rule &row = book().rules[rule];
        report_({row, view.item.record_number, view.item.address, view.item.address_known != 0, false,
                 explanation(row, view.record, view.words, RECORD_MEMBERS)});
    };
    for (size_t i = 0; i < std::size(RECORD_RULES); i++)
        if (RECORD_RULES[i].broken(view))
            broken(book().first_record + i);
    for_broken_side_rules(NEXT_SIDE, next_address_of(view.record), broken);
    for_broken_side_rules(DATA_SIDE, data_address_of(view.record), broken);
    for_broken_gates(book().record_gates, view.record, view.words, broken);
}

void Trace_Checker::record(const QTRACE_Item &item)
{
    const Record_View view(item, state_);
    must_defer(view) ? defer(item) : judge(view);
    follow(view);
}

void Trace_Checker::follow(const Record_View &view)
{
    Check_State &state = state_;
    const bool continued = view.flags.iar_change_present || view.flags.node_present ||
                           view.flags.termination_present || view.has_next();
    state.last = {view.item.record_number, view.item.address, view.item.address_known != 0, continued};
    state.address_known = view.item.address_known != 0 || view.has_next();
    state.address = view.has_next() ? view.next : view.item.address + 4;
    if (view.flags.processor_present) {
        state.processor = view.record.processor;
        state.told.processor = true;
    }
    if (view.flags.node_present) {
        state.last_node = view.record.node;
        state.told.node = true;
    }
    state.records = view.item.record_number + 1;
    state.open_header = state.open_partition = state.opened = state.discontinuous = false;
    state.told.items = state.told.segment = true;
}

void Trace_Checker::end_segment(const std::optional<Check_State::Place> &last)
{
    if (last && last->continued)
        report_({book().rules[book().first_end + SEGMENT_CONTINUED], last->record, last->address,
                 last->address_known, false, ""});
}

void Trace_Checker::loss()
{
    state_.discontinuous = state_.header_seen = true;
    state_.opened = state_.open_header = state_.open_partition = state_.address_known = false;
    state_.last.reset();
    state_.told.items = state_.told.segment = true;
}

void Trace_Checker::damage(uint64_t record, const std::string &reason)
{
    report_({book().rules[book().first_end + FILE_WHOLE], record, 0, false, false, reason});
    loss();
}

void Trace_Checker::end()
{
    if (!state_.discontinuous)
        end_segment(state_.last);
    if (state_.open_header) {
        const auto rule = std::ranges::find(book().rules, std::string("header-without-record"), &Check_Rule::name);
        report_({*rule, state_.records, state_.address, state_.address_known, true, ""});
    }
}

} // namespace qtrace_tool

#include "check_text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <limits>

namespace qtrace_tool
{

using namespace trace;

namespace
{

// ---- Parsing -------------------------------------------------------------------------------------------

// Decimal, or hexadecimal after "0x". Negative numbers as 64-bit patterns.
uint64_t parse_number(std::string_view text)
{
    const bool hex = text.starts_with("0x");
    const bool negative = text.starts_with("-");
    text.remove_prefix(hex ? 2 : negative ? 1 : 0);
    uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value, hex ? 16 : 10);
    return negative ? 0 - value : value;
}

// The next word between blanks, commas and parentheses.
std::string_view take_word(std::string_view &text)
{
    static constexpr std::string_view SEPARATORS = " ,()";
    const size_t begin = std::min(text.find_first_not_of(SEPARATORS), text.size());
    const size_t end = std::min(text.find_first_of(SEPARATORS, begin), text.size());
    const std::string_view word = text.substr(begin, end - begin);
    text.remove_prefix(end);
    return word;
}

// Takes the words of a line one by one.
class Line_Parser
{
public:
    explicit Line_Parser(Text_Line &line) : line_(line) {}

    void words(std::string_view text)
    {
        while (!text.empty())
            if (const std::string_view word = take_word(text); !word.empty())
                take(word);
    }

private:
    void take(std::string_view word);
    void value(std::string_view key, std::string_view text);
    bool translation_value(std::string_view key, uint64_t number);
    void register_value(std::string_view digits);
    Text_Translation &side(bool data) { return data ? line_.data_translation : line_.fetch_translation; }

    Text_Line &line_;
    bool branch_ = false;    // the word before was "branch"
    bool registers_ = false; // after the first register item
    bool output_ = false;
    std::string_view register_; // "r8"
    size_t host_walk_ = 0;
};

void Line_Parser::take(std::string_view word)
{
    const size_t colon = word.find(':');
    if (word == "Input" || word == "Output") {
        registers_ = true;
        output_ = word == "Output";
    } else if (registers_ && colon == 0 && word.size() >= 3) {
        register_value(word.substr(3));
    } else if (registers_ && colon == std::string_view::npos) {
        register_ = word;
    } else if (colon != std::string_view::npos) {
        value(word.substr(0, colon), word.substr(colon + 1));
    } else if (branch_ || word == "unknown") {
        line_.branch = std::string(word);
    }
    branch_ = word == "branch";
}

void Line_Parser::register_value(std::string_view digits)
{
    if (register_.size() < 2)
        return;
    Text_Register entry{static_cast<uint16_t>(parse_number(register_.substr(1))), {}};
    const auto word = [&](size_t from) { return parse_number("0x" + std::string(digits.substr(from, 16))); };
    entry.value[0] = word(digits.size() > 16 ? 16 : 0);
    entry.value[1] = digits.size() > 16 ? word(0) : 0; // the second word is printed first
    line_.registers[{register_[0], output_}].push_back(entry);
}

bool Line_Parser::translation_value(std::string_view key, uint64_t number)
{
    const bool data = key.starts_with("data_") || line_.data.has_value();
    Text_Translation &translation = side(data);
    if (key.starts_with("data_") || key.starts_with("iar_"))
        key.remove_prefix(key.find('_') + 1);
    else if (key.starts_with("vhRTPTE"))
        key.remove_prefix(1);
    if (key == "VSID")
        translation.vsid = number >> 8;
    else if (key == "RPN")
        translation.page_number = number;
    else if (key == "HostPageSize")
        translation.page_size = number;
    else if (key == "GuestPageSize")
        translation.guest_page_size = number;
    else if (key == "Host_RTWs_Block")
        host_walk_ = number == 0 ? 0 : number - 1;
    else if (key == "Host_RTW_Depth")
        host_walk_ = 0;
    else if (key.ends_with("_RA") || (key == "gRA" && !translation.entries.empty()))
        translation.entries.push_back({host_walk_, std::string(key), number});
    else
        return false;
    return true;
}

void Line_Parser::value(std::string_view key, std::string_view text)
{
    const uint64_t number = parse_number(text);
    if (translation_value(key, number))
        return;
    if (key == "xlatetype_I")
        line_.instruction_mode = std::string(text);
    else if (key == "xlatetype_D")
        line_.data_mode = std::string(text);
    else if (key == "pid")
        line_.pid = static_cast<uint32_t>(number);
    else if (key == "lpid")
        line_.lpid = number;
    else if (key == "ptcr")
        line_.ptcr = number;
    else if (key == "instbody")
        line_.word = number;
    else if (key == "I")
        line_.change = number != 0;
    else if (key == "N")
        line_.node = number != 0;
    else if (key == "T")
        line_.termination = number != 0;
    else if (key == "PC")
        line_.address = number;
    else if (key == "nextPC")
        line_.next = number;
    else if (key == "nn")
        line_.nn = number;
    else if (key == "DEA")
        line_.data = number;
    else if (key == "len")
        line_.length = number;
}

// ---- Comparing -----------------------------------------------------------------------------------------

// The address that a walk entry of the text stands for; none for one that traces do not carry.
std::optional<uint64_t> entry_in(const Translated_Address &trace, const Text_Translation::Entry &entry)
{
    const std::string_view label = entry.label;
    if (label == "gRTPDE_L1_RA")
        return number(trace.guest->RTPDE_GUEST_ra_l1);
    if (label == "gRTPDE_L2_RA")
        return number(trace.guest->RTPDE_GUEST_ra_l2);
    if (label == "gRTPDE_L3_RA")
        return number(trace.guest->RTPDE_GUEST_ra_l3);
    if (label == "gRTPTE_RA")
        return number(trace.guest->RTPTE_GUEST_ra);
    if (label == "gRA")
        return number(trace.guest->GUEST_ra);
    if (label.starts_with("hRTW_host_Block")) {
        const size_t block = parse_number(label.substr(15, 1));
        return block >= 1 && block <= RDX_MAX_GUEST_LEVELS
                   ? std::optional(number(trace.host_addresses[block - 1].ra))
                   : std::nullopt;
    }
    if (entry.host_walk >= RDX_MAX_2LEVEL_DEPTH)
        return std::nullopt;
    const QTRACE_RTW &walk = trace.walks[entry.host_walk];
    if (label == "hRTPDE_L1_RA")
        return number(walk.RTPDE_ra_l1);
    if (label == "hRTPDE_L2_RA")
        return number(walk.RTPDE_ra_l2);
    if (label == "hRTPDE_L3_RA")
        return number(walk.RTPDE_ra_l3);
    return label.starts_with("hRTPTE") ? std::optional(number(walk.RTPTE_ra)) : std::nullopt;
}

} // namespace

bool parse_text_line(std::string_view line, Text_Line &parsed)
{
    parsed = {};
    const size_t name = line.find("{name:");
    const size_t end = line.find("} (I:", name); // a name may hold anything, but hardly this
    if (!line.starts_with("(seq:") || end == std::string_view::npos)
        return false;
    Line_Parser parser(parsed);
    parser.words(line.substr(0, name));
    parser.words(line.substr(end + 1));
    return true;
}

// Regular files alone: a device may have no end.
static int open_error_of(const std::ifstream &file, const std::string &name)
{
    std::error_code ignored;
    if (!file.is_open())
        return errno != 0 ? errno : EIO;
    if (std::filesystem::is_directory(name, ignored))
        return EISDIR;
    return std::filesystem::is_regular_file(name, ignored) ? 0 : ESPIPE;
}

Text_Checker::Text_Checker(const std::string &name, Report report)
    : file_(name), open_error_(open_error_of(file_, name)), report_(std::move(report))
{
}

// Of a line that is longer than any line of a text trace, the rest is left out.
bool Text_Checker::read_line(std::string &line)
{
    line.resize(LONGEST_LINE);
    errno = 0;
    file_.getline(line.data(), LONGEST_LINE);
    if (file_.bad())
        read_error_ = errno != 0 ? errno : EIO;
    const auto got = static_cast<size_t>(file_.gcount());
    const bool cut = file_.fail() && got == LONGEST_LINE - 1;
    if (file_.fail() && !cut)
        return false;
    line.resize(cut || file_.eof() ? got : got - 1); // the newline counts, unless the file ends without one
    if (cut) {
        file_.clear();
        file_.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return true;
}

bool Text_Checker::next_line(std::string &line)
{
    do {
        if (ended_ || !read_line(line)) {
            ended_ = true;
            return false;
        }
        line_++;
    } while (line.starts_with("*** PAUSE") || line.starts_with("*** RESUME"));
    return true;
}

// Nothing is told of lines that cannot be read.
void Text_Checker::report(Text_Rule rule, const std::string &what)
{
    if (read_error_ == 0)
        report_(rule, what);
}

void Text_Checker::header(const QTRACE_Item &item)
{
    std::string line;
    const bool full = item.header.control.iar_is_present;
    after_header_ = true;
    header_ = item.header;
    if (full) {
        header_gives_address_ = true;
        previous_.reset();
        if (!next_line(line) || !line.starts_with("*** FILE HEADER INSERTED ***") || !next_line(line))
            report("text-header", "the text has no header here");
        else if (line != (item.header.comment != nullptr ? item.header.comment : ""))
            report("text-comment", fmt::format("the comment is `{}` in the text", line));
        return;
    }
    const std::string expected =
        fmt::format("Partition Change: pid:{},lpid:{})", static_cast<int32_t>(number(item.header.pid)),
                    static_cast<int64_t>(number(item.header.lpid)));
    if (!next_line(line) || line != expected)
        report("text-partition", fmt::format("the text has `{}` instead of `{}`", line, expected));
}

void Text_Checker::record(const QTRACE_Item &item)
{
    std::string line;
    Text_Line parsed;
    if (!next_line(line))
        report("text-end", "the text ends before the trace");
    else if (!parse_text_line(line, parsed))
        report("text-line", fmt::format("not a record line: `{}`", line.substr(0, 60)));
    else
        compare(item, parsed);
    after_header_ = header_gives_address_ = false;
    if (item.record.header.control.fld.next_instruction_EA_present)
        previous_ = item.record;
    else
        previous_.reset();
}

void Text_Checker::end()
{
    std::string line;
    if (next_line(line))
        report("text-end", fmt::format("the text goes on after the trace: `{}`", line.substr(0, 60)));
}

void Text_Checker::compare(const QTRACE_Item &item, const Text_Line &line)
{
    const QTRACE_RECORD &record = item.record;
    const auto &flags = record.header.control.fld;
    differ("text-instruction", "the instruction word", line.word, record.header.instruction);
    differ("text-address", "the address", line.address, item.address);
    differ("text-change", "the flag I", line.change, flags.iar_change_present);
    differ("text-node", "the flag N", line.node, flags.node_present);
    differ("text-termination", "the flag T", line.termination, flags.termination_present);
    if (line.nn && flags.node_present)
        differ("text-node-number", "the node number", *line.nn, record.node);
    if (line.nn && flags.termination_present)
        differ("text-node-number", "the node number at the end", *line.nn, record.termination_node);
    if (flags.next_instruction_EA_present)
        differ("text-next-address", "the next address", line.next, number(record.next_instruction_ea));
    // (an interrupt after an untaken branch changes the address too)
    if (line.branch && *line.branch == "untaken" && line.next == item.address + 4)
        differ("text-branch", "the control-flow change after an untaken branch", 0, flags.iar_change_present);
    else if (line.branch && *line.branch == "taken" && flags.termination_present)
        differ("text-branch", "the control-flow change after a taken branch", 1, flags.iar_change_present);
    differ("text-data-address", "the presence of a data address", line.data.has_value(),
           flags.data_address_present);
    if (line.data && flags.data_address_present)
        differ("text-data-address", "the data address", *line.data, number(record.data_ea));
    differ("text-length", "the presence of a length", line.length.has_value(), flags.length_present);
    if (line.length && flags.length_present)
        differ("text-length", "the length", *line.length, record.length);
    differ("text-data-mode", "the pair of data modes", pair_of_mode(line.data_mode).index(),
           data_modes(record.header.control).index());
    if (after_header_) {
        differ("text-partition", "lpid", line.lpid, number(header_.lpid));
        differ("text-partition", "pid", line.pid, number(header_.pid));
    }
    compare_registers(record.regs, line);
    compare_translation(true, line.data_translation, data_address_of(record));
    if (header_gives_address_ || previous_) {
        const Translated_Address own =
            header_gives_address_ ? first_address_of(header_) : next_address_of(*previous_);
        differ("text-instruction-mode", "the pair of instruction modes",
               pair_of_mode(line.instruction_mode).index(), own.modes.index());
        compare_translation(false, line.fetch_translation, own);
    }
}

namespace
{

constexpr uint16_t VECTOR_REGISTERS = 32; // vector-scalar ones have the same numbers, and higher ones

// The text lists both kinds of 128-bit registers under one letter, vector registers first. A list that is full in
// the record may have been longer in the simulator by one, and the text then shows that one too. Where the
// vector-scalar ones begin:
size_t scalar_vectors_begin(const QTRACE_REGISTERS &registers, const Register_Class &vectors,
                            const Register_Class &scalars, const std::vector<Text_Register> &listed)
{
    const unsigned before = vectors.entries(registers), after = scalars.entries(registers);
    if (before < vectors.capacity || listed.size() <= before + after)
        return before;
    if (after == 0) // then a fourth is a vector register, unless its number says otherwise
        return listed.size() == before + 1 && listed[before].index < VECTOR_REGISTERS ? before + 1 : before;
    const bool both_full = after == scalars.capacity && listed.size() == before + after + 1;
    return both_full && listed[before].index == register_entry(scalars, registers, 0).index ? before : before + 1;
}

} // namespace

void Text_Checker::compare_list(const QTRACE_REGISTERS &registers, const Register_Class &kind,
                                const std::vector<Text_Register> &listed, size_t begin)
{
    for (unsigned i = 0; i < kind.entries(registers); i++) {
        if (begin + i >= listed.size()) {
            report("text-registers", fmt::format("{} {} is not in the text", kind.name, i));
            return;
        }
        const Register_Entry entry = register_entry(kind, registers, i);
        const Text_Register &text = listed[begin + i];
        differ("text-registers", fmt::format("the number of register {} of {}", i, kind.name), text.index,
               entry.index);
        for (unsigned word = 0; word < kind.words; word++)
            differ("text-registers", fmt::format("{}{}", kind.letter, entry.index), text.value[word],
                   entry.value[word]);
    }
}

void Text_Checker::compare_registers(const QTRACE_REGISTERS &registers, const Text_Line &line)
{
    static const std::vector<Text_Register> none;
    for (size_t i = 0; i < REGISTER_CLASSES.size(); i++) {
        const Register_Class &kind = REGISTER_CLASSES[i];
        const bool scalar_vector = kind.letter == "x"; // the row before it is that of the vector registers
        const auto found = line.registers.find({scalar_vector ? 'v' : kind.letter[0], kind.output});
        const std::vector<Text_Register> &listed = found == line.registers.end() ? none : found->second;
        const size_t begin =
            scalar_vector ? scalar_vectors_begin(registers, REGISTER_CLASSES[i - 1], kind, listed) : 0;
        compare_list(registers, kind, listed, begin);
        const bool ends_here = kind.letter != "v" && kind.entries(registers) < kind.capacity;
        if (ends_here && listed.size() > begin + kind.entries(registers))
            differ("text-registers", fmt::format("the number of {}", kind.name), listed.size() - begin,
                   kind.entries(registers));
    }
}

void Text_Checker::compare_translation(bool data, const Text_Translation &text, const Translated_Address &trace)
{
    const Text_Rule rule = data ? Text_Rule("text-data-translation") : Text_Rule("text-fetch-translation");
    const Text_Rule walk_rule = data ? Text_Rule("text-data-walk") : Text_Rule("text-fetch-walk");
    const auto compare = [&](const char *what, const std::optional<uint64_t> &value, uint8_t piece, uint64_t own) {
        if (value && (trace.pieces & piece) != 0)
            differ(rule, what, *value, own);
    };
    compare("the VSID", text.vsid, PIECE_VSID, trace.vsid);
    compare("the page number", text.page_number, PIECE_RPN, trace.page_number);
    compare("the page size", text.page_size, PIECE_PAGE, trace.page_size);
    compare("the guest page size", text.guest_page_size, PIECE_GUEST_PAGE, trace.guest_page_size);
    if (trace.pair().walk == Walk_Kind::none)
        return;
    for (const Text_Translation::Entry &entry : text.entries)
        if (const std::optional<uint64_t> own = entry_in(trace, entry); own && trace.pieces != 0)
            differ(walk_rule, entry.label, entry.address, *own);
}

} // namespace qtrace_tool

// A trace against the text trace of the same thread, item by item.
#pragma once

#include "address_view.h"
#include "qtrace_reader.h"

#include <fmt/format.h>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qtrace_tool
{

// A translation as a line of the text trace tells it; what the line does not say is absent.
struct Text_Translation {
    std::optional<uint64_t> vsid, page_number, page_size, guest_page_size;
    struct Entry {
        size_t host_walk;  // which one the line is at
        std::string label; // without the side: "hRTPDE_L1_RA", "gRTPTE_RA", "hRTW_host_Block1_RA"
        uint64_t address;
    };
    std::vector<Entry> entries;
};

struct Text_Register {
    uint16_t index;
    uint64_t value[2];
};

// A record line of the text trace, taken apart.
struct Text_Line {
    std::string instruction_mode, data_mode;
    uint64_t pid = 0, lpid = 0, ptcr = 0;
    uint64_t word = 0, address = 0, next = 0;
    bool change = false, node = false, termination = false; // I, N, T
    std::optional<uint64_t> nn;
    std::optional<std::string> branch; // "taken", "untaken"
    std::optional<uint64_t> data;
    std::optional<uint64_t> length;
    std::map<std::pair<char, bool>, std::vector<Text_Register>> registers; // by letter and "is output"
    Text_Translation fetch_translation, data_translation;
};

// False: the line is no record line.
bool parse_text_line(std::string_view line, Text_Line &parsed);

// What a comparison with another file reports, as a rule that `check` lists.
struct Companion_Rule {
    std::string_view name;
    const char *sentence;
};

inline constexpr Companion_Rule TEXT_RULES[] = {
    {"text-header", "the text trace has no file header where the trace has one"},
    {"text-comment", "the text trace has another comment"},
    {"text-partition", "the text trace has another lpid or pid"},
    {"text-end", "the text trace ends before the trace or goes on after it"},
    {"text-line", "a line of the text trace is no record line"},
    {"text-instruction", "the instruction words differ"},
    {"text-address", "the instruction addresses differ"},
    {"text-change", "the flag I (control-flow change) differs"},
    {"text-node", "the flag N (node number) differs"},
    {"text-termination", "the flag T (termination) differs"},
    {"text-node-number", "the node numbers differ"},
    {"text-next-address", "the next addresses differ"},
    {"text-branch", "the text trace names another branch outcome"},
    {"text-data-address", "the data addresses differ, or only one has one"},
    {"text-length", "the lengths differ, or only one has one"},
    {"text-registers", "the registers differ"},
    {"text-data-mode", "the translation modes of the data addresses differ"},
    {"text-data-translation", "the translations of the data addresses differ"},
    {"text-data-walk", "the walks of the data addresses differ"},
    {"text-instruction-mode", "the translation modes of the instruction addresses differ"},
    {"text-fetch-translation", "the translations of the instruction addresses differ"},
    {"text-fetch-walk", "the walks of the instruction addresses differ"},
};

// The name of one of them.
struct Text_Rule {
    std::string_view name;

    consteval Text_Rule(const char *row) : name(row)
    {
        bool listed = false;
        for (const Companion_Rule &rule : TEXT_RULES)
            listed |= rule.name == name;
        if (!listed)
            throw "no such rule"; // does not compile
    }
};

// Reads the text trace beside the items of a trace.
class Text_Checker
{
public:
    // Called with the rule that is broken, and both values.
    using Report = std::function<void(Text_Rule rule, const std::string &what)>;

    Text_Checker(const std::string &name, Report report);
    // Why the file cannot be read, as an errno; 0 when it can.
    int open_error() const { return open_error_; }
    // Why it could not be read on, as an errno; 0 when it was read. Nothing is reported after that.
    int read_error() const { return read_error_; }

    void header(const QTRACE_Item &item);
    void record(const QTRACE_Item &item);
    void end(); // of the trace: the text must have ended too

    uint64_t line() const { return line_; } // number of the line read last

private:
    static constexpr size_t LONGEST_LINE = 1 << 17; // a comment has up to 65,535 bytes

    void report(Text_Rule rule, const std::string &what);
    bool read_line(std::string &line);
    bool next_line(std::string &line);
    void compare(const QTRACE_Item &item, const Text_Line &line);
    void compare_list(const QTRACE_REGISTERS &registers, const trace::Register_Class &kind,
                      const std::vector<Text_Register> &listed, size_t begin);
    void compare_registers(const QTRACE_REGISTERS &registers, const Text_Line &line);
    void compare_translation(bool data, const Text_Translation &text, const trace::Translated_Address &trace);
    void differ(Text_Rule rule, std::string_view what, uint64_t text, uint64_t trace)
    {
        if (text != trace)
            report(rule, fmt::format("{} is 0x{:x} in the text, 0x{:x} in the trace", what, text, trace));
    }

    std::ifstream file_;
    int open_error_;
    int read_error_ = 0;
    Report report_;
    uint64_t line_ = 0;
    bool ended_ = false;
    bool after_header_ = false;             // the last item was a header: it tells lpid and pid of the next record
    QTRACE_FILE_HDR header_{};              // the last one, of any kind
    bool header_gives_address_ = false;     // the next record's translation is in header_
    std::optional<QTRACE_RECORD> previous_; // the last record, if its next address is the next record's
};

} // namespace qtrace_tool

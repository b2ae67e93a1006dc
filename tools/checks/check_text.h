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

using namespace trace;

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

// Reads the text trace beside the items of a trace.
class Text_Checker
{
public:
    // Called with what differs: a name ("text-data-address"), and both values.
    using Report = std::function<void(std::string_view name, const std::string &what)>;

    Text_Checker(const std::string &name, Report report);
    // Why the file cannot be read, as an errno; 0 when it can.
    int open_error() const { return open_error_; }

    void header(const QTRACE_Item &item);
    void record(const QTRACE_Item &item);
    void end(); // of the trace: the text must have ended too

    uint64_t line() const { return line_; } // number of the line read last

private:
    bool next_line(std::string &line);
    void compare(const QTRACE_Item &item, const Text_Line &line);
    void compare_list(const QTRACE_REGISTERS &registers, const Register_Class &kind,
                      const std::vector<Text_Register> &listed, size_t begin);
    void compare_registers(const QTRACE_REGISTERS &registers, const Text_Line &line);
    void compare_translation(const std::string &side, const Text_Translation &text,
                             const Translated_Address &trace);
    void differ(std::string_view name, std::string_view what, uint64_t text, uint64_t trace)
    {
        if (text != trace)
            report_(name, fmt::format("{} is 0x{:x} in the text, 0x{:x} in the trace", what, text, trace));
    }

    std::ifstream file_;
    int open_error_;
    Report report_;
    uint64_t line_ = 0;
    bool ended_ = false;
    bool after_header_ = false;             // the last item was a header: it tells lpid and pid of the next record
    QTRACE_FILE_HDR header_{};              // the last one, of any kind
    bool header_gives_address_ = false;     // the next record's translation is in header_
    std::optional<QTRACE_RECORD> previous_; // the last record, if its next address is the next record's
};

} // namespace qtrace_tool

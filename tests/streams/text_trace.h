// A text trace, read back: what each line says.
#pragma once

#include "address_facts.h"
#include "recorded_stream.h"

#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>

struct Text_Line {
    uint64_t seq = 0;
    int tid = 0;
    std::string instruction_mode, data_mode;
    uint32_t word = 0;
    std::string name;
    unsigned i = 0, n = 0, t = 0;
    uint64_t address = 0, next_address = 0;
    std::optional<unsigned> node;
    std::string branch; // "taken", "untaken"
    std::optional<Address_Facts>
        instruction_translation; // empty facts: the section is there, its mode shows nothing
    std::optional<uint64_t> data_address;
    std::optional<Address_Facts> data_translation;
    std::optional<unsigned> length;
    Recorded_Registers in, out; // in the order of the line: vector before vector-scalar, both of kind 'v'
};

// The lines of one record: what stands before it, and its own.
struct Text_Entry {
    std::optional<std::string> comment;          // after the line of a file header
    std::optional<std::string> partition_change; // the whole line
    Text_Line line;
};

class Text_Trace
{
public:
    explicit Text_Trace(const std::filesystem::path &file) : in_(file) {}
    // The next record line with the lines before it; nothing at the end. Throws when a line cannot be read.
    std::optional<Text_Entry> next();

private:
    std::ifstream in_;
};

Text_Line parse_text_line(std::string_view line);

// Mnemonics of instructions, as the text trace of the same thread has them.
#pragma once

#include "qtrace_reader.h"

#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace qtrace_tool
{

// Reads a text trace forward. Its members throw std::runtime_error when it cannot be read, or does not belong to the
// trace: each record is compared with its line.
class Text_Mnemonics
{
public:
    explicit Text_Mnemonics(const std::string &name);

    // Of a record; records come in ascending order, and any may be left out. Valid until the next call.
    std::string_view of(const QTRACE_Item &record);

private:
    bool read_line();
    void find_line_of(uint64_t record);
    [[noreturn]] void fail(const std::string &what) const;

    std::string name_;
    std::ifstream file_;
    std::vector<char> buffer_;
    std::string_view line_; // in the buffer: read last
    uint64_t number_ = 0;   // of that line, from 1
    uint64_t records_ = 0;  // record lines read
};

} // namespace qtrace_tool

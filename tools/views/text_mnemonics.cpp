#include "text_mnemonics.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <limits>
#include <stdexcept>

namespace qtrace_tool
{
namespace
{

constexpr size_t LONGEST_LINE = 1 << 17; // of more, the rest is left out

// The number after `key` and 0x, up to the parenthesis; nothing stands for a line that has none.
uint64_t number_after(std::string_view line, std::string_view key)
{
    uint64_t value = 0;
    const size_t place = line.find(key);
    if (place != std::string_view::npos)
        std::from_chars(line.data() + place + key.size(), line.data() + line.size(), value, 16);
    return value;
}

} // namespace

Text_Mnemonics::Text_Mnemonics(const std::string &name) : name_(name), file_(name), buffer_(LONGEST_LINE)
{
    std::error_code ignored;
    if (!file_.is_open())
        throw std::runtime_error(fmt::format("{}: {}", name, std::strerror(errno != 0 ? errno : EIO)));
    if (!std::filesystem::is_regular_file(name, ignored)) // a device may have no end
        throw std::runtime_error(fmt::format("{}: no text trace", name));
}

void Text_Mnemonics::fail(const std::string &what) const
{
    throw std::runtime_error(fmt::format("{}: {}: it does not belong to this trace", name_, what));
}

bool Text_Mnemonics::read_line()
{
    file_.getline(buffer_.data(), LONGEST_LINE);
    const auto got = static_cast<size_t>(file_.gcount());
    const bool cut = file_.fail() && got == LONGEST_LINE - 1;
    if (file_.fail() && !cut)
        return false;
    line_ = {buffer_.data(),
             cut || file_.eof() ? got : got - 1}; // the newline counts, unless the file ends without one
    if (cut) {
        file_.clear();
        file_.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    number_++;
    return true;
}

// Headers, changes of partition and pauses have lines of their own.
void Text_Mnemonics::find_line_of(uint64_t record)
{
    while (records_ <= record) {
        if (!read_line())
            fail(fmt::format("it ends after {} records, before record {}", records_, record));
        records_ += line_.starts_with("(seq:");
    }
}

std::string_view Text_Mnemonics::of(const QTRACE_Item &record)
{
    find_line_of(record.record_number);
    const std::string_view line = line_;
    const size_t name = line.find("{name:"), end = line.find("} (I:", name);
    if (end == std::string_view::npos)
        fail(fmt::format("line {}: not a record line", number_));
    const uint64_t word = number_after(line.substr(0, name), "(instbody:0x");
    if (word != record.record.header.instruction)
        fail(fmt::format("line {}: the instruction is {:08x}, that of record {} {:08x}", number_, word,
                         record.record_number, record.record.header.instruction));
    const uint64_t address = number_after(line.substr(end), "(PC:0x");
    if (record.address_known && address != record.address)
        fail(fmt::format("line {}: the address is {:016x}, that of record {} {:016x}", number_, address,
                         record.record_number, record.address));
    return line.substr(name + 6, end - name - 6);
}

} // namespace qtrace_tool

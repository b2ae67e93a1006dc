#include "jobs_commands.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace jobs_commands
{
namespace
{

const std::vector<Words> COMMANDS = {
    {"stats", "FILE"},
    {"stats", "--json", "--top", "1000", "FILE"},
    {"stats", "--from", "12345", "--count", "23456", "FILE"},
    {"stats", "--json", "--pid", "1,3", "FILE"},
    {"stats", "--kind", "branch", "--top", "100000", "--from", "12345", "--count", "23456", "FILE"},
    {"check", "--limit", "3", "FILE"},
    {"check", "--json", "--limit", "100000", "FILE"},
    {"check", "--json", "--deep", "--limit", "100000", "FILE"},
    {"check", "--from", "12345", "--count", "23456", "FILE"},
    {"dump", "FILE"},
    {"dump", "--json", "FILE"},
    {"dump", "--kind", "branch", "--count", "900", "FILE"},
    {"dump", "--pid", "1,3", "FILE"},
    {"dump", "--json", "--from", "17000", "--count", "20000", "FILE"},
    {"info", "FILE"},
    {"info", "--verify", "FILE"},
    {"info", "--verify", "--json", "FILE"},
    {"info", "--verify", "--from", "12345", "--count", "23456", "FILE"},
    {"tlb", "--json", "--split", "--flush-on-switch", "--interval", "5000", "--top", "100000", "FILE"},
    {"tlb", "--from", "12345", "--count", "23456", "FILE"},
    {"report", "-o", "OUT", "FILE"},
    {"report", "-o", "OUT", "--from", "12345", "--count", "23456", "FILE"},
    {"recover", "FILE", "OUT"},
    {"cut", "-o", "OUT", "FILE"},
    {"cut", "-o", "OUT", "--from", "12345", "--count", "23456", "FILE"},
    {"cut", "-o", "OUT", "--pid", "1,3", "FILE"},
    {"cut", "-o", "OUT", "--every", "9000", "--window", "7000", "--count", "20000", "FILE"},
    {"export", "--format", "csv", "-o", "OUT", "FILE"},
    {"export", "--format", "csv", "-o", "OUT", "--from", "12345", "--count", "23456", "FILE"},
    {"export", "--format", "csv", "-o", "OUT", "--kind", "branch", "--count", "900", "FILE"},
    {"export", "--format", "csv", "-o", "OUT", "--pid", "1,3", "FILE"},
    {"export", "--format", "champsim", "-o", "OUT", "FILE"},
    {"export", "--format", "champsim", "--address", "real", "-o", "OUT", "FILE"},
    {"export", "--format", "callgrind", "-o", "OUT", "FILE"},
    {"export", "--format", "ctf", "-o", "OUT", "FILE"},
    {"export", "--format", "sqlite", "-o", "OUT", "--count", "2000", "FILE"},
};

const std::vector<Words> COMPARISONS = {
    {"diff", "--limit", "30", "FILE", "OTHER"},
    {"diff", "--json", "--limit", "100000", "FILE", "OTHER"},
    {"diff", "--ignore", "header,missing", "FILE", "OTHER"},
    {"diff", "--json", "--limit", "1000", "--from", "12345", "--count", "33456", "FILE", "OTHER"},
};

std::string file_contents(const std::filesystem::path &file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// A trace in Common Trace Format has a random number of 16 bytes in its text and in its streams, which differs each time.
std::string without_uuid(const std::string &metadata, std::string stream)
{
    const std::string key = "uuid = \"";
    const std::string text = metadata.substr(metadata.find(key) + key.size(), 36);
    std::string digits = text, uuid;
    std::erase(digits, '-');
    for (size_t i = 0; i < digits.size(); i += 2)
        uuid += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    for (size_t place = 0; (place = stream.find(uuid, place)) != std::string::npos;)
        stream.replace(place, uuid.size(), uuid.size(), '-');
    std::string rest = metadata;
    return rest.erase(rest.find(text), text.size()) + stream;
}

} // namespace

const std::vector<Words> &commands()
{
    return COMMANDS;
}

const std::vector<Words> &comparisons()
{
    return COMPARISONS;
}

Outcome run(const Words &command, const char *jobs, const Files &files)
{
    std::filesystem::remove_all(files.out);
    Words words = command;
    std::ranges::replace(words, "FILE", files.file);
    std::ranges::replace(words, "OTHER", files.other);
    std::ranges::replace(words, "OUT", files.out);
    words.insert(words.begin() + 1, {"--jobs", jobs});
    return qtrace(words);
}

std::string bytes_of(const std::filesystem::path &file)
{
    if (!std::filesystem::is_directory(file))
        return file_contents(file);
    return without_uuid(file_contents(file / "metadata"), file_contents(file / "stream0"));
}

Trace mixed_trace(size_t records, uint8_t registers)
{
    Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD]};
    uint64_t noise = 7;
    for (size_t i = 1; i < records; i++) {
        noise = noise * 6364136223846793005u + 1442695040888963407u;
        Item item{false, {}, "", plain_record(0x7c000214)};
        item.record.header.control.fld.register_trace_present = 1;
        item.record.regs.num_gprs_out = registers;
        for (uint8_t k = 0; k < registers; k++)
            item.record.regs.gpr_out[k] = {static_cast<uint16_t>((i + k) % 32), noise * (k + 1)};
        if (noise >> 60 == 0) {
            item = good_trace()[TAKEN_BRANCH];
            item.record.next_instruction_ea[2] = static_cast<uint8_t>(noise >> 40);
            item.record.next_instruction_rpn[1] = static_cast<uint8_t>(noise >> 48);
        } else if (noise >> 60 == 1) {
            item = good_trace()[NESTED_LOAD];
            item.record.data_rpn[1] = static_cast<uint8_t>(noise >> 48);
        } else if (i % 997 == 0) {
            item.record.header.control.fld.node_present = 1;
            item.record.node = 7;
        }
        trace.push_back(item);
        if (i % 3001 == 0) {
            trace.push_back(good_trace()[PARTITION]);
            trace.back().header.pid[0] = static_cast<uint8_t>(noise >> 48 & 3);
        }
        if (i % 9001 == 0) {
            trace.push_back(good_trace()[SECOND_HEADER]);
            trace.push_back(good_trace()[RESUMED]);
            trace.back().record.processor = static_cast<uint8_t>(noise >> 48 & 1);
        }
    }
    return trace;
}

} // namespace jobs_commands

// Four times the blocks take four times as long, whatever stands in them: headers everywhere, damage everywhere.
#include "planted_trace.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <functional>

using namespace planted;

namespace
{

double processor_seconds(const std::function<void()> &work)
{
    const auto now = [] {
        timespec time;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const double began = now();
    work();
    return now() - began;
}

constexpr size_t FILE_START = 16, BLOCK_HEADER = 56;

uint32_t crc32c(const std::string &bytes)
{
    uint32_t crc = ~0u;
    for (const char byte : bytes) {
        crc ^= static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; bit++)
            crc = crc >> 1 ^ (crc & 1 ? 0x82F63B78 : 0);
    }
    return ~crc;
}

template <class Number> void put(std::string &bytes, size_t offset, Number number)
{
    std::memcpy(&bytes.at(offset), &number, sizeof(number));
}

// A trace whose blocks are good_trace(), three headers in each, with numbers that count on.
std::string trace_of(const Folder &folder, size_t blocks)
{
    folder.write("one0", good_trace());
    const std::string one = folder.contents("one0");
    std::string bytes = one.substr(0, FILE_START);
    for (uint64_t i = 0; i < blocks; i++) {
        std::string block = one.substr(FILE_START);
        block[5] = static_cast<char>(i + 1 == blocks ? block[5] | 1 : block[5] & ~1); // the last one
        put(block, 24, i * 11);
        put(block, 32, i * 3);
        put(block, 52, crc32c(block.substr(0, 52)));
        bytes += block;
    }
    return bytes;
}

// A bit of every other block is not what it was: of its payload, or of its header.
std::string damaged(std::string bytes, size_t blocks, size_t offset)
{
    const size_t size = (bytes.size() - FILE_START) / blocks;
    for (size_t i = 1; i < blocks; i += 2)
        bytes[FILE_START + i * size + offset] ^= 1;
    return bytes;
}

const std::vector<std::vector<std::string>> COMMANDS = {
    {"info"},
    {"info", "--verify"},
    {"dump", "--from", "5000", "--count", "1"},
    {"check", "--limit", "1"},
    {"stats"},
    {"recover"},
    {"diff"},
};

// Seconds of each command on these bytes.
std::vector<double> seconds_on(const Folder &folder, const std::string &bytes, int expected)
{
    const std::string file = folder.text("many0", bytes);
    std::vector<double> seconds;
    for (std::vector<std::string> arguments : COMMANDS) {
        arguments.push_back(file);
        if (arguments[0] == "recover" || arguments[0] == "diff")
            arguments.push_back(arguments[0] == "diff" ? file : folder.path("saved0"));
        seconds.push_back(processor_seconds([&] {
            const int code = qtrace(arguments).exit_code;
            EXPECT_TRUE(code == expected || code == 0) << arguments[0] << code;
        }));
    }
    return seconds;
}

void expect_linear(const std::function<std::string(const Folder &, size_t)> &bytes_of, int expected)
{
    const Folder folder;
    const std::vector<double> few = seconds_on(folder, bytes_of(folder, 1000), expected),
                              many = seconds_on(folder, bytes_of(folder, 4000), expected);
    for (size_t i = 0; i < COMMANDS.size(); i++)
        EXPECT_LT(many[i], 9 * few[i] + 0.05) << COMMANDS[i][0] << ": " << few[i] << " s, " << many[i] << " s";
}

} // namespace

TEST(linear_time, with_headers_in_every_block)
{
    expect_linear([](const Folder &folder, size_t blocks) { return trace_of(folder, blocks); }, 0);
}

TEST(linear_time, with_damage_in_every_other_payload)
{
    expect_linear([](const Folder &folder,
                     size_t blocks) { return damaged(trace_of(folder, blocks), blocks, BLOCK_HEADER + 100); },
                  3);
}

TEST(linear_time, with_damage_in_every_other_block_header)
{
    expect_linear([](const Folder &folder, size_t blocks) { return damaged(trace_of(folder, blocks), blocks, 17); },
                  3);
}

// A recorded commit stream as the tests read it: by themselves, not with the reader of the replay host.
#pragma once

#include "address_facts.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// One register of an instruction. 128-bit values have two words.
struct Recorded_Register {
    char kind; // 'r', 'f', 's', 'v' (vector), 'x' (vector-scalar)
    int number;
    uint64_t word[2];
    bool operator==(const Recorded_Register &) const = default;
};

// Registers in the order of the kinds: general, floating-point, special, vector, vector-scalar.
using Recorded_Registers = std::vector<Recorded_Register>;

// The translation of one address. Members that the stream leaves out are 0.
struct Recorded_Address {
    unsigned mode = 0;
    unsigned status = 0;
    unsigned guest_two_level = 0;
    unsigned host_depth = 0, guest_depth = 0;
    bool relocated = false;
    uint64_t vsid = 0, rpn = 0, host_rpn = 0, guest_rpn = 0;
    unsigned page_size = 0, host_page_size = 0, guest_page_size = 0;
    std::array<std::array<uint64_t, 4>, 5> host_walk{};
    std::array<uint64_t, 4> host_ra{};
    std::array<uint64_t, 5> guest_walk{}; // levels 1 to 3, page-table entry, guest real address
};

struct Recorded_Commit {
    uint64_t seq = 0, pc = 0, npc = 0;
    uint32_t op = 0;
    std::string text;
    bool branch = false, unconditional = false, taken = false, access = false, exception = false, string = false;
    unsigned string_length = 0;
    bool kernel = false; // from the thread's context
    Recorded_Address fetch, data;
    std::optional<uint64_t> ea;
    Recorded_Registers in, out;
};

// What the stream has for one hardware thread.
struct Recorded_Thread {
    std::vector<Recorded_Commit> commits;
    std::string entry_accesses; // words of its pte and rtpte events, big-endian, in event order
};

struct Recorded_Stream {
    std::vector<Recorded_Thread> threads;
};

// The lines of a stream, plain or compressed, at most `limit`.
std::string stream_text(const std::filesystem::path &file, size_t limit);
Recorded_Stream parse_stream(const std::string &text);

// What a trace is to say about the translation of an address of this instruction: the items that its mode has.
// `selector` is the mode that selects a guest's walk: the fetch's, for data too.
Address_Facts expected_facts(const Recorded_Address &address, unsigned selector, bool kernel);

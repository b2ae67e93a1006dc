// A commit stream decoded into memory, laid out so that the host's answers are single loads: what is measured is to
// be the plugin, not a host's bookkeeping.
#pragma once

#include "plugin_api.h"
#include "plugin_basic.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <memory_resource>
#include <string>
#include <vector>

namespace bench
{

// Tables walked for an address. Shared by all accesses to the same page.
struct Walks {
    std::array<HostRadixTree, 5> host;
    GuestRadixTree guest; // without the final address

    bool operator<(const Walks &other) const;
};

// Translation of one address.
struct Address {
    uint64_t ra, vsid;
    uint32_t rpn, host_rpn, guest_rpn;
    uint8_t status, mode, guest_mode, host_mode;
    uint8_t host_two_level, guest_two_level, host_depth, guest_depth;
    uint8_t relocated, page_size, host_page_size, guest_page_size;
    const Walks *walks;
    std::array<PA, 4> host_ra;
    PA guest_ra;
};

// Registers of one direction: numbers and values one class after the other, gpr, fpr, spr, vsx, vmx; a 128-bit
// register has two values.
struct Registers {
    uint8_t gprs, fprs, sprs, vsxs, vmxs;
    const int32_t *numbers;
    const uint64_t *values;
};

// State of a hardware thread, shared by the instructions from one change to the next.
struct Context {
    uint64_t ptcr, lpid, sdr1;
    uint32_t pid;
    uint8_t bit64, little_endian, kernel, cycle_mode;
    PAGE_SIZES_USED pages, guest_pages;
};

// What an instruction handle points to.
struct Instruction {
    int32_t tid;
    uint32_t op;
    uint64_t seq, pc, npc, ea;
    const Context *context;
    uint16_t string_length;
    uint8_t branch, unconditional, taken, load, store, cache, string, exception, vmx, vsx, filtered, sim_support,
        ea_valid;
    Address fetch, data;
    Registers in, out;
    const char *text;
};

class Decoded_Stream
{
public:
    // Reads at most `limit` commits of `file`. Throws std::runtime_error when the stream is refused.
    Decoded_Stream(const std::string &file, size_t limit);
    Decoded_Stream(const Decoded_Stream &) = delete;
    Decoded_Stream &operator=(const Decoded_Stream &) = delete;

    std::vector<Instruction> instructions;
    std::vector<PTE_Event_Info> ptes;
    std::vector<RTPTE_Event_Info> rtptes;
    uint32_t threads = 1; // hardware threads of the machine
    uint32_t version = 0;
    uint64_t memory = 0;

private:
    friend struct Decoder;
    std::pmr::monotonic_buffer_resource arena_; // register lists and texts
    std::deque<Context> contexts_;
    std::map<Walks, std::unique_ptr<Walks>> walks_;
};

} // namespace bench

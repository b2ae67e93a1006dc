// The stand-in host: a machine without a simulator. It holds what a simulator would answer about the machine,
// its hardware threads and the instruction being delivered, and exports the complete host interface
// (plugin_basic.h, plugin_api.h) on top of that. Programs that load the plugin link this and export their symbols.
//
// The interface the plugin sees is a set of C functions, so there is one host per process: replay::host().
#pragma once

#include "plugin_api.h"
#include "plugin_basic.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace replay
{

// What the host answers about the translation of one address: the instruction's (fetch) or its data access's.
// Codes and units are handed through. Unlisted walks answer 0.
struct Address_Answers {
    MMUStatus status = MMU_SUCCESS;
    RDX_XLATE_MODE mode = RADIX_MODE_NOT_YET_SET;
    RDX_MODE guest_mode = RADIX_MODE_NOT_SET;
    RDX_MODE host_mode = RADIX_MODE_NOT_SET;
    uint8_t host_two_level = 0;
    uint8_t guest_two_level = 0;
    uint8_t host_depth = 0;
    uint8_t guest_depth = 0;
    bool relocated = false;
    uint64_t ra = 0;
    uint64_t vsid = 0;
    uint32_t rpn = 0;
    uint32_t host_rpn = 0;
    uint32_t guest_rpn = 0;
    uint8_t page_size = 0;
    uint8_t host_page_size = 0;
    uint8_t guest_page_size = 0;
    std::array<HostRadixTree, 5> host_walk{};
    std::array<PA, 4> host_ra{};
    GuestRadixTree guest_walk{}; // the root is not asked for
};

// Copies counts and as many entries. Counts are handed out as they are, also one that does not fit; never more entries
// than there is room for.
inline void copy_registers(const Plugin_Inst_Registers &from, Plugin_Inst_Registers &to)
{
    const auto copy_class = [](int32_t count, const auto &index, auto &to_index, const auto &value,
                               auto &to_value) {
        const auto entries = static_cast<size_t>(std::clamp(count, 0, static_cast<int32_t>(std::size(index))));
        std::copy_n(index, entries, to_index);
        std::copy_n(value, entries, to_value);
        return count;
    };
    to.gpr_num = copy_class(from.gpr_num, from.gpr_index, to.gpr_index, from.gpr_value, to.gpr_value);
    to.fpr_num = copy_class(from.fpr_num, from.fpr_index, to.fpr_index, from.fpr_value, to.fpr_value);
    to.spr_num = copy_class(from.spr_num, from.spr_index, to.spr_index, from.spr_value, to.spr_value);
    to.vsx_num = copy_class(from.vsx_num, from.vsx_index, to.vsx_index, from.vsx_value, to.vsx_value);
    to.vmx_num = copy_class(from.vmx_num, from.vmx_index, to.vmx_index, from.vmx_value, to.vmx_value);
}

// Registers of one direction. Only as many entries are handed out as the counts say, and assignment copies no more:
// the lists are two thirds of an Instruction and mostly empty.
struct Instruction_Registers : Plugin_Inst_Registers {
    // cppcheck-suppress uninitDerivedMemberVar ; the base is initialized whole
    Instruction_Registers() : Plugin_Inst_Registers{} {}
    // cppcheck-suppress uninitDerivedMemberVar
    Instruction_Registers(const Plugin_Inst_Registers &registers) : Plugin_Inst_Registers(registers) {}
    Instruction_Registers(const Instruction_Registers &) = default;
    bool any() const { return (gpr_num | fpr_num | spr_num | vsx_num | vmx_num) != 0; }
    Instruction_Registers &operator=(const Instruction_Registers &other)
    {
        if (!other.any())
            gpr_num = fpr_num = spr_num = vsx_num = vmx_num = 0;
        else if (this != &other)
            copy_registers(other, *this);
        return *this;
    }
};

// What the host answers about one committed instruction.
struct Instruction {
    int tid = 0;
    uint64_t seq = 0;
    uint64_t pc = 0;
    uint64_t npc = 0;
    uint32_t op = 0;
    bool branch = false;
    bool unconditional = false;
    bool taken = false;
    bool load = false;
    bool store = false;
    bool cache = false;
    bool string = false;
    bool exception = false;
    bool vmx = false;
    bool vsx = false;
    bool filtered = false;
    bool sim_support = false;
    bool ea_valid = false;
    uint16_t string_length = 0;
    uint64_t ea = 0;
    Address_Answers fetch{};
    Address_Answers data{};
    Instruction_Registers in{};
    Instruction_Registers out{};
    std::string text{}; // mnemonic and operands
};

// State of one hardware thread, which holds until it is set again.
struct Thread_Context {
    uint64_t ptcr = 0;
    uint64_t lpid = 0;
    uint32_t pid = 0;
    uint64_t sdr1 = 0;
    bool bit64 = false;
    bool little_endian = false;
    bool kernel = false;
    bool cycle_mode = false;
    PAGE_SIZES_USED pages{};
    PAGE_SIZES_USED guest_pages{};
};

// The machine's shape.
struct Machine_Shape {
    uint32_t processors = 1;
    uint32_t threads = 1; // per processor
    uint32_t version = 0;
    uint64_t memory = 0;             // bytes
    std::vector<unsigned> options{}; // indices of the processor options that are on
};

// More hardware threads than any machine has; keeps a mistyped count from taking all memory.
constexpr uint64_t MAX_HARDWARE_THREADS = 65536;

enum class Channel { print, warning, error };

// One call of SIM_PRINT, sim_do_warning or sim_do_error.
struct Console_Message {
    Channel channel;
    int level;          // of a warning; 0 otherwise
    std::string source; // of an error; empty otherwise
    int line;           // of an error; 0 otherwise
    std::string text;   // as formatted by the plugin, line ends included
};

// The message as a line for people: "warning (2): TEXT", "error (SOURCE:LINE): TEXT", each with one line end; a
// print is its text as it is.
std::string description_of(const Console_Message &message);

class Host
{
public:
    // Becomes a machine of that shape with all threads in their initial state, raw time 0, nothing delivered.
    // The plugin must not be loaded (its tables have the old size). Throws std::invalid_argument when there are
    // more than MAX_HARDWARE_THREADS or an option is out of range.
    void reset(const Machine_Shape &shape);

    const Machine_Shape &shape() const { return shape_; }
    int thread_count() const { return static_cast<int>(contexts_.size()); }

    // State of a hardware thread from now on. The first call for a thread also says what its LPID and PID were
    // before, unless the plugin has asked about their change already: a thread without a state has 0 for both.
    void set_context(int tid, const Thread_Context &context);
    const Thread_Context &context(int tid) const { return contexts_[static_cast<size_t>(tid)].now; }

    Cycle raw_time() const { return raw_time_; }
    void set_raw_time(Cycle time) { raw_time_ = time; }

    // Receives everything the plugin says. Without one: SIM_PRINT to standard output, the rest to standard error.
    using Console = std::function<void(const Console_Message &)>;
    void set_console(Console console) { console_ = std::move(console); }

    // Receives the host's side of `start`, `stop` and `warm`: "start", "stop", "warm FILE".
    using Session_Listener = std::function<void(std::string_view)>;
    void set_session_listener(Session_Listener listener) { session_listener_ = std::move(listener); }

    // Takes effect in the observing build of this library only: receives the name of every query, in order. Queries
    // that take a walk or level number are named with it: "Get_Inst_PC_HOST_RTPTE_n_RA(2)"; Get_String_Length with
    // its commit flag.
    using Query_Observer = std::function<void(std::string_view)>;
    void set_query_observer(Query_Observer observer);

    // The client data to hand to plugin_init.
    void *client_data() { return this; }

    // ---- used by the exported functions -----------------------------------------------------------------
    struct Thread {
        Thread_Context now;
        uint64_t lpid_last_told = 0; // what the change queries compare with
        uint32_t pid_last_told = 0;
        bool lpid_told = false; // the change query has been answered at least once
        bool pid_told = false;
        bool has_context = false;
    };
    Thread &thread(int tid) { return contexts_[static_cast<size_t>(tid)]; }
    void say(const Console_Message &message);
    void tell_session(std::string_view what);
    Machine *machine() { return &machine_; }
    ProcessorState *processor() { return &processor_; }

private:
    Machine_Shape shape_;
    Machine machine_{};
    ProcessorState processor_{};
    std::vector<Thread> contexts_;
    Cycle raw_time_ = 0;
    Console console_;
    Session_Listener session_listener_;
};

// The process's host.
Host &host();

// Puts the instruction's handle together for the plugin: the queries answer from `instruction` as long as it
// lives. A handle made from an Instruction with only `tid` set answers for `pre`, `pte` and `rtpte` events.
void *handle_of(const Instruction &instruction);

} // namespace replay

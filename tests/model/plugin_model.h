// A second, plain account of what the plugin does: same events in, and out come the calls it should make, the text
// it should say, the bytes of its files and the state it should be in. It favours being short over being fast and
// takes nothing from the plugin but the declarations of records that both sides exchange.
#pragma once

#include "host.h"
#include "model_steps.h"
#include "qtrace_t.h"
#include "recording_writer.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace model
{

// ---- What comes out ------------------------------------------------------------------------------------------

// Text that is free to be anything stands as this character.
inline constexpr char ANYTHING = '\x01';

// Parts of a written item whose contents depend on a walk that no array can hold; they are not compared.
struct Open_Parts {
    bool iar = false;
    bool next = false;
    bool data = false;
};

struct Outcome {
    enum class Kind { console, session, open, close, header, record } kind;
    replay::Channel channel = replay::Channel::print; // console
    int level = 0;
    std::string source; // console, of an error
    std::string text;   // console: the message; session: what the host is told; open: the file's name
    QTRACE_FDESCR file = 0;
    bool failed = false; // a failed write comes without its contents
    Written_Header header;
    QTRACE_RECORD record = blank<QTRACE_RECORD>();
    Open_Parts open;

    // A throughput line: its text lacks the two rates until the interval is known.
    struct Rates {
        uint64_t instructions = 0;
        uint64_t vmx = 0;
    };
    std::optional<Rates> rates;
};

struct Output_File {
    std::string contents;
    size_t flushed = 0; // bytes that must have reached the file by now
    bool is_open = false;
    bool is_text = false;
    bool compared = false;
    bool shared = false; // two streams write into it, one over the other
};

// ---- An instruction ------------------------------------------------------------------------------------------

// One address and how it was translated: of the instruction, of the next one, or of the data.
struct Translation {
    uint64_t address = 0;
    bool relocated = false;
    int mode = 0;
    uint8_t host_depth = 0;
    uint8_t guest_depth = 0;
    uint64_t vsid = 0;
    uint64_t ra = 0;
    uint32_t rpn = 0;
    uint8_t page = 0;
    uint8_t guest_page = 0;
    std::array<HostRadixTree, 5> host_walk{};
    std::array<uint64_t, 4> host_ra{};
    GuestRadixTree guest_walk{};
    bool open = false; // captured from a walk of impossible depth
};

struct Node {
    int tid = 0;
    uint64_t seq = 0;
    Translation fetch, next, data;
    uint64_t ptcr = 0, lpid = 0, sdr1 = 0, memory = 0;
    uint32_t pid = 0, version = 0;
    bool partition_change = false;
    bool bit64 = false, little_endian = false, kernel = false, simple = false;
    PAGE_SIZES_USED pages{}, guest_pages{};
    MMUStatus data_status = MMU_SUCCESS;
    bool I = false, N = false, T = false;
    uint8_t nn = 0;
    Plugin_Inst_Registers in{}, out{};
    bool done = false, commit = false;
    uint64_t terminated_seq = 0;
    uint32_t op = 0;
    std::string name;
    char branch = 0, taken = 0;
    bool load = false, store = false, cache = false, string = false, exception = false, ea_valid = false;
    uint16_t string_length = 0;
    std::unique_ptr<Node> left, right;

    bool accesses_data() const { return (load || store || cache) && ea_valid; }
    bool carries_next() const { return I || (N && !T); }
};

// ---- The plugin ----------------------------------------------------------------------------------------------

enum class Deferred { nothing, pause, resume };

struct Thread {
    // of the session
    QTRACE_FDESCR file = 0;
    Output_File *text = nullptr;
    Output_File *pte = nullptr;
    bool header_written = false;
    std::unique_ptr<Node> root;
    Node *last = nullptr;
    std::vector<std::unique_ptr<Node>> pieces; // of a cracked instruction, ascending seq
    std::unique_ptr<Node> flush_slot;
    bool has_flush_list = false;
    std::vector<std::unique_ptr<Node>> flush_list;      // ascending terminated_seq
    std::vector<Pre_Executed_Instruction> pre_executed; // ascending seq
    // from load to unload
    bool paused = false;
    Deferred deferred = Deferred::nothing;
    // the host's side
    replay::Thread_Context context;
    std::optional<uint64_t> lpid_told; // what the change query was last answered for
    std::optional<uint32_t> pid_told;
    uint64_t first_lpid = 0; // of the first context
    uint32_t first_pid = 0;
    bool has_context = false;
};

class Plugin_Model
{
public:
    // ---- entry points and events --------------------------------------------------------------------------
    void new_machine(const replay::Machine_Shape &shape); // the host becomes another one; the plugin is not loaded
    bool load();                                          // false: refused
    void unload();
    void signal(const std::vector<std::string> &words);
    void set_context(int tid, const replay::Thread_Context &context);
    void commit(const replay::Instruction &instruction, uint64_t ticks);
    void pte_access(int tid, const PTE_Event_Info &info);
    void rtpte_access(int tid, const RTPTE_Event_Info &info);
    void call_helpers(const Call_Helpers &call);

    // ---- what a test changes without the plugin's knowledge --------------------------------------------------------
    void fail_writer(const Fail_Writer &failure);
    void block_file(const std::string &path) { blocked.insert(path); }
    void put_flushed(const Flushed_Instruction &flushed);
    void put_pre_executed(const Pre_Executed_Instruction &seen);

    // ---- what must not be asked of the plugin: it ends the process by assertion -----------------------------
    bool would_abort(const std::vector<std::string> &words) const;

    // ---- state, named as the plugin's ------------------------------------------------------------------------
    bool loaded = false; // the tables from load to unload exist
    bool init = false;
    int processors = 0;
    int threads_per_processor = 0;
    bool drop_suffix = false;
    bool append_suffix = false;
    uint64_t instructions = 0, vmx = 0, vsx = 0; // since the last throughput line
    uint64_t total = 0, total_vmx = 0, total_vsx = 0;
    uint64_t start_raw_time = 0;
    bool clock_read = false;      // the wall clock was taken in this step
    bool has_descriptors = false; // qfile_in_bin exists
    bool has_text = false;
    bool has_pte = false;
    std::vector<QTRACE_FDESCR> descriptors;
    std::vector<Thread> threads;
    uint64_t raw_time = 0;
    replay::Machine_Shape machine;

    std::vector<Outcome> outcomes;            // of the step; the caller clears them
    std::map<std::string, Output_File> files; // by path

private:
    // console
    void say(replay::Channel channel, std::string text);
    void warn(std::string text) { say(replay::Channel::warning, std::move(text)); }
    void error(std::string text) { say(replay::Channel::error, std::move(text)); }
    void print(std::string text) { say(replay::Channel::print, std::move(text)); }
    void tell_host(std::string what);
    // commands
    struct Selection {
        std::vector<int> tids;
        std::string error;
    };
    Selection select_threads(const std::vector<std::string> &words, bool pausing) const;
    void start(const std::vector<std::string> &words);
    void stop();
    void warm(const std::vector<std::string> &words);
    void pause_or_resume(const std::vector<std::string> &words, bool pausing);
    void report();
    // session
    bool open_session(const std::string &bin, const std::optional<std::string> &text,
                      const std::optional<std::string> &pte);
    void close_session();
    std::string file_name(const std::string &base, int tid) const;
    bool name_fits(const std::string &base);
    Output_File *create_file(const std::string &path, bool is_text);
    void forget_capture(Thread &thread);
    // pause and resume
    void request(int tid, Deferred action);
    void perform(int tid, Deferred action);
    // capture
    std::unique_ptr<Node> capture(const replay::Instruction &instruction);
    bool partition_changed(Thread &thread);
    void count(const replay::Instruction &instruction);
    std::unique_ptr<Node> crack(Thread &thread, std::unique_ptr<Node> node);
    // ordering
    static void put_flushed_into_list(Thread &thread, std::unique_ptr<Node> flushed);
    bool place_flushed(Thread &thread, const Node &current); // false: one is still to come
    void write_batch(Thread &thread, Node *previous);
    void write_all(Thread &thread);
    // writing
    void write_text(const Node &node);
    void write_binary(const Node &node);
    bool write_header(int tid, Written_Header header, Open_Parts open, const char *complaint);

    struct Countdown {
        uint64_t calls = 0; // until the failing one; 0: never
        bool for_ever = false;
        bool due();
    };
    std::map<Writer_Operation, Countdown> failures;
    QTRACE_FDESCR next_descriptor = 100;
    std::set<std::string> blocked;
};

// ---- Parts that need no state ----------------------------------------------------------------------------------

// Values of `format` and its arguments, as printf would print them.
std::string formatted(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Whether the depth of the guest's walk fits the arrays that hold it.
inline bool possible_walk(uint8_t guest_depth)
{
    return guest_depth >= 1 && guest_depth <= 5;
}

// What a translation records of the host's answers. A guest's data follows the mode of its instruction.
void capture_translation(Translation &to, const replay::Address_Answers &answers, bool kernel, int guest_mode);
// What `next` of the previous instruction takes from the address of the one that followed it.
void fill_next(Translation &next, const Translation &fetch);
void merge_registers(Plugin_Inst_Registers &into, const Plugin_Inst_Registers &from);

// All nodes of the tree: each one, then its side chain, then its successor.
std::vector<Node *> in_order(Node *root);
void set_flags(Node *root);
// Hangs `flushed` into the tree; gives back the node where the next search starts, or null (then `flushed` is
// kept).
Node *hang(Node *start, std::unique_ptr<Node> &flushed);

std::string page_sizes(const PAGE_SIZES_USED &pages);
std::string comment_of(const Node &node);
std::string text_line(const Node &node);

Written_Header first_header(const Node &node, Open_Parts &open);
Written_Header partition_header(const Node &node);
QTRACE_RECORD record_of(const Node &node, Open_Parts &open);

} // namespace model

// Whatever words a command has and whenever it comes, the plugin does what its model does: the same calls of the
// writer, the same texts, files and state after every step.
//
// The first byte of an input is the machine. Every line after it is a step, or several: a line that begins with '!'
// has an event a byte, any other is a command of words with one blank between them, so that two blanks make an empty
// word and an empty line a command without any.
//
// Left out on purpose:
// - A pause or resume of a thread whose earlier request still waits for a commit, and a session of a plugin that is not
//   loaded: both end the process by assertion. Plugin_Model::would_abort knows them, and the run skips them.
// - What is in a file that two streams of a session have opened under one name: they write over one another.
// - Filtered instructions: each leaks its node by design, and millions would fill the memory.

#include "model_run.h"
#include "model_steps.h"
#include "plugin_model.h"
#include "plugin_qtbin.h"
#include "qtrace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sanitizer/asan_interface.h>
#include <string>
#include <string_view>
#include <vector>

using namespace model;

extern "C" void *__real_malloc(size_t size);
extern "C" void __real_free(void *block);

namespace
{

constexpr size_t MOST_STEPS = 64; // more of them show little else, and take long

replay::Machine_Shape machine_from(uint8_t byte)
{
    replay::Machine_Shape shape{.processors = 1u + (byte & 1), .threads = 1u + (byte >> 1 & 1)};
    if (byte & 4)
        shape.options.push_back(PO_QTRACE_ENABLE_REMOVING_OF_PERMANENT_THREAD0_ID_FROM_TRACE_FILE);
    if (byte & 8)
        shape.options.push_back(PO_QTRACE_ENABLE_APPENDING_OF_THREAD_ID_TO_TRACE_FILE);
    return shape;
}

// The events between the commands, so that commands meet threads in every state.
class Events
{
public:
    explicit Events(Run &run) : run_(run) {}

    void add(uint8_t byte)
    {
        const int tid = byte & 3;
        switch (byte >> 2 & 15) {
        case 0:
            return add(Pte_Access{tid, {0x1000, {0x20, 0x30}}});
        case 1:
            return add(Rtpte_Access{tid, {1, 2, 3, 4, 5}});
        case 2: // keeps requests waiting until seq has gone by
            return add(Flushed_Instruction{
                .tid = tid, .seq = seq_ + 3, .terminated_seq = seq_, .pc = 0x2000, .npc = 0x2004});
        case 3:
            return add(Set_Context{tid, {.lpid = seq_, .pid = 1, .cycle_mode = (seq_ & 1) != 0}});
        case 4:
            return add(Fail_Writer{Writer_Operation::open, 1u + tid, false});
        case 5:
            return add(Fail_Writer{Writer_Operation::header, 1u + tid, false});
        case 6:
            return add(Fail_Writer{Writer_Operation::record, 1u + tid, false});
        case 7:
            return add(Load_Again{});
        case 8:
            return add(Unload{});
        case 9: // after an unload
            return add(Load_Machine{machine_from(byte)});
        case 10:
            return add(Near_Report{1u + tid});
        case 11:
            return commit(tid, 0); // a piece of a cracked instruction in cycle mode
        case 12:
            return commit(tid, 0x100);
        default:
            return commit(tid, 4);
        }
    }

private:
    template <class Kind> void add(Kind step) { run_.steps.emplace_back(std::move(step)); }

    void commit(int tid, uint64_t distance)
    {
        replay::Instruction instruction{
            .tid = tid, .seq = ++seq_, .pc = pc_, .npc = pc_ + distance, .op = 0x60000000};
        pc_ = instruction.npc;
        add(Commit{std::move(instruction), 1});
    }

    Run &run_;
    uint64_t seq_ = 1;
    uint64_t pc_ = 0x1000;
};

// The words of a line. A word is a C string, and no file of a run is to lie outside its folder: NUL and '/' become
// something else. The same for a leading '@', which the run would replace by a folder, and the model's character for
// any text.
std::vector<std::string> words_of(std::string line)
{
    for (char &c : line)
        if (c == '\0' || c == '/' || c == ANYTHING)
            c = '%';
    std::vector<std::string> words;
    for (size_t begin = 0, end = 0; !line.empty() && end != std::string::npos; begin = end + 1) {
        end = line.find(' ', begin);
        words.push_back(line.substr(begin, end - begin));
        if (words.back().starts_with('@'))
            words.back().front() = '%';
    }
    return words;
}

Run run_from(std::string_view bytes)
{
    Run run{machine_from(static_cast<uint8_t>(bytes.front())), {}};
    Events events(run);
    bytes.remove_prefix(1);
    while (!bytes.empty() && run.steps.size() < MOST_STEPS) {
        const size_t length = std::min(bytes.find('\n'), bytes.size());
        const std::string_view line = bytes.substr(0, length);
        bytes.remove_prefix(std::min(length + 1, bytes.size()));
        if (!line.starts_with('!')) {
            run.steps.emplace_back(Console_Command{words_of(std::string(line))});
            continue;
        }
        for (const char event : line.substr(1, MOST_STEPS))
            events.add(static_cast<uint8_t>(event));
    }
    return run;
}

// A session's stacks and lists have room for millions of nodes, and use little of it. Claiming and checking so much
// memory for each would take most of the time, so their blocks are used again; a freed one must not be touched.
class Large_Blocks
{
public:
    static constexpr size_t SIZE = DEFAULT_LIST_SIZE * sizeof(::Node *);

    void *take()
    {
        if (free_.empty())
            free_.push_back(__real_malloc(SIZE));
        void *block = free_.back();
        free_.pop_back();
        ASAN_UNPOISON_MEMORY_REGION(block, POISONED);
        taken_.push_back(block);
        return block;
    }

    // False: none of these.
    bool give_back(void *block)
    {
        const auto found = std::find(taken_.begin(), taken_.end(), block);
        if (found == taken_.end())
            return false;
        taken_.erase(found);
        free_.push_back(block);
        ASAN_POISON_MEMORY_REGION(block, POISONED);
        return true;
    }

    size_t taken() const { return taken_.size(); }

private:
    static constexpr size_t POISONED = 4096; // no input uses more
    std::vector<void *> taken_, free_;
};

Large_Blocks &large_blocks()
{
    static auto *blocks = new Large_Blocks; // outlives what is freed at the end
    return *blocks;
}

} // namespace

extern "C" void *__wrap_malloc(size_t size)
{
    return size == Large_Blocks::SIZE ? large_blocks().take() : __real_malloc(size);
}

extern "C" void __wrap_free(void *block)
{
    if (!block || !large_blocks().give_back(block))
        __real_free(block);
}

// The header's comment is the writer's for ever, and would be lost with every header.
extern "C" int __real_QTRACE_FwriteFileHeader(QTRACE_FDESCR file, QTRACE_FILE_HDR *header);
extern "C" int __wrap_QTRACE_FwriteFileHeader(QTRACE_FDESCR file, QTRACE_FILE_HDR *header)
{
    const int result = __real_QTRACE_FwriteFileHeader(file, header);
    std::free(header->comment);
    header->comment = nullptr;
    return result;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const Run run = run_from({reinterpret_cast<const char *>(data), size});
    Figures figures;
    const auto mismatch = play(run, figures);
    if (large_blocks().taken() != 0)
        std::abort(); // lost
    if (!mismatch)
        return 0;
    for (size_t step = 0; step <= mismatch->step && step < run.steps.size(); ++step)
        std::fprintf(stderr, "%s\n", to_text(run.steps[step]).c_str());
    std::fprintf(stderr, "differs: %s\n", mismatch->what.c_str());
    std::abort();
}

#include "model_steps.h"

#include <algorithm>
#include <random>

namespace model
{

namespace
{

// Numbers from a seed, the same on every machine.
class Dice
{
public:
    explicit Dice(uint64_t seed) : engine_(seed) {}
    uint64_t any() { return engine_(); }
    uint64_t below(uint64_t n) { return engine_() % n; }
    int between(int low, int high) { return low + static_cast<int>(below(static_cast<uint64_t>(high - low + 1))); }
    bool percent(unsigned chance) { return below(100) < chance; }
    template <class T> const T &one_of(const std::vector<T> &values) { return values[below(values.size())]; }

    // A value of any size, so that small ones are as frequent as wide ones.
    uint64_t any_size() { return engine_() >> below(64); }
    uint32_t any_size_32() { return static_cast<uint32_t>(engine_() >> (32 + below(32))); }
    uint8_t byte() { return static_cast<uint8_t>(percent(80) ? below(10) : below(256)); }

private:
    std::mt19937_64 engine_;
};

using Words = std::vector<std::string>;

class Generator
{
public:
    explicit Generator(uint64_t seed) : dice_(seed) {}

    Run run()
    {
        Run run{machine(), {}};
        take(run.shape);
        flushes_ = dice_.percent(25);
        text_wanted_ = dice_.percent(70);
        plain_host_ = dice_.percent(30);
        if (dice_.percent(60))
            for (int tid = 0; tid < static_cast<int>(threads_.size()); ++tid)
                add(context(tid));
        if (dice_.percent(95))
            add(start());
        const int count = dice_.between(20, 420);
        for (int i = 0; i < count; ++i)
            any_step();
        run.steps = std::move(steps_);
        return run;
    }

private:
    struct Thread {
        uint64_t seq = 0;
        uint64_t pc = 0x1000;
        bool cycle_mode = false;
    };

    void add(Step step) { steps_.push_back(std::move(step)); }

    void take(const replay::Machine_Shape &shape) { threads_.assign(shape.processors * shape.threads, {}); }

    int any_tid() { return static_cast<int>(dice_.below(threads_.size())); }

    // ---- machine -------------------------------------------------------------------------------------------

    replay::Machine_Shape machine()
    {
        replay::Machine_Shape shape;
        shape.processors = static_cast<uint32_t>(dice_.percent(40) ? 1 : dice_.between(1, 4));
        shape.threads = static_cast<uint32_t>(dice_.percent(40) ? 1 : dice_.between(1, 4));
        shape.version = dice_.any_size_32();
        shape.memory = dice_.any_size();
        for (unsigned option : {450u, 451u})
            if (dice_.percent(25))
                shape.options.push_back(option);
        return shape;
    }

    boolean truth() { return dice_.percent(25); }

    PAGE_SIZES_USED pages()
    {
        if (dice_.percent(10))
            return {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
        return {truth(), truth(), truth(), truth(), truth(), truth(),
                truth(), truth(), truth(), truth(), truth(), truth()};
    }

    Set_Context context(int tid)
    {
        Set_Context step;
        step.tid = tid;
        replay::Thread_Context &c = step.context;
        c.ptcr = dice_.any_size();
        c.lpid = dice_.percent(80) ? dice_.below(3) : dice_.any_size();
        c.pid = dice_.percent(80) ? static_cast<uint32_t>(dice_.below(3)) : dice_.any_size_32();
        c.sdr1 = dice_.percent(30) ? 0 : dice_.any_size();
        c.bit64 = dice_.percent(50);
        c.little_endian = dice_.percent(50);
        c.kernel = dice_.percent(50);
        c.cycle_mode = !plain_host_ && dice_.percent(50);
        c.pages = pages();
        c.guest_pages = pages();
        threads_[tid].cycle_mode = c.cycle_mode;
        return step;
    }

    // ---- instructions --------------------------------------------------------------------------------------

    RDX_XLATE_MODE mode()
    {
        static const std::vector<int> captured{11, 14, 16, 19, 23, 23, 23, 24, 25, 26, 27, 29, 30, 31};
        if (dice_.percent(75))
            return static_cast<RDX_XLATE_MODE>(dice_.one_of(captured));
        if (dice_.percent(97))
            return static_cast<RDX_XLATE_MODE>(dice_.between(0, 38));
        return static_cast<RDX_XLATE_MODE>(dice_.any());
    }

    uint8_t depth(int most)
    {
        if (dice_.percent(94))
            return static_cast<uint8_t>(dice_.between(1, most));
        static const std::vector<uint8_t> odd{0, 5, 6, 7, 128, 254, 255};
        return dice_.one_of(odd);
    }

    replay::Address_Answers address()
    {
        replay::Address_Answers a;
        if (dice_.percent(10))
            return a;
        a.status = dice_.percent(70) ? MMU_SUCCESS : static_cast<MMUStatus>(dice_.below(10));
        a.mode = mode();
        a.guest_mode = static_cast<RDX_MODE>(dice_.below(6));
        a.host_mode = static_cast<RDX_MODE>(dice_.below(6));
        a.host_two_level = dice_.byte();
        a.guest_two_level = dice_.percent(a.mode == 23 || a.mode == 14 ? 75 : 25) ? dice_.byte() : uint8_t{0};
        a.host_depth = depth(4);
        a.guest_depth = depth(5);
        a.relocated = dice_.percent(60);
        a.ra = dice_.any_size();
        a.vsid = dice_.any_size();
        a.rpn = dice_.any_size_32();
        a.host_rpn = dice_.any_size_32();
        a.guest_rpn = dice_.any_size_32();
        a.page_size = dice_.byte();
        a.host_page_size = dice_.byte();
        a.guest_page_size = dice_.byte();
        for (HostRadixTree &walk : a.host_walk)
            walk = {dice_.any_size(), dice_.any_size(), dice_.any_size(), dice_.any_size()};
        for (PA &ra : a.host_ra)
            ra = dice_.any_size();
        a.guest_walk = {
            0, dice_.any_size(), dice_.any_size(), dice_.any_size(), dice_.any_size(), dice_.any_size()};
        return a;
    }

    // Seldom one below 0, which no host should have: it takes part in the sums of counts.
    int register_count(int most)
    {
        if (dice_.percent(1))
            return -dice_.between(1, 3);
        return dice_.percent(60) ? 0 : dice_.percent(30) ? most : dice_.between(0, most);
    }

    int32_t register_number()
    {
        return dice_.percent(95) ? dice_.between(0, 40) : static_cast<int32_t>(dice_.any());
    }

    void fill(int32_t &num, int32_t *index, uint64_t *value, int most)
    {
        num = register_count(most);
        for (int i = 0; i < num; ++i) {
            index[i] = register_number();
            value[i] = dice_.any_size();
        }
    }

    void fill(int32_t &num, int32_t *index, QuadWord *value, int most)
    {
        num = register_count(most);
        for (int i = 0; i < num; ++i) {
            index[i] = register_number();
            value[i] = {{dice_.any_size(), dice_.any_size()}};
        }
    }

    Plugin_Inst_Registers registers()
    {
        Plugin_Inst_Registers r{};
        if (dice_.percent(30))
            return r;
        fill(r.gpr_num, r.gpr_index, r.gpr_value, dice_.percent(20) ? MAX_GPRS : 4);
        fill(r.fpr_num, r.fpr_index, r.fpr_value, MAX_FPRS);
        fill(r.spr_num, r.spr_index, r.spr_value, MAX_SPRS);
        fill(r.vmx_num, r.vmx_index, r.vmx_value, MAX_VMXRS);
        fill(r.vsx_num, r.vsx_index, r.vsx_value, MAX_VSXRS);
        return r;
    }

    std::string mnemonic()
    {
        static const std::vector<std::string> texts{"", "nop", "ld r3,8(r4)", "odd %s %n text"};
        if (dice_.percent(90))
            return dice_.one_of(texts);
        return std::string(static_cast<size_t>(dice_.between(60, 70)), static_cast<char>('a' + dice_.below(26)));
    }

    // Everything but the thread, the sequence number and the addresses.
    replay::Instruction instruction()
    {
        replay::Instruction i;
        i.op = static_cast<uint32_t>(dice_.any());
        i.branch = dice_.percent(20);
        i.unconditional = dice_.percent(i.branch ? 40 : 5);
        i.taken = dice_.percent(i.branch ? 60 : 5);
        i.load = dice_.percent(25);
        i.store = dice_.percent(20);
        i.cache = dice_.percent(8);
        i.string = dice_.percent(8);
        i.exception = dice_.percent(8);
        i.vmx = dice_.percent(10);
        i.vsx = dice_.percent(10);
        i.filtered = dice_.percent(5);
        i.sim_support = dice_.percent(4);
        i.ea_valid = dice_.percent(i.load || i.store || i.cache ? 85 : 10);
        i.string_length = static_cast<uint16_t>(dice_.percent(20) ? 0xFFFF : dice_.any_size() & 0xFFFF);
        i.ea = dice_.any_size();
        i.fetch = address();
        if (dice_.percent(60))
            i.data = address();
        i.in = registers();
        i.out = registers();
        i.text = mnemonic();
        return i;
    }

    uint64_t next_seq(Thread &thread)
    {
        if (!flushes_ && dice_.percent(1))
            thread.seq -= dice_.below(3); // the same number again, or an older one
        else if (!flushes_ && dice_.percent(1))
            thread.seq += dice_.any_size() >> 8;
        else
            thread.seq += dice_.percent(85) ? 1 : static_cast<uint64_t>(dice_.between(2, 12));
        return thread.seq;
    }

    Commit commit(int tid)
    {
        Thread &thread = threads_[tid];
        Commit step{instruction(), dice_.percent(90) ? 1 : dice_.any_size()};
        replay::Instruction &i = step.instruction;
        i.tid = tid;
        i.seq = next_seq(thread);
        i.pc = thread.pc;
        i.npc = i.pc + 4;
        if (i.branch ? i.taken || dice_.percent(10) : dice_.percent(4))
            i.npc = dice_.percent(10) ? i.pc + 4 : dice_.any_size() & ~uint64_t{3};
        if (i.branch && dice_.percent(3))
            i.npc = i.pc;
        thread.pc = dice_.percent(95) ? i.npc : dice_.any_size();
        return step;
    }

    void cracked_instruction(int tid)
    {
        const int pieces = dice_.between(1, 4);
        const uint64_t pc = threads_[tid].pc;
        for (int piece = 0; piece < pieces; ++piece) {
            Commit step = commit(tid);
            step.instruction.branch = false;
            step.instruction.pc = step.instruction.npc = pc;
            if (dice_.percent(8))
                step.instruction.seq -= dice_.below(3);
            add(std::move(step));
        }
        threads_[tid].pc = pc;
        if (dice_.percent(90))
            add(commit(tid));
    }

    Flushed_Instruction flushed(int tid)
    {
        const uint64_t seq = threads_[tid].seq;
        Flushed_Instruction f;
        f.tid = tid;
        f.seq = seq + dice_.below(6);
        f.terminated_seq = seq < 4 ? 1 + dice_.below(6) : seq - 3 + dice_.below(7);
        if (dice_.percent(10))
            f.terminated_seq = UINT64_MAX - dice_.below(8);
        f.pc = dice_.any_size();
        f.npc = dice_.percent(70) ? f.pc + 4 : dice_.any_size();
        f.op = static_cast<uint32_t>(dice_.any());
        f.branch = dice_.percent(60) ? '?' : dice_.percent(50) ? 'U' : 'C';
        f.taken = f.branch == '?' ? '?' : dice_.percent(40) ? 'Y' : dice_.percent(70) ? 'N' : 'X';
        f.store = dice_.percent(30);
        f.ea = dice_.any_size();
        f.done = dice_.percent(50);
        return f;
    }

    // ---- console -------------------------------------------------------------------------------------------

    std::string any_case(std::string word)
    {
        if (dice_.percent(85))
            return word;
        for (char &c : word)
            if (dice_.percent(50))
                c = static_cast<char>(c ^ 0x20);
        return word;
    }

    // A name for one family of files; families never share one.
    std::string file(char family)
    {
        static const std::vector<std::string> names{"a", "b c", "100%s%n", "long_name_of_a_trace_"};
        if (dice_.percent(4))
            return "@missing/" + std::string(1, family);
        return "@" + std::string(1, family) + "_" + dice_.one_of(names) + (dice_.percent(30) ? "x" : "_");
    }

    Console_Command start()
    {
        Words words{any_case("start"), file('b')};
        const bool plain = dice_.percent(10);
        if (!plain && text_wanted_ && dice_.percent(85))
            add_pair(words, "txt", 't');
        if (!plain && dice_.percent(60))
            add_pair(words, "pte", 'p');
        if (!plain && dice_.percent(10))
            add_pair(words, dice_.percent(50) ? "txt" : "pte", dice_.percent(50) ? 'u' : 'q');
        if (dice_.percent(8))
            words.insert(words.begin() + dice_.between(2, static_cast<int>(words.size())),
                         dice_.one_of(Words{"and", "tx", "pt", "%s%n", "TXT", "pte", "t xt"}));
        if (dice_.percent(2))
            words.push_back("");
        return {words};
    }

    void add_pair(Words &words, const std::string &key, char family)
    {
        const std::string word = any_case(key + dice_.one_of(Words{"", "", "", "_file", "x"}));
        const bool first = dice_.percent(20);
        Words pair{word, file(family)};
        words.insert(first ? words.begin() + 2 : words.end(), pair.begin(), pair.end());
    }

    std::string id(size_t count)
    {
        if (dice_.percent(75))
            return std::to_string(dice_.below(count));
        return dice_.one_of(Words{"0x1", "01", "", " 1", "1 ", "+1", "-0", "-1", "-2147483648", "4294967296", "0x",
                                  "08", "abc", "1x", "99999999999999999999", std::to_string(count),
                                  std::to_string(count + 3), "0x%n", "%d"});
    }

    Words pause_words(const std::string &verb)
    {
        const size_t most = std::min<size_t>(4, threads_.size());
        Words words{any_case(verb)};
        const int form = dice_.between(0, 9);
        if (form >= 2)
            words.push_back(dice_.percent(90) ? any_case("cpu") : dice_.one_of(Words{"core", "c", "x", "", "pu"}));
        if (form >= 3)
            words.push_back(id(most));
        if (form >= 5)
            words.push_back(dice_.percent(90) ? any_case("thread") : dice_.one_of(Words{"t", "x", "", "read"}));
        if (form >= 6)
            words.push_back(id(most));
        if (form >= 9)
            words.push_back("more");
        return words;
    }

    Console_Command odd_command()
    {
        return {dice_.one_of(std::vector<Words>{{},
                                                {""},
                                                {"start"},
                                                {"warm"},
                                                {"warm", "@w%s"},
                                                {"WARM", "x", "y"},
                                                {"stopp"},
                                                {"%s%n"},
                                                {"pause", "cpu"},
                                                {"resume", "cpu", "0", "thread"}})};
    }

    Console_Command command()
    {
        const uint64_t kind = dice_.below(100);
        if (kind < 25)
            return {pause_words("pause")};
        if (kind < 50)
            return {pause_words("resume")};
        if (kind < 54)
            return {{any_case("pause")}};
        if (kind < 62)
            return {{any_case("resume")}};
        if (kind < 78)
            return start();
        if (kind < 90)
            return {dice_.percent(90) ? Words{any_case("stop")} : Words{"stop", "now"}};
        return odd_command();
    }

    // ---- steps ---------------------------------------------------------------------------------------------

    void reload()
    {
        add(Unload{});
        if (dice_.percent(30))
            add(Unload{});
        if (dice_.percent(40))
            add(command());
        if (dice_.percent(20))
            add(Load_Machine{{.processors = dice_.percent(50) ? 0u : 2u, .threads = 0, .options = {450}}});
        const replay::Machine_Shape shape = machine();
        add(Load_Machine{shape});
        take(shape);
        if (dice_.percent(80))
            add(context(any_tid()));
        add(start());
    }

    void fail_writer()
    {
        const auto operation = static_cast<Writer_Operation>(dice_.below(3));
        add(Fail_Writer{operation, static_cast<uint64_t>(dice_.between(0, 6)), dice_.percent(10)});
        if (operation == Writer_Operation::open)
            add(start());
    }

    void rare_step()
    {
        switch (dice_.below(11)) {
        case 0:
            if (dice_.percent(40))
                reload();
            break;
        case 1:
            add(Load_Again{});
            break;
        case 2:
        case 3:
            fail_writer();
            break;
        case 4:
            add(Fail_Writer{static_cast<Writer_Operation>(dice_.below(3)), 0, false});
            break;
        case 5:
            add(Block_File{(dice_.percent(50) ? "t_ax" : "p_a_") + std::to_string(any_tid())});
            break;
        case 6:
            add(Near_Report{1 + dice_.below(10)});
            break;
        case 7:
            add(Pre_Executed_Instruction{any_tid(), 0, register_number(), dice_.any()});
            std::get<Pre_Executed_Instruction>(steps_.back()).seq =
                threads_[std::get<Pre_Executed_Instruction>(steps_.back()).tid].seq + dice_.below(5);
            break;
        case 8:
            add(Call_Helpers{mnemonic().substr(0, 4), static_cast<int>(dice_.any())});
            break;
        default:
            add(Look_At_Text{});
            break;
        }
    }

    void any_step()
    {
        const uint64_t kind = dice_.below(1000);
        const int tid = any_tid();
        if (kind < 25)
            add(command());
        else if (kind < 45)
            rare_step();
        else if (kind < 65)
            add(context(tid));
        else if (kind < 75)
            add(Pre_Execution{tid});
        else if (kind < 90)
            add(Pte_Access{tid, {dice_.any_size(), {dice_.any_size(), dice_.any_size()}}});
        else if (kind < 105)
            add(Rtpte_Access{tid,
                             {dice_.any_size(), dice_.any_size(), dice_.any_size(), dice_.any(), dice_.any()}});
        else if (kind < 180 && flushes_)
            add(flushed(tid));
        else if (kind < 250 && threads_[tid].cycle_mode)
            cracked_instruction(tid);
        else
            add(commit(tid));
    }

    Dice dice_;
    std::vector<Step> steps_;
    std::vector<Thread> threads_;
    bool flushes_ = false, text_wanted_ = true, plain_host_ = false;
};

} // namespace

Run random_run(uint64_t seed)
{
    return Generator(seed).run();
}

} // namespace model

#include "model_run.h"

#include "lost_on_purpose.h"
#include "model_difference.h"
#include "plugin_model.h"
#include "traced_machine.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <sys/time.h>

namespace model
{

namespace
{

uint64_t milliseconds_now()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

std::string rate(uint64_t count, uint64_t milliseconds)
{
    const double value = static_cast<double>(count) / static_cast<double>(milliseconds);
    return std::isnan(value) ? "nan" : formatted("%.2f", value);
}

// A rate that is no number may be printed with a sign.
std::string without_sign_of_nan(std::string text)
{
    if (!text.starts_with("QTRACE: Cycles="))
        return text;
    for (size_t at; (at = text.find("-nan")) != std::string::npos;)
        text.erase(at, 1);
    return text;
}

// Words of the plugin's state against the model's; keeps the first that differs.
class State_Comparison
{
public:
    template <class A, class B> void same(const std::string &name, const A &expected, const B &actual)
    {
        if (what_.empty() && static_cast<uint64_t>(expected) != static_cast<uint64_t>(actual))
            what_ = name + ": expected " + std::to_string(expected) + ", got " + std::to_string(actual);
    }
    const std::string &what() const { return what_; }

private:
    std::string what_;
};

std::string at(const char *table, size_t tid)
{
    return std::string(table) + "[" + std::to_string(tid) + "]";
}

void compare_tree(State_Comparison &state, const std::string &name, const Node *expected, const ::Node *actual)
{
    state.same(name + " exists", expected != nullptr, actual != nullptr);
    if (!expected || !actual || !state.what().empty())
        return;
    state.same(name + ".seq", expected->seq, actual->seq);
    state.same(name + ".terminated_seq", expected->terminated_seq, actual->terminated_seq);
    state.same(name + ".PC", expected->fetch.address, actual->PC);
    state.same(name + ".nextPC", expected->next.address, actual->nextPC);
    state.same(name + ".partition_change", expected->partition_change, actual->partition_change);
    state.same(name + ".commit", expected->commit, actual->commit);
    state.same(name + ".done", expected->done, actual->done);
    state.same(name + ".I", expected->I, actual->I);
    state.same(name + ".N", expected->N, actual->N);
    state.same(name + ".T", expected->T, actual->T);
    state.same(name + ".nn", expected->nn, actual->nn);
    compare_tree(state, name + "->left", expected->left.get(), actual->left);
    compare_tree(state, name + "->right", expected->right.get(), actual->right);
}

template <class Nodes>
void compare_chain(State_Comparison &state, const std::string &name, const Nodes &expected, const ::Node *actual)
{
    size_t length = 0;
    for (; actual; actual = actual->left, ++length)
        if (length < expected.size())
            state.same(name + ", seq of number " + std::to_string(length), expected[length]->seq, actual->seq);
    state.same(name + ", length", expected.size(), length);
}

void compare_open_thread(State_Comparison &state, size_t tid, const Plugin_Model &model)
{
    const Thread &thread = model.threads[tid];
    state.same(at("hdr_write", tid), thread.header_written, hdr_write[tid]);
    state.same(at("qfile_in_text", tid) + " exists", thread.text != nullptr, qfile_in_text && qfile_in_text[tid]);
    state.same(at("qfile_in_pte", tid) + " exists", thread.pte != nullptr, qfile_in_pte && qfile_in_pte[tid]);
    state.same(at("flush_seq", tid), 0, flush_seq[tid]);
    compare_tree(state, at("root", tid), thread.root.get(), root[tid]);
    state.same(at("last_commit", tid) + " exists", thread.last != nullptr, last_commit[tid] != nullptr);
    if (thread.last && last_commit[tid])
        state.same(at("last_commit", tid) + ".seq", thread.last->seq, last_commit[tid]->seq);
    compare_chain(state, at("crack_inst", tid), thread.pieces, crack_inst[tid]);
    compare_tree(state, at("flush", tid), thread.flush_slot.get(), flush[tid]);
    state.same(at("flush_list", tid) + " exists", thread.has_flush_list, flush_list[tid] != nullptr);
    if (flush_list[tid]) {
        const List &list = *flush_list[tid];
        state.same(at("flush_list", tid) + ".list_size", DEFAULT_LIST_SIZE, list.list_size);
        state.same(at("flush_list", tid) + ".list_index", thread.flush_list.size(), list.list_index);
        for (size_t i = 0; state.what().empty() && i < thread.flush_list.size(); ++i)
            compare_tree(state, at("flush_list", tid) + at(".list", i), thread.flush_list[i].get(), list.list[i]);
    }
    size_t seen = 0;
    for (const ::Node *node = pre_execution[tid]; node; node = node->left)
        ++seen;
    state.same(at("pre_execution", tid) + ", length", thread.pre_executed.size(), seen);
}

void compare_tables(State_Comparison &state, const Plugin_Model &model)
{
    const bool open = model.init;
    state.same("paused exists", model.loaded, paused != nullptr);
    state.same("commit_action exists", model.loaded, commit_action != nullptr);
    state.same("qfile_in_bin exists", model.has_descriptors, qfile_in_bin != nullptr);
    state.same("qfile_in_text exists", model.has_text, qfile_in_text != nullptr);
    state.same("qfile_in_pte exists", model.has_pte, qfile_in_pte != nullptr);
    state.same("hdr_write exists", open, hdr_write != nullptr);
    state.same("root exists", open, root != nullptr);
    state.same("last_commit exists", open, last_commit != nullptr);
    state.same("flush_seq exists", open, flush_seq != nullptr);
    state.same("flush exists", open, flush != nullptr);
    state.same("flush_list exists", open, flush_list != nullptr);
    state.same("pre_execution exists", open, pre_execution != nullptr);
    state.same("crack_inst exists", open, crack_inst != nullptr);
    state.same("s1 exists", open, s1 != nullptr);
    state.same("s2 exists", open, s2 != nullptr);
}

void compare_numbers(State_Comparison &state, const Plugin_Model &model)
{
    state.same("init", model.init, init);
    state.same("processor_num", model.processors, processor_num);
    state.same("thread_num", model.threads_per_processor, thread_num);
    state.same("enable_qt_remove_permanent_thread0_id_from_trace_file", model.drop_suffix,
               enable_qt_remove_permanent_thread0_id_from_trace_file);
    state.same("enable_qt_appending_of_thread0_id_to_trace_file", model.append_suffix,
               enable_qt_appending_of_thread0_id_to_trace_file);
    state.same("instr_commited", model.instructions, instr_commited);
    state.same("VMX_instr_commited", model.vmx, VMX_instr_commited);
    state.same("VSX_instr_commited", model.vsx, VSX_instr_commited);
    state.same("total_instr_commited", model.total, total_instr_commited);
    state.same("total_VMX_instr_commited", model.total_vmx, total_VMX_instr_commited);
    state.same("total_VSX_instr_commited", model.total_vsx, total_VSX_instr_commited);
    state.same("start_raw_time", model.start_raw_time, start_raw_time);
}

std::string compare_state(const Plugin_Model &model)
{
    State_Comparison state;
    compare_numbers(state, model);
    compare_tables(state, model);
    for (size_t tid = 0; state.what().empty() && tid < model.threads.size(); ++tid) {
        const Commit_Callback actions[] = {nullptr, mark_paused, mark_resumed};
        if (model.loaded) {
            state.same(at("paused", tid), model.threads[tid].paused, paused[tid]);
            state.same(at("commit_action", tid) + " is as expected", 1,
                       commit_action[tid] == actions[static_cast<int>(model.threads[tid].deferred)]);
        }
        if (model.has_descriptors && !model.descriptors.empty())
            state.same(at("qfile_in_bin", tid), model.descriptors[tid], qfile_in_bin[tid]);
        if (model.init)
            compare_open_thread(state, tid, model);
    }
    return state.what();
}

::Node *flushed_node(const Flushed_Instruction &f)
{
    const Lost_On_Purpose lost; // when its thread is paused, or the list freed, while it waits
    auto *node = static_cast<::Node *>(std::calloc(1, sizeof(::Node)));
    node->proc_index = f.tid;
    node->seq = f.seq;
    node->terminated_seq = f.terminated_seq;
    node->PC = f.pc;
    node->nextPC = f.npc;
    node->info.instbody = f.op;
    node->info.branch = f.branch;
    node->info.taken = f.taken;
    node->info.store = node->info.data_addr_valid = f.store;
    node->info.data_addr = f.ea;
    node->done = f.done;
    return node;
}

::Node *pre_executed_node(const Pre_Executed_Instruction &seen)
{
    auto *node = static_cast<::Node *>(std::calloc(1, sizeof(::Node)));
    node->proc_index = seen.tid;
    node->seq = seen.seq;
    node->reg_in.gpr_num = 1;
    node->reg_in.gpr_index[0] = seen.gpr;
    node->reg_in.gpr_value[0] = seen.value;
    return node;
}

// ---- Both sides of one run -----------------------------------------------------------------------------------

class Play
{
public:
    Play(const Run &run, Figures &figures) : run_(run), figures_(figures), machine_(run.shape, false)
    {
        std::filesystem::current_path(machine_.folder()); // any word may become a file's name
        watch();
        model_.new_machine(run.shape);
        model_.instructions = instr_commited;
        model_.vmx = VMX_instr_commited;
        model_.vsx = VSX_instr_commited;
        model_.total = total_instr_commited;
        model_.total_vmx = total_VMX_instr_commited;
        model_.total_vsx = total_VSX_instr_commited;
        model_.start_raw_time = start_raw_time;
        model_.has_descriptors = qfile_in_bin != nullptr;
        expected_init_t_ = init_t;
        load();
    }

    // A run may end in the middle of a session; nobody listens to its end then.
    ~Play()
    {
        replay::host().set_console([](const replay::Console_Message &) {});
        replay::host().set_session_listener({});
        std::filesystem::current_path(std::filesystem::temp_directory_path());
    }
    Play(const Play &) = delete;
    Play &operator=(const Play &) = delete;

    std::optional<Mismatch> all_steps()
    {
        for (size_t i = 0; i <= run_.steps.size(); ++i) {
            begin_step();
            if (i < run_.steps.size())
                std::visit([&](const auto &step) { take(step); }, run_.steps[i]);
            else
                take(Unload{});
            if (std::string what = compare(); !what.empty())
                return Mismatch{i, std::move(what)};
        }
        return std::nullopt;
    }

private:
    // ---- what the plugin does ------------------------------------------------------------------------------

    void watch()
    {
        replay::host().set_query_observer({});
        replay::host().set_console([this](const replay::Console_Message &message) {
            take_writer_calls();
            Outcome outcome{.kind = Outcome::Kind::console, .channel = message.channel, .level = message.level};
            outcome.source = message.source;
            outcome.text = without_sign_of_nan(message.text);
            actual_.push_back(std::move(outcome));
            if (message.channel == replay::Channel::error && message.line <= 0)
                note("an error without a line: " + message.text);
        });
        replay::host().set_session_listener([this](std::string_view what) {
            take_writer_calls();
            actual_.push_back({.kind = Outcome::Kind::session, .text = std::string(what)});
        });
    }

    // Appends what the writer has been asked since the last time.
    void take_writer_calls()
    {
        const auto &calls = recording_writer().calls();
        for (; calls_seen_ < calls.size(); ++calls_seen_) {
            const Writer_Call &call = calls[calls_seen_];
            static const std::map<Writer_Call::Kind, Outcome::Kind> kinds{
                {Writer_Call::Kind::open, Outcome::Kind::open},
                {Writer_Call::Kind::close, Outcome::Kind::close},
                {Writer_Call::Kind::header, Outcome::Kind::header},
                {Writer_Call::Kind::record, Outcome::Kind::record}};
            Outcome outcome{.kind = kinds.at(call.kind)};
            outcome.text = call.name;
            outcome.file = call.file;
            outcome.failed = call.failed;
            const bool wrote = call.kind == Writer_Call::Kind::header || call.kind == Writer_Call::Kind::record;
            if (wrote && !call.failed) {
                const auto &item = recording_writer().file(call.file).items.at(items_seen_[call.file]++);
                if (const auto *header = std::get_if<Written_Header>(&item))
                    outcome.header = *header;
                else
                    outcome.record = std::get<QTRACE_RECORD>(item);
            }
            actual_.push_back(std::move(outcome));
        }
    }

    // ---- a step --------------------------------------------------------------------------------------------

    void begin_step()
    {
        model_.outcomes.clear();
        model_.clock_read = false;
        actual_.clear();
        expected_init_t_ = init_t;
        step_began_ = milliseconds_now();
    }

    void note(const std::string &what)
    {
        if (noted_.empty())
            noted_ = what;
    }

    int tid_of(int any) const { return any % static_cast<int>(model_.threads.size()); }
    bool has_threads() const { return !model_.threads.empty(); }
    std::string in_folder(const std::string &word) const
    {
        return word.starts_with("@") ? machine_.path(word.substr(1)) : word;
    }

    void load()
    {
        const void *table = plugin_init(0, nullptr, replay::host().client_data());
        const bool accepted = model_.load();
        if (table != (accepted ? static_cast<const void *>(EventNames) : nullptr))
            note("plugin_init gave back another table");
    }

    void take(const Set_Context &step)
    {
        if (!has_threads())
            return;
        replay::host().set_context(tid_of(step.tid), step.context);
        model_.set_context(tid_of(step.tid), step.context);
    }

    void take(const Commit &step)
    {
        if (!has_threads())
            return;
        replay::Instruction instruction = step.instruction;
        instruction.tid = tid_of(instruction.tid);
        figures_.commits += model_.init;
        replay::host().set_raw_time(replay::host().raw_time() + step.ticks);
        model_.commit(instruction, step.ticks);
        deliver(instruction);
    }

    static void deliver(const replay::Instruction &instruction)
    {
        if (!instruction.filtered)
            return Event_Instruction_Commit(replay::handle_of(instruction));
        const Lost_On_Purpose node_of_filtered_instruction;
        Event_Instruction_Commit(replay::handle_of(instruction));
    }

    replay::Instruction only_thread(int tid) const
    {
        replay::Instruction instruction;
        instruction.tid = tid_of(tid);
        return instruction;
    }

    void take(const Pre_Execution &step)
    {
        if (!has_threads())
            return;
        const replay::Instruction instruction = only_thread(step.tid);
        Event_Instruction_PreExecution(replay::handle_of(instruction));
    }

    void take(const Pte_Access &step)
    {
        if (!has_threads())
            return;
        const replay::Instruction instruction = only_thread(step.tid);
        PTE_Event_Info info = step.info;
        Event_PTE_Access(replay::handle_of(instruction), &info);
        model_.pte_access(instruction.tid, step.info);
    }

    void take(const Rtpte_Access &step)
    {
        if (!has_threads())
            return;
        const replay::Instruction instruction = only_thread(step.tid);
        RTPTE_Event_Info info = step.info;
        Event_RTPTE_Access(replay::handle_of(instruction), &info);
        model_.rtpte_access(instruction.tid, step.info);
    }

    void take(const Console_Command &step)
    {
        std::vector<std::string> words;
        for (const std::string &word : step.words)
            words.push_back(in_folder(word));
        if (model_.would_abort(words))
            return;
        ++figures_.commands;
        model_.signal(words);
        machine_.signal(words);
    }

    void take(const Load_Again &)
    {
        if (model_.loaded)
            load();
    }

    void take(const Unload &)
    {
        model_.unload();
        plugin_quit();
    }

    void take(const Load_Machine &step)
    {
        if (model_.loaded)
            return;
        replay::host().reset(step.shape);
        watch();
        model_.new_machine(step.shape);
        model_.descriptors.clear();
        load();
    }

    void take(const Fail_Writer &step)
    {
        model_.fail_writer(step);
        Recording_Writer &writer = recording_writer();
        if (step.operation == Writer_Operation::open)
            writer.fail_open(step.k, step.for_ever);
        if (step.operation == Writer_Operation::header)
            writer.fail_header(step.k, step.for_ever);
        if (step.operation == Writer_Operation::record)
            writer.fail_record(step.k, step.for_ever);
    }

    void take(const Block_File &step)
    {
        const std::string path = machine_.path(step.name);
        if (std::filesystem::exists(path))
            return;
        std::filesystem::create_directories(path);
        model_.block_file(path);
    }

    void take(const Near_Report &step)
    {
        instr_commited = model_.instructions = SAMPLE_RATE - step.left;
        init_t -= step.left * 997;
        expected_init_t_ = init_t;
    }

    bool takes_nodes(int tid) const { return model_.init && !model_.threads[tid].paused; }

    void take(const Flushed_Instruction &step)
    {
        if (!has_threads() || !takes_nodes(tid_of(step.tid)) || step.terminated_seq == 0)
            return;
        Flushed_Instruction flushed = step;
        const int tid = flushed.tid = tid_of(step.tid);
        model_.put_flushed(flushed);
        if (!flush[tid]) {
            flush[tid] = flushed_node(flushed);
            return;
        }
        List &list = *flush_list[tid];
        int place = list.list_index++;
        for (; place > 0 && list.list[place - 1]->terminated_seq > flushed.terminated_seq; --place)
            list.list[place] = list.list[place - 1];
        list.list[place] = flushed_node(flushed);
    }

    void take(const Pre_Executed_Instruction &step)
    {
        if (!has_threads() || !takes_nodes(tid_of(step.tid)))
            return;
        Pre_Executed_Instruction seen = step;
        seen.tid = tid_of(step.tid);
        model_.put_pre_executed(seen);
        ::Node **link = &pre_execution[seen.tid];
        while (*link && (*link)->seq < seen.seq)
            link = &(*link)->left;
        if (*link && (*link)->seq == seen.seq)
            return;
        ::Node *node = pre_executed_node(seen);
        node->left = *link;
        *link = node;
    }

    void take(const Look_At_Text &)
    {
        for (const auto &[path, file] : model_.files)
            if (file.is_open && file.is_text && !file.shared)
                if (const std::string what = difference(name_of(path), file, contents(path), false); !what.empty())
                    note(what);
    }

    void take(const Call_Helpers &step)
    {
        model_.call_helpers(step);
        std::string line = step.text, end = "\n";
        char *joined = copycat(line.data(), end.data());
        if (joined != step.text + "\n")
            note("copycat made \"" + std::string(joined) + "\"");
        debug_print_all(joined);
        std::free(joined);
        dummy_plugin_qtbin_init(step.number);
    }

    // ---- comparison ----------------------------------------------------------------------------------------

    static std::string name_of(const std::string &path) { return std::filesystem::path(path).filename().string(); }
    std::string contents(const std::string &path) const { return machine_.file(name_of(path)); }

    std::string compare()
    {
        take_writer_calls();
        if (!noted_.empty())
            return noted_;
        complete_rates();
        for (const Outcome &outcome : actual_) {
            figures_.records += outcome.kind == Outcome::Kind::record;
            figures_.headers += outcome.kind == Outcome::Kind::header;
        }
        for (std::string what : {difference(model_.outcomes, actual_), compare_clock(), compare_state(model_),
                                 compare_finished_files()})
            if (!what.empty())
                return what;
        return "";
    }

    void complete_rates()
    {
        const uint64_t interval = init_t - expected_init_t_;
        for (Outcome &outcome : model_.outcomes)
            if (outcome.rates)
                outcome.text += "Speed=" + rate(outcome.rates->instructions, interval) +
                                " KIPS (VMX=" + rate(outcome.rates->vmx, interval) + "K)\n";
    }

    std::string compare_clock() const
    {
        if (!model_.clock_read)
            return init_t == expected_init_t_ ? "" : "init_t changed";
        if (init_t < step_began_ || init_t > milliseconds_now())
            return "init_t is not the wall clock: " + std::to_string(init_t);
        return "";
    }

    std::string compare_finished_files()
    {
        for (auto &[path, file] : model_.files) {
            if (file.is_open || file.compared || file.shared)
                continue;
            file.compared = true;
            figures_.file_bytes += file.contents.size();
            if (std::string what = difference(name_of(path), file, contents(path), true); !what.empty())
                return what;
        }
        return "";
    }

    const Run &run_;
    Figures &figures_;
    Traced_Machine machine_;
    Plugin_Model model_;
    std::vector<Outcome> actual_;
    size_t calls_seen_ = 0;
    std::map<QTRACE_FDESCR, size_t> items_seen_;
    uint64_t expected_init_t_ = 0;
    uint64_t step_began_ = 0;
    std::string noted_;
};

// ---- Shrinking -----------------------------------------------------------------------------------------------

class Shrinker
{
public:
    explicit Shrinker(Run run) : run_(std::move(run)) {}

    Run smallest()
    {
        for (bool changed = true; changed && !out_of_time();) {
            changed = leave_out_steps();
            changed = simplify_instructions() || changed;
        }
        return run_;
    }

private:
    bool out_of_time() const { return std::chrono::steady_clock::now() > deadline_; }

    // Keeps the run when it still fails.
    bool adopt(Run candidate)
    {
        Figures figures;
        const auto mismatch = play(candidate, figures);
        if (!mismatch)
            return false;
        candidate.steps.resize(std::min(candidate.steps.size(), mismatch->step + 1));
        run_ = std::move(candidate);
        return true;
    }

    bool leave_out_steps()
    {
        bool changed = false;
        for (size_t chunk = std::max<size_t>(1, run_.steps.size() / 2); chunk > 0; chunk /= 2)
            for (size_t from = 0; from < run_.steps.size() && !out_of_time();) {
                Run candidate = run_;
                const auto first = candidate.steps.begin() + static_cast<ptrdiff_t>(from);
                const size_t count = std::min(chunk, candidate.steps.size() - from);
                candidate.steps.erase(first, first + static_cast<ptrdiff_t>(count));
                if (adopt(std::move(candidate)))
                    changed = true;
                else
                    from += chunk;
            }
        return changed;
    }

    template <class Change> bool change_instruction(size_t index, Change change)
    {
        Run candidate = run_;
        auto *commit = index < candidate.steps.size() ? std::get_if<Commit>(&candidate.steps[index]) : nullptr;
        if (!commit)
            return false;
        change(commit->instruction);
        return to_text(candidate.steps[index]) != to_text(run_.steps[index]) && adopt(std::move(candidate));
    }

    bool simplify_instructions()
    {
        using replay::Instruction;
        bool changed = false;
        const auto attempt = [&](size_t i, auto change) { changed = change_instruction(i, change) || changed; };
        for (size_t i = 0; i < run_.steps.size() && !out_of_time(); ++i) {
            attempt(i, [](Instruction &x) { x.fetch = {}; });
            attempt(i, [](Instruction &x) { x.data = {}; });
            attempt(i, [](Instruction &x) { x.in = {}; });
            attempt(i, [](Instruction &x) { x.out = {}; });
            attempt(i, [](Instruction &x) { x.text.clear(); });
            attempt(i, [](Instruction &x) { x.branch = x.unconditional = x.taken = false; });
            attempt(i, [](Instruction &x) { x.load = x.store = x.cache = x.ea_valid = false; });
            attempt(i, [](Instruction &x) { x.vmx = x.vsx = x.exception = x.filtered = x.sim_support = false; });
            attempt(i, [](Instruction &x) {
                x.string = false;
                x.string_length = 0;
            });
            attempt(i, [](Instruction &x) { x.ea = 0; });
        }
        return changed;
    }

    Run run_;
    std::chrono::steady_clock::time_point deadline_ = std::chrono::steady_clock::now() + std::chrono::seconds(60);
};

} // namespace

std::optional<Mismatch> play(const Run &run, Figures &figures)
{
    return Play(run, figures).all_steps();
}

Run shrunk(Run run)
{
    return Shrinker(std::move(run)).smallest();
}

} // namespace model

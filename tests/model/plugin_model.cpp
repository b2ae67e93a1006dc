#include "plugin_model.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace model
{

// ---- The machine ---------------------------------------------------------------------------------------------

void Plugin_Model::new_machine(const replay::Machine_Shape &shape)
{
    machine = shape;
    raw_time = 0;
    threads.clear();
    threads.resize(shape.processors * shape.threads);
}

void Plugin_Model::set_context(int tid, const replay::Thread_Context &context)
{
    Thread &thread = threads[tid];
    if (!thread.has_context) {
        thread.first_lpid = context.lpid;
        thread.first_pid = context.pid;
    }
    thread.has_context = true;
    thread.context = context;
}

bool Plugin_Model::load()
{
    const auto is_on = [&](unsigned option) {
        return std::find(machine.options.begin(), machine.options.end(), option) != machine.options.end();
    };
    drop_suffix = is_on(450);
    append_suffix = is_on(451);
    processors = static_cast<int>(machine.processors);
    if (processors == 0) {
        warn("QTRACE: Number of processors SHOULD NOT BE 0! Plugin load fails.");
        return false;
    }
    threads_per_processor = static_cast<int>(machine.threads);
    if (threads_per_processor == 0) {
        warn("QTRACE: Number of threads per processor SHOULD NOT BE 0! Plugin load fails.");
        return false;
    }
    loaded = true;
    return true;
}

void Plugin_Model::unload()
{
    if (init)
        close_session();
    for (Thread &thread : threads) {
        thread.paused = false;
        thread.deferred = Deferred::nothing;
    }
    loaded = false;
}

// ---- Console -------------------------------------------------------------------------------------------------

void Plugin_Model::say(replay::Channel channel, std::string text)
{
    Outcome outcome{.kind = Outcome::Kind::console, .channel = channel};
    outcome.level = channel == replay::Channel::warning ? 2 : 0;
    outcome.source = channel == replay::Channel::error ? "common/qt_plugin/plugin_qtbin" : "";
    outcome.text = std::move(text);
    outcomes.push_back(std::move(outcome));
}

void Plugin_Model::tell_host(std::string what)
{
    outcomes.push_back({.kind = Outcome::Kind::session, .text = std::move(what)});
}

namespace
{

bool same_letter(char a, char b)
{
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

bool same_word(const std::string &a, const std::string &b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), same_letter);
}

bool begins_with(const std::string &word, const std::string &prefix)
{
    return word.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), word.begin(), same_letter);
}

// A whole number in the notations of the C language; nothing when the word is something else.
std::optional<int> number(const std::string &word)
{
    char *end = nullptr;
    const long value = std::strtol(word.c_str(), &end, 0);
    if (*end != '\0')
        return std::nullopt;
    return static_cast<int>(value);
}

} // namespace

void Plugin_Model::signal(const std::vector<std::string> &words)
{
    if (words.empty())
        return;
    if (same_word(words[0], "start"))
        start(words);
    else if (same_word(words[0], "stop"))
        stop();
    else if (same_word(words[0], "warm"))
        warm(words);
    else if (same_word(words[0], "pause"))
        pause_or_resume(words, true);
    else if (same_word(words[0], "resume"))
        pause_or_resume(words, false);
    else {
        warn("QTRACE: Arguments error!");
        warn("<sim> plugin signal <so filename> <start|stop|warm|pause|resume> <bin filename> <txt filename>");
    }
}

void Plugin_Model::start(const std::vector<std::string> &words)
{
    if (words.size() == 1) {
        warn("QTRACE: Bin filename can not be empty!");
        warn("<mysim> plugin signal <.so> <start> <bin_filename> {txt txt_filename} {pte pte_filename}");
        return;
    }
    if (init) {
        print("QTRACE: Stop current session before starting a new one.\n");
        close_session();
    }
    std::optional<std::string> text, pte;
    for (size_t i = 2; i < words.size(); ++i) {
        const bool is_pte = begins_with(words[i], "pte"), is_text = begins_with(words[i], "txt");
        if (!is_pte && !is_text) {
            warn("QTRACE: Unknown argument '" + words[i] + "'");
        } else if (i + 1 == words.size()) {
            error(is_pte ? "QTRACE: Expecting PTE file name\n" : "QTRACE: Expecting TXT file name\n");
        } else {
            (is_pte ? pte : text) = words[i + 1];
            ++i;
        }
    }
    print("QTRACE: Start generating qtrace into file " + words[1] + "*");
    if (text)
        print(" and text trace " + *text + "*");
    if (pte)
        print(" with PTE accesses in " + *pte + "*");
    print("\n");
    if (!open_session(words[1], text, pte)) {
        warn("QTRACE: Error in opening qtrace files!");
        return;
    }
    clock_read = true;
    instructions = vmx = total = total_vmx = 0;
    start_raw_time = raw_time;
    tell_host("start");
}

void Plugin_Model::stop()
{
    if (!init) {
        warn("QTRACE: Session is not started. ");
        return;
    }
    if (instructions != 0)
        report();
    print("QTRACE: Stop generating qtrace. \n");
    close_session();
    tell_host("stop");
}

void Plugin_Model::warm(const std::vector<std::string> &words)
{
    if (words.size() == 1) {
        warn("QTRACE: Warmload filename can not be empty!");
        warn("<mysim> plugin signal <.so> warm <filename>");
        return;
    }
    print("QTRACE: Writing warmload information to file " + words[1] + "\n");
    tell_host("warm " + words[1]);
}

void Plugin_Model::report()
{
    say(replay::Channel::print, formatted("QTRACE: Cycles=%ld Instructions=%ld ",
                                          static_cast<long>(raw_time - start_raw_time), static_cast<long>(total)));
    outcomes.back().rates = {instructions, vmx};
    clock_read = true;
    instructions = vmx = 0;
}

Plugin_Model::Selection Plugin_Model::select_threads(const std::vector<std::string> &words, bool pausing) const
{
    const std::string verb = pausing ? "pause" : "resume";
    std::vector<int> all, paused, running;
    for (int tid = 0; tid < static_cast<int>(threads.size()); ++tid) {
        all.push_back(tid);
        (threads[tid].paused ? paused : running).push_back(tid);
    }
    if (words.size() == 1) {
        if (pausing)
            return {running.empty() ? running : all, ""};
        return {paused, ""};
    }
    const auto outside = [&](const char *what, int id, int count) {
        return Selection{
            {}, formatted("QTRACE: %s id %d is outside range [0..%d] for %s", what, id, count, verb.c_str())};
    };
    if (!begins_with(words[1], "c"))
        return {};
    if (words.size() == 2)
        return {{}, "QTRACE: cpu number not given for " + verb + " command"};
    const std::optional<int> cpu = number(words[2]);
    if (!cpu)
        return {{}, "QTRACE: Invalid cpu id '" + words[2] + "' for " + verb};
    if (*cpu < 0 || *cpu >= processors)
        return outside("cpu", *cpu, processors);

    int first = *cpu * threads_per_processor, last = first + threads_per_processor - 1;
    const std::string of_cpu = " (cpu " + std::to_string(*cpu) + ")";
    if (words.size() > 3) {
        if (!begins_with(words[3], "t"))
            return {};
        if (words.size() == 4)
            return {{}, "QTRACE: thread number not given for " + verb + " command" + of_cpu};
        const std::optional<int> thread = number(words[4]);
        if (!thread)
            return {{}, "QTRACE: Invalid thread id '" + words[4] + "' for " + verb + of_cpu};
        if (*thread < 0 || *thread >= threads_per_processor)
            return outside("thread", *thread, threads_per_processor);
        first = last = first + *thread;
    }
    std::vector<int> selected;
    for (int tid : pausing ? running : paused)
        if (tid >= first && tid <= last)
            selected.push_back(tid);
    return {selected, ""};
}

void Plugin_Model::pause_or_resume(const std::vector<std::string> &words, bool pausing)
{
    if (!init)
        return;
    const Selection selection = select_threads(words, pausing);
    if (!selection.error.empty())
        error(selection.error);
    for (int tid : selection.tids)
        request(tid, pausing ? Deferred::pause : Deferred::resume);
}

bool Plugin_Model::would_abort(const std::vector<std::string> &words) const
{
    if (words.empty())
        return false;
    if (same_word(words[0], "start") && words.size() > 1)
        return !loaded; // the first commit would miss the tables
    const bool pausing = same_word(words[0], "pause");
    if (!init || (!pausing && !same_word(words[0], "resume")))
        return false;
    const std::vector<int> tids = select_threads(words, pausing).tids;
    return std::any_of(tids.begin(), tids.end(), [&](int tid) {
        return !threads[tid].flush_list.empty() && threads[tid].deferred != Deferred::nothing;
    });
}

// ---- The session ---------------------------------------------------------------------------------------------

void Plugin_Model::fail_writer(const Fail_Writer &failure)
{
    failures[failure.operation] = {failure.k, failure.for_ever};
}

bool Plugin_Model::Countdown::due()
{
    if (calls == 0)
        return false;
    if (calls > 1) {
        --calls;
        return false;
    }
    calls = for_ever ? 1 : 0;
    return true;
}

std::string Plugin_Model::file_name(const std::string &base, int tid) const
{
    if (drop_suffix && threads.size() == 1)
        return base.substr(0, base.empty() ? 0 : base.size() - 1);
    return base + std::to_string(tid);
}

bool Plugin_Model::name_fits(const std::string &base)
{
    const bool fits = file_name(base, static_cast<int>(threads.size()) - 1).size() < 256;
    if (!fits)
        error("QTRACE: File name '" + base + "' is too long: at most 255 characters with the thread number\n");
    return fits;
}

Output_File *Plugin_Model::create_file(const std::string &path, bool is_text)
{
    const std::string name = path.substr(path.rfind('/') + 1);
    const bool is_folder = name.empty() || name == "." || name == ".." || blocked.contains(path);
    if (is_folder || path.find("/missing/") != std::string::npos)
        return nullptr;
    files[path] = {.is_open = true, .is_text = is_text, .shared = files[path].is_open};
    return &files[path];
}

bool Plugin_Model::open_session(const std::string &bin, const std::optional<std::string> &text,
                                const std::optional<std::string> &pte)
{
    for (const std::optional<std::string> &base : {std::optional(bin), text, pte})
        if (base && !name_fits(*base))
            return false;
    const int count = static_cast<int>(threads.size());
    has_descriptors = true;
    descriptors.assign(threads.size(), 0);
    for (int tid = 0; tid < count; ++tid) {
        const bool failed = failures[Writer_Operation::open].due();
        descriptors[tid] = failed ? -1 : next_descriptor++;
        outcomes.push_back(
            {.kind = Outcome::Kind::open, .text = file_name(bin, tid), .file = descriptors[tid], .failed = failed});
        if (!failed)
            continue;
        warn("Can not open QTRACE file to write " + file_name(bin, tid));
        for (int opened = 0; opened <= tid - 2; ++opened)
            outcomes.push_back({.kind = Outcome::Kind::close, .file = descriptors[opened]});
        return false;
    }
    has_text = text.has_value();
    has_pte = pte.has_value();
    for (int tid = 0; tid < count; ++tid) {
        Thread &thread = threads[tid];
        thread.file = descriptors[tid];
        thread.text = text ? create_file(file_name(*text, tid), true) : nullptr;
        thread.has_flush_list = true;
    }
    for (int tid = 0; tid < count && pte; ++tid)
        threads[tid].pte = create_file(file_name(*pte, tid), false);
    init = true;
    return true;
}

void Plugin_Model::forget_capture(Thread &thread)
{
    thread.header_written = false;
    thread.root.reset();
    thread.last = nullptr;
    thread.pieces.clear();
    thread.flush_slot.reset();
    thread.has_flush_list = false;
    thread.flush_list.clear();
    thread.pre_executed.clear();
}

void Plugin_Model::close_session()
{
    for (Thread &thread : threads)
        write_all(thread);
    for (Thread &thread : threads) {
        outcomes.push_back({.kind = Outcome::Kind::close, .file = thread.file});
        for (Output_File *file : {thread.text, thread.pte})
            if (file)
                file->is_open = false;
        thread.text = thread.pte = nullptr;
        forget_capture(thread);
    }
    has_descriptors = has_text = has_pte = false;
    init = false;
}

// ---- Pause and resume ----------------------------------------------------------------------------------------

void Plugin_Model::request(int tid, Deferred action)
{
    Thread &thread = threads[tid];
    if (thread.flush_list.empty())
        perform(tid, action);
    else
        thread.deferred = action;
}

void Plugin_Model::perform(int tid, Deferred action)
{
    Thread &thread = threads[tid];
    thread.deferred = Deferred::nothing;
    if (action == Deferred::nothing)
        return;
    const bool pausing = action == Deferred::pause;
    if (thread.text)
        thread.text->contents += formatted("*** %s collection for thread %d\n", pausing ? "PAUSE" : "RESUME", tid);
    if (pausing)
        write_all(thread);
    forget_capture(thread);
    thread.has_flush_list = !pausing;
    thread.paused = pausing;
}

// ---- Accesses to page-table entries --------------------------------------------------------------------------

namespace
{

void append_words(Output_File *file, std::initializer_list<uint64_t> words)
{
    if (!file)
        return;
    for (uint64_t word : words)
        for (int shift = 56; shift >= 0; shift -= 8)
            file->contents += static_cast<char>(word >> shift & 0xFF);
}

} // namespace

void Plugin_Model::pte_access(int tid, const PTE_Event_Info &info)
{
    append_words(threads[tid].pte, {info.pa, info.pte.upper, info.pte.lower});
}

void Plugin_Model::rtpte_access(int tid, const RTPTE_Event_Info &info)
{
    append_words(threads[tid].pte, {info.RTPDE_ra_l1, info.RTPDE_ra_l2, info.RTPDE_ra_l3, info.RTPTE_ra, info.pa});
}

void Plugin_Model::call_helpers(const Call_Helpers &call)
{
    for (Thread &thread : threads)
        if (thread.text)
            thread.text->contents += call.text + "\n";
    print(formatted("dummy function to provide linkage symbols for HQX: %d\n", call.number));
}

} // namespace model

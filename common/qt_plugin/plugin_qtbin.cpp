#include "plugin_qtbin.h"

#include "commit.h"
#include "ordering.h"
#include "qtrace.h"

#include <endian.h>
#include <initializer_list>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <type_traits>

static constexpr char SOURCE[] = "common/qt_plugin/plugin_qtbin";

// ---- Module state -----------------------------------------------------------------------------------------------

const char *EventNames[4] = {"Event_Instruction_PreExecution", "Event_Instruction_Commit", "Event_PTE_Access",
                             nullptr};

boolean init;
int processor_num;
int thread_num;
uint64_t instr_commited;
uint64_t VMX_instr_commited;
uint64_t total_instr_commited;
uint64_t total_VMX_instr_commited;
uint64_t VSX_instr_commited;
uint64_t total_VSX_instr_commited;
boolean enable_qt_remove_permanent_thread0_id_from_trace_file;
boolean enable_qt_appending_of_thread0_id_to_trace_file;
Cycle start_raw_time;
uint64_t init_t;
void *handle;
MCM *mcm;
Machine *M;
ProcessorState *ps;
ThreadState *ts;
Node **root;
Node **last_commit;
uint64_t *flush_seq;
Node **flush;
Node **pre_execution;
Node **crack_inst;
List **flush_list;
Stack *s1;
Stack *s2;
char fname_in_bin[MAX_FILE_NAME];
char fname_in_text[MAX_FILE_NAME];
QTRACE_FDESCR *qfile_in_bin;
FILE **qfile_in_text;
FILE **qfile_in_pte;
boolean *hdr_write;
boolean *paused;
Commit_Callback *commit_action;

// The C library's own report, which it writes whatever the build type says about assertions.
extern "C" [[noreturn]] void __assert_fail(const char *assertion, const char *file, unsigned line,
                                           const char *function) noexcept;

void qt_assert_fail(const char *text, const char *file, unsigned line, const char *function)
{
    __assert_fail(text, file, line, function);
}

// A zeroed table with an entry per hardware thread.
template <class Entry> static Entry *new_table()
{
    return static_cast<Entry *>(calloc(static_cast<size_t>(hardware_threads()), sizeof(Entry)));
}

template <class Entry> static void make_table(Entry *&table)
{
    if (!table)
        table = new_table<Entry>();
}

template <class Entry> static void drop_table(Entry *&table)
{
    free(table);
    table = nullptr;
}

// ---- Loading and unloading --------------------------------------------------------------------------------------

static void read_options()
{
    const boolean *options = ps->options.processor_options;
    enable_qt_remove_permanent_thread0_id_from_trace_file =
        options[PO_QTRACE_ENABLE_REMOVING_OF_PERMANENT_THREAD0_ID_FROM_TRACE_FILE] != 0;
    enable_qt_appending_of_thread0_id_to_trace_file =
        options[PO_QTRACE_ENABLE_APPENDING_OF_THREAD_ID_TO_TRACE_FILE] != 0;
}

static int count_processors()
{
    if (M->processor_major == PROCESSOR_MAJOR_UNKNOWN)
        M->processor_major = DeviceMgr__GetDeviceMajorNum(M->device_mgr, "Processor");
    return static_cast<int>(DeviceMgr__GetDeviceCount(M->device_mgr, M->processor_major));
}

void *plugin_init(int, char **, void *client_data)
{
    handle = client_data;
    mcm = select_mcm(handle);
    M = select_machine(handle);
    ps = select_processor(handle);
    read_options();
    processor_num = count_processors();
    if (processor_num == 0) {
        sim_do_warning(2, "QTRACE: Number of processors SHOULD NOT BE 0! Plugin load fails.");
        return nullptr;
    }
    thread_num = static_cast<int>(MACHINE_THREADS_PER_PROCESSOR(M));
    if (thread_num == 0) {
        sim_do_warning(2, "QTRACE: Number of threads per processor SHOULD NOT BE 0! Plugin load fails.");
        return nullptr;
    }
    make_table(paused);
    make_table(commit_action);
    return EventNames;
}

void plugin_quit(void)
{
    close_qfile();
    drop_table(paused);
    drop_table(commit_action);
}

void dummy_plugin_qtbin_init(int n)
{
    SIM_PRINT("dummy function to provide linkage symbols for HQX: %d\n", n);
}

// ---- Output files -----------------------------------------------------------------------------------------------

static bool drops_thread_number()
{
    return enable_qt_remove_permanent_thread0_id_from_trace_file && processor_num == 1 && thread_num == 1;
}

// A thread's file: the user's name with the thread's index after it, or, for the only thread of a machine when so
// configured, without its last character. Returns false, with a report, when the name has no place.
static bool build_file_name(char (&name)[MAX_FILE_NAME], const char *base, int tid)
{
    const bool numbered = !drops_thread_number();
    const size_t base_length = strlen(base);
    const auto kept = static_cast<int>(numbered || base_length == 0 ? base_length : base_length - 1);
    const int length = numbered ? snprintf(name, sizeof name, "%.*s%d", kept, base, tid)
                                : snprintf(name, sizeof name, "%.*s", kept, base);
    if (length < 0 || static_cast<size_t>(length) >= sizeof name) {
        sim_do_error(SOURCE, __LINE__,
                     "QTRACE: File name '%s' is too long: at most %d characters with the thread number\n", base,
                     MAX_FILE_NAME - 1);
        return false;
    }
    return true;
}

// The last thread's name is the longest.
static bool file_names_fit(const char *bin_file, const char *txt_file, const char *pte_file)
{
    char name[MAX_FILE_NAME];
    for (const char *base : {bin_file, txt_file, pte_file})
        if (base && !build_file_name(name, base, hardware_threads() - 1))
            return false;
    return true;
}

// Of the files opened before the one that failed, the last is left open: hosts count on finding it so.
static bool open_binary_files(const char *bin_file)
{
    free(qfile_in_bin); // left over from a start that failed
    qfile_in_bin = new_table<QTRACE_FDESCR>();
    for (int i = 0; i < hardware_threads(); ++i) {
        char name[MAX_FILE_NAME];
        build_file_name(name, bin_file, i);
        qfile_in_bin[i] = QTRACE_Fopen(name, QTRACE_WRITE);
        if (qfile_in_bin[i] != -1)
            continue;
        sim_do_warning(2, "Can not open QTRACE file to write %s", name);
        for (int opened = 0; opened < i - 1; ++opened)
            QTRACE_Fclose(qfile_in_bin[opened]);
        return false;
    }
    return true;
}

// A thread whose file cannot be created has none.
static FILE **open_streams(const char *base)
{
    FILE **streams = new_table<FILE *>();
    for (int i = 0; i < hardware_threads(); ++i) {
        char name[MAX_FILE_NAME];
        build_file_name(name, base, i);
        streams[i] = fopen64(name, "wt");
    }
    return streams;
}

static void open_text_streams(const char *txt_file)
{
    qfile_in_text = open_streams(txt_file);
    // Each node's text arrives in one piece and is flushed at once. A buffer in between would only copy it, and
    // split a long line into several system calls.
    for (int i = 0; i < hardware_threads(); ++i)
        if (qfile_in_text[i])
            setvbuf(qfile_in_text[i], nullptr, _IONBF, 0);
}

static void close_streams(FILE **streams, int tid)
{
    if (streams && streams[tid])
        fclose(streams[tid]);
}

int open_qfile(const char *bin_file, const char *txt_file, const char *pte_file)
{
    if (!file_names_fit(bin_file, txt_file, pte_file) || !open_binary_files(bin_file))
        return 0;
    if (txt_file)
        open_text_streams(txt_file);
    if (pte_file)
        qfile_in_pte = open_streams(pte_file);
    state_allocate_init();
    init = 1;
    return 1;
}

static void close_files()
{
    for (int tid = 0; tid < hardware_threads(); ++tid) {
        QTRACE_Fclose(qfile_in_bin[tid]);
        close_streams(qfile_in_text, tid);
        close_streams(qfile_in_pte, tid);
    }
    drop_table(qfile_in_bin);
    drop_table(qfile_in_text);
    drop_table(qfile_in_pte);
}

// ---- Capture state of a session ---------------------------------------------------------------------------------

// What becomes of a thread's entry in one of the tables when its captured instructions are dropped.
template <class Entry> static void forget(Entry &entry)
{
    entry = {};
}

static void drop_tree(Node *&tree)
{
    del_tree(tree);
    tree = nullptr;
}

// Frees the list with the nodes that still wait in it.
static void drop_flush_list(List *&list)
{
    for (int32_t i = 0; list && i < list->list_index; ++i)
        del_tree(list->list[i]);
    del_list(list);
    list = nullptr;
}

// The session's tables: each with its new entries, null for zeroed ones, and with what drops an entry.
template <class Visit> static void for_each_session_table(Visit visit)
{
    visit(hdr_write, nullptr, forget<boolean>);
    visit(root, nullptr, drop_tree);
    visit(last_commit, nullptr, forget<Node *>);
    visit(plain_commit, nullptr, forget<Node *>);
    visit(flush_seq, nullptr, forget<uint64_t>);
    visit(flush, nullptr, drop_tree);
    visit(flush_list, new_list, drop_flush_list);
    visit(pre_execution, nullptr, drop_tree);
    visit(crack_inst, nullptr, drop_tree);
}

template <class Entry, class New_Entry> static void make_session_table(Entry *&table, New_Entry new_entry)
{
    if (table)
        return;
    table = new_table<Entry>();
    if constexpr (!std::is_null_pointer_v<New_Entry>)
        for (int tid = 0; tid < hardware_threads(); ++tid)
            table[tid] = new_entry();
}

void state_allocate_init()
{
    for_each_session_table([](auto *&table, auto new_entry, auto) { make_session_table(table, new_entry); });
    for (Stack **stack : {&s1, &s2})
        if (!*stack)
            *stack = new_stack();
}

// Whatever the thread has captured is dropped; its next record gets a header.
static void reset_thread(int tid)
{
    for_each_session_table([tid](auto *table, auto, auto drop_entry) {
        if (table)
            drop_entry(table[tid]);
    });
}

static void state_destroy()
{
    for (int tid = 0; tid < hardware_threads(); ++tid)
        reset_thread(tid);
    for_each_session_table([](auto *&table, auto, auto) { drop_table(table); });
    for (Stack **stack : {&s1, &s2}) {
        del_stack(*stack);
        *stack = nullptr;
    }
    drop_spare_nodes();
}

void close_qfile()
{
    if (!init)
        return;
    flush_tree();
    close_files();
    state_destroy();
    init = 0;
}

// ---- Throughput and debug output --------------------------------------------------------------------------------

uint64_t current_millisecond_time()
{
    struct timeval now;
    struct timezone zone = {};
    gettimeofday(&now, &zone);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

void qtrace_report_kips()
{
    const uint64_t now = current_millisecond_time();
    const auto interval = static_cast<double>(now - init_t);
    init_t = now;
    // an interval of 0 is printed as the infinite rate it is
    const double vmx_rate = static_cast<double>(VMX_instr_commited) / interval;
    const double speed = static_cast<double>(instr_commited) / interval;
    const Cycle cycles = GetRawTime(M) - start_raw_time;
    SIM_PRINT("QTRACE: Cycles=%ld Instructions=%ld Speed=%.2f KIPS (VMX=%.2fK)\n", static_cast<long>(cycles),
              static_cast<long>(total_instr_commited), speed, vmx_rate);
    instr_commited = 0;
    VMX_instr_commited = 0;
}

void debug_vprint(int tid, const char *format, va_list ap)
{
    if (qfile_in_text && qfile_in_text[tid])
        vfprintf(qfile_in_text[tid], format, ap);
}

void debug_print(int tid, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    debug_vprint(tid, format, ap);
    va_end(ap);
}

void debug_print_all(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    for (int tid = 0; tid < hardware_threads(); ++tid)
        debug_vprint(tid, format, ap);
    va_end(ap);
}

char *copycat(char *first, char *second)
{
    const size_t first_length = strlen(first);
    const size_t second_size = strlen(second) + 1;
    auto *both = static_cast<char *>(malloc(first_length + second_size));
    memcpy(both, first, first_length); // NOLINT(bugprone-not-null-terminated-result): the second part ends it
    memcpy(both + first_length, second, second_size);
    return both;
}

// ---- Pause and resume -------------------------------------------------------------------------------------------

boolean is_thread_paused(int tid)
{
    ASSERT_PAUSED_TABLE();
    return paused[tid];
}

boolean are_all_paused()
{
    ASSERT_PAUSED_TABLE();
    for (int tid = 0; tid < hardware_threads(); ++tid)
        if (!paused[tid])
            return 0;
    return 1;
}

boolean are_any_paused()
{
    ASSERT_PAUSED_TABLE();
    for (int tid = 0; tid < hardware_threads(); ++tid)
        if (paused[tid])
            return 1;
    return 0;
}

void wait_for_commit(int tid, Commit_Callback action)
{
    ASSERT_ACTION_TABLE();
    ASSERT_THREAD(tid);
    if (flush_list && !is_list_empty(flush_list[tid])) {
        QT_ASSERT(commit_action[tid] == nullptr, "commit_action[tid] == ((void *)0)");
        commit_action[tid] = action;
        return;
    }
    if (!action)
        return;
    action(tid);
    commit_action[tid] = nullptr;
}

void act_on_commit(int tid)
{
    ASSERT_ACTION_TABLE();
    ASSERT_THREAD(tid);
    if (!commit_action[tid])
        return;
    commit_action[tid](tid);
    commit_action[tid] = nullptr;
}

void mark_paused(int tid)
{
    ASSERT_THREAD(tid);
    debug_print(tid, "*** PAUSE collection for thread %d\n", tid);
    flush_thread_tree(tid);
    reset_thread(tid);
    paused[tid] = 1;
}

void mark_resumed(int tid)
{
    ASSERT_THREAD(tid);
    debug_print(tid, "*** RESUME collection for thread %d\n", tid);
    state_allocate_init();
    reset_thread(tid); // a thread paused in an earlier session has got a list from this one's start
    flush_list[tid] = new_list();
    paused[tid] = 0;
}

void pause_thread_collection(int tid)
{
    ASSERT_THREAD(tid);
    wait_for_commit(tid, mark_paused);
}

void resume_thread_collection(int tid)
{
    ASSERT_THREAD(tid);
    wait_for_commit(tid, mark_resumed);
}

void pause_all_collection()
{
    for (int tid = 0; tid < hardware_threads(); ++tid)
        pause_thread_collection(tid);
}

void resume_all_collection()
{
    for (int tid = 0; tid < hardware_threads(); ++tid)
        resume_thread_collection(tid);
}

// ---- Commands: start, stop, warm --------------------------------------------------------------------------------

// The operand after the word argv[at]; null, with a report, when there is none.
static const char *file_operand(int argc, char **argv, int at, const char *missing)
{
    if (at + 1 < argc)
        return argv[at + 1];
    sim_do_error(SOURCE, __LINE__, "%s", missing);
    return nullptr;
}

// Reads the pairs after the binary file's name. A missing name ends the scan, not the command.
static void read_start_pairs(int argc, char **argv, const char *&txt_file, const char *&pte_file)
{
    int at = 3;
    while (at < argc) {
        const bool pte = StrNCaseEqual(argv[at], "pte", 3);
        if (!pte && !StrNCaseEqual(argv[at], "txt", 3)) {
            sim_do_warning(2, "QTRACE: Unknown argument '%s'", argv[at]);
            ++at;
            continue;
        }
        const char *name = file_operand(
            argc, argv, at, pte ? "QTRACE: Expecting PTE file name\n" : "QTRACE: Expecting TXT file name\n");
        if (!name)
            return;
        (pte ? pte_file : txt_file) = name;
        at += 2;
    }
}

static void announce_start(const char *bin_file, const char *txt_file, const char *pte_file)
{
    SIM_PRINT("QTRACE: Start generating qtrace into file %s*", bin_file);
    if (txt_file)
        SIM_PRINT(" and text trace %s*", txt_file);
    if (pte_file)
        SIM_PRINT(" with PTE accesses in %s*", pte_file);
    SIM_PRINT("\n");
}

static void begin_counting()
{
    init_t = current_millisecond_time();
    instr_commited = 0;
    VMX_instr_commited = 0;
    total_instr_commited = 0;
    total_VMX_instr_commited = 0;
    start_raw_time = GetRawTime(currentMachine);
}

void start_qtrace(int argc, char **argv)
{
    if (argc == 2) {
        sim_do_warning(2, "QTRACE: Bin filename can not be empty!");
        sim_do_warning(2,
                       "<mysim> plugin signal <.so> <start> <bin_filename> {txt txt_filename} {pte pte_filename}");
        return;
    }
    if (init) {
        SIM_PRINT("QTRACE: Stop current session before starting a new one.\n");
        close_qfile();
    }
    const char *bin_file = argv[2];
    const char *txt_file = nullptr;
    const char *pte_file = nullptr;
    read_start_pairs(argc, argv, txt_file, pte_file);
    announce_start(bin_file, txt_file, pte_file);
    if (!open_qfile(bin_file, txt_file, pte_file)) {
        sim_do_warning(2, "QTRACE: Error in opening qtrace files!");
        return;
    }
    begin_counting();
    Kelvo_QTrace_Plugin_Start();
}

void stop_qtrace()
{
    if (!init) {
        sim_do_warning(2, "QTRACE: Session is not started. ");
        return;
    }
    if (instr_commited)
        qtrace_report_kips();
    SIM_PRINT("QTRACE: Stop generating qtrace. \n");
    close_qfile();
    Kelvo_QTrace_Plugin_Stop();
}

void warm_qtrace(int argc, char **argv)
{
    if (argc == 2) {
        sim_do_warning(2, "QTRACE: Warmload filename can not be empty!");
        sim_do_warning(2, "<mysim> plugin signal <.so> warm <filename>");
        return;
    }
    SIM_PRINT("QTRACE: Writing warmload information to file %s\n", argv[2]);
    warm_dump(argv[2], M);
}

// ---- Commands: pause and resume ---------------------------------------------------------------------------------

// The two commands differ in their final word and in what they do to a thread.
struct Collection_Command {
    const char *word;
    void (*whole_machine)();
    void (*thread)(int tid);
    boolean applies_to_paused; // acts on threads that are paused, or on those that are not
};

static void pause_whole_machine()
{
    if (!are_all_paused())
        pause_all_collection(); // threads that are paused already included
}

static void resume_whole_machine()
{
    if (are_all_paused()) {
        resume_all_collection();
        return;
    }
    if (!are_any_paused())
        return;
    for (int tid = 0; tid < hardware_threads(); ++tid)
        if (is_thread_paused(tid))
            resume_thread_collection(tid);
}

static constexpr Collection_Command PAUSE = {"pause", pause_whole_machine, pause_thread_collection, 0};
static constexpr Collection_Command RESUME = {"resume", resume_whole_machine, resume_thread_collection, 1};

static void apply(const Collection_Command &command, int tid)
{
    if ((is_thread_paused(tid) != 0) == (command.applies_to_paused != 0))
        command.thread(tid);
}

// A whole word as a number, decimal, hexadecimal or octal by its prefix. The value is cut to an int.
static bool parse_id(const char *word, int &id)
{
    char *end = nullptr;
    const long value = strtol(word, &end, 0);
    id = static_cast<int>(value);
    return end && *end == '\0';
}

// Ids below 0 name no thread, although the message speaks of the upper bound only, which it gives as the count.
static bool is_outside(int id, int count)
{
    return id < 0 || id >= count;
}

static bool read_cpu(const Collection_Command &command, int argc, char **argv, int &cpu)
{
    if (argc == 3) {
        sim_do_error(SOURCE, __LINE__, "QTRACE: cpu number not given for %s command", command.word);
        return false;
    }
    if (!parse_id(argv[3], cpu)) {
        sim_do_error(SOURCE, __LINE__, "QTRACE: Invalid cpu id '%s' for %s", argv[3], command.word);
        return false;
    }
    if (is_outside(cpu, processor_num)) {
        sim_do_error(SOURCE, __LINE__, "QTRACE: cpu id %d is outside range [0..%d] for %s", cpu, processor_num,
                     command.word);
        return false;
    }
    return true;
}

static bool read_thread(const Collection_Command &command, int argc, char **argv, int cpu, int &thread)
{
    if (argc == 5) {
        sim_do_error(SOURCE, __LINE__, "QTRACE: thread number not given for %s command (cpu %d)", command.word,
                     cpu);
        return false;
    }
    if (!parse_id(argv[5], thread)) {
        sim_do_error(SOURCE, __LINE__, "QTRACE: Invalid thread id '%s' for %s (cpu %d)", argv[5], command.word,
                     cpu);
        return false;
    }
    if (is_outside(thread, thread_num)) {
        sim_do_error(SOURCE, __LINE__, "QTRACE: thread id %d is outside range [0..%d] for %s", thread, thread_num,
                     command.word);
        return false;
    }
    return true;
}

// KEYWORD [cpu N [thread M]]. Of "cpu" and "thread" only the first letter counts.
static void change_collection(const Collection_Command &command, int argc, char **argv)
{
    if (!init)
        return;
    if (argc == 2) {
        command.whole_machine();
        return;
    }
    int cpu = 0;
    if (!StrNCaseEqual(argv[2], "cpu", 1) || !read_cpu(command, argc, argv, cpu))
        return;
    if (argc == 4) {
        for (int thread = 0; thread < thread_num; ++thread)
            apply(command, cpu * thread_num + thread);
        return;
    }
    int thread = 0;
    if (StrNCaseEqual(argv[4], "thread", 1) && read_thread(command, argc, argv, cpu, thread))
        apply(command, cpu * thread_num + thread);
}

void pause_qtrace(int argc, char **argv)
{
    change_collection(PAUSE, argc, argv);
}

void resume_qtrace(int argc, char **argv)
{
    change_collection(RESUME, argc, argv);
}

void plugin_signal(int argc, char **argv)
{
    if (argc < 2)
        return;
    const char *keyword = argv[1];
    if (StrCaseEqual(keyword, "start")) {
        start_qtrace(argc, argv);
    } else if (StrCaseEqual(keyword, "stop")) {
        stop_qtrace();
    } else if (StrCaseEqual(keyword, "warm")) {
        warm_qtrace(argc, argv);
    } else if (StrCaseEqual(keyword, "pause")) {
        pause_qtrace(argc, argv);
    } else if (StrCaseEqual(keyword, "resume")) {
        resume_qtrace(argc, argv);
    } else {
        sim_do_warning(2, "QTRACE: Arguments error!");
        sim_do_warning(
            2, "<sim> plugin signal <so filename> <start|stop|warm|pause|resume> <bin filename> <txt filename>");
    }
}

// ---- Page-table-entry accesses ----------------------------------------------------------------------------------

// The file that the event goes to, or null. Paused threads' accesses are recorded too.
static FILE *pte_stream(void *iop)
{
    return qfile_in_pte ? qfile_in_pte[Get_Inst_ThreadId(iop)] : nullptr;
}

static void write_big_endian(FILE *stream, std::initializer_list<uint64_t> words)
{
    for (const uint64_t word : words) {
        const uint64_t big_endian = htobe64(word);
        fwrite(&big_endian, sizeof big_endian, 1, stream);
    }
}

void Event_PTE_Access(void *iop, PTE_Event_Info *info)
{
    if (FILE *stream = pte_stream(iop))
        write_big_endian(stream, {info->pa, info->pte.upper, info->pte.lower});
}

void Event_RTPTE_Access(void *iop, RTPTE_Event_Info *info)
{
    if (FILE *stream = pte_stream(iop))
        write_big_endian(stream,
                         {info->RTPDE_ra_l1, info->RTPDE_ra_l2, info->RTPDE_ra_l3, info->RTPTE_ra, info->pa});
}

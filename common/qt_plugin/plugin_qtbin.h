/* The trace plugin: its records, sizes, module state and exported names, and the operations of the session.
 *
 * The plugin is called on the host's simulation thread only; it starts no threads and takes no locks. Every
 * per-thread table is a flat array of processor_num * thread_num entries, indexed by the hardware thread
 * index tid = processor * thread_num + thread.
 *
 * The records, the module state and the exported names are usable from C11 and C++20. */
#ifndef PLUGIN_QTBIN_H
#define PLUGIN_QTBIN_H

#include "plugin_api.h"
#include "plugin_basic.h"
#include "qtrace_t.h"

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
#include <ostream> /* must come before the variable `flush`, which would hide std::flush from std::endl */
#endif

/* ---- Kinds and sizes --------------------------------------------------------------------------------- */

/* Coarse kind of a translation. The values are those of the two-bit mode pairs in trace records. */
typedef enum XLATE_TYPE {
    RADIX_MODE = 0,
    HPT_MODE = 1,
    REAL_MODE = 2,
    UNDEFINED_MODE = 3 /* also: this partition level is not involved */
} XLATE_TYPE;

typedef enum PARTITION_TYPE { HOST = 0, GUEST = 1 } PARTITION_TYPE;

#define SIM_SUPPORT_NOP       0x7EB5AB78u /* instruction word that stands for a simulator pseudo-instruction */
#define DEFAULT_STACK_SIZE    1048576     /* entries */
#define DEFAULT_LIST_SIZE     1048576     /* entries */
#define INST_NAME_SIZE        64          /* bytes of mnemonic text, terminator included */
#define UNKNOWN_STRING_LENGTH 0xFFFF
#define SAMPLE_RATE           262144 /* instructions between two throughput lines */
#define MAX_FILE_NAME         256    /* bytes of an output file's name, terminator included */
#define HOST_WALKS            5      /* host walks of one guest translation */
#define GUEST_LEVELS          4      /* guest table entries that a host walk translates */

/* ---- Records ----------------------------------------------------------------------------------------- */

/* What the instruction does. */
typedef struct First_OP_Info {
    uint32_t instbody;         /* instruction word, or SIM_SUPPORT_NOP */
    char name[INST_NAME_SIZE]; /* mnemonic and operands; filled only while a text trace is open */
    char branch;               /* 'U' unconditional, 'C' conditional, '?' not a branch */
    char taken;                /* 'Y' taken, 'N' not taken, '?' not a branch */
    boolean load;
    boolean store;
    boolean cache;           /* cache management */
    boolean string;          /* moves a string of bytes */
    uint16_t str_len;        /* bytes moved; UNKNOWN_STRING_LENGTH: not known */
    boolean data_addr_valid; /* data_addr holds an effective address */
    uint64_t data_addr;      /* effective address of the data access */
    boolean data_relocation; /* the data address was translated */
    uint64_t data_VSID;
    uint32_t data_RPN;
    uint64_t data_RA;
    HostRadixTree data_hRTW[HOST_WALKS];
    HostRadixTree_RAs data_hRTW_host_RA[GUEST_LEVELS];
    GuestRadixTree data_gRTW;
    uint8_t data_gpagesize; /* guest page-size code */
    uint8_t data_pagesize;  /* page-size code */
    boolean except;         /* the instruction took an exception */
    boolean kernel;         /* the thread was privileged */
} First_OP_Info;

/* One captured instruction. All zero when created. Owned by exactly one place at a time: the thread's tree,
 * its crack list, its pre-execution list, its flush slot or list, or the function that is filling it; whoever
 * unlinks it frees it. */
typedef struct Node {
    int32_t proc_index; /* hardware thread */
    uint64_t seq;       /* the host's sequence number: the ordering key */

    /* the instruction's address and its translation */
    uint64_t PC;
    boolean PC_relocation;             /* the address was translated */
    uint32_t PC_RPN;                   /* real page number */
    uint64_t PC_VSID;                  /* virtual segment id */
    uint64_t PC_RA;                    /* real address, low 32 bits */
    HostRadixTree PC_hRTW[HOST_WALKS]; /* host walks: of guest level n; a host-only translation uses element 0 */
    HostRadixTree_RAs PC_hRTW_host_RA[GUEST_LEVELS]; /* host real address that guest level n resolved to */
    GuestRadixTree PC_gRTW;

    uint64_t ptcr;
    uint64_t lpid;
    uint32_t pid;
    boolean partition_change; /* LPID or PID changed before this instruction */

    MMUStatus pc_mmu_status;
    XLATE_TYPE pc_xlate_type;
    RDX_XLATE_MODE pc_radix_type; /* the host's exact translation mode of the fetch */
    RDX_MODE pc_guest_mode;
    RDX_MODE pc_host_mode;
    uint8_t pc_twolevel;        /* never filled */
    uint8_t pc_host_walkdepth;  /* levels of the host walk */
    uint8_t pc_guest_walkdepth; /* accesses of the guest walk, the final one included */

    MMUStatus data_mmu_status;
    XLATE_TYPE data_xlate_type; /* never filled */
    RDX_XLATE_MODE data_radix_type;
    RDX_MODE data_guest_mode;
    RDX_MODE data_host_mode;
    uint8_t data_twolevel; /* never filled */
    uint8_t data_host_walkdepth;
    uint8_t data_guest_walkdepth;

    uint8_t pc_host_twolevel;
    uint8_t pc_guest_twolevel; /* non-zero selects the guest capture */
    uint8_t data_host_twolevel;
    uint8_t data_guest_twolevel; /* non-zero selects the guest capture */

    uint32_t kelvo_ver;
    boolean bitmode64;
    boolean littleendian;
    uint64_t memused; /* bytes */
    PAGE_SIZES_USED pages_used;
    PAGE_SIZES_USED gpages_used;

    uint8_t PC_gpagesize;
    uint8_t data_gpagesize; /* never filled: info.data_gpagesize is */

    /* the next instruction's address and its translation */
    RDX_XLATE_MODE nextPC_radix_type;
    uint8_t nextPC_gpagesize;
    uint8_t nextPC_guest_twolevel;
    uint8_t nextPC_host_walkdepth;
    uint8_t nextPC_guest_walkdepth;
    uint8_t PC_pagesize;
    uint64_t nextPC;
    boolean nextPC_relocation;
    uint32_t nextPC_RPN;
    uint64_t nextPC_VSID;
    uint64_t nextPC_RA;
    HostRadixTree nextPC_hRTW[HOST_WALKS];
    HostRadixTree_RAs nextPC_hRTW_host_RA[GUEST_LEVELS];
    GuestRadixTree nextPC_gRTW;
    uint8_t nextPC_pagesize;

    uint64_t sdr1; /* base of the hashed page table */

    /* what the writers turn into record flags; I implies N once set_NIT_bit has run */
    boolean I;  /* the record carries the next instruction's address */
    boolean N;  /* the record carries nn */
    boolean T;  /* the run of instructions ends here */
    uint8_t nn; /* count of consecutive flushed instructions */

    Plugin_Inst_Registers reg_in;
    Plugin_Inst_Registers reg_out;

    boolean done;   /* completed */
    boolean commit; /* committed; false for a flushed instruction */
    boolean simple; /* the host was not in cycle mode: no cracked and no flushed instructions */

    struct Node *left;          /* next node in sequence order */
    struct Node *right;         /* first node of the side chain of instructions that this one flushed */
    struct Node *terminated_by; /* the instruction that flushed this one */
    uint64_t terminated_seq;    /* its sequence number: where a flushed node belongs in the tree */
    First_OP_Info info;
} Node;

/* Bounded stack of borrowed nodes. */
typedef struct Stack {
    int32_t stack_index; /* entries; the next free slot */
    int32_t stack_size;  /* capacity */
    Node **stack;
} Stack;

/* Bounded array of nodes in ascending order of terminated_seq. */
typedef struct List {
    int32_t list_index; /* entries */
    int32_t list_size;  /* capacity */
    Node **list;
} List;

/* A one-shot action for a hardware thread. */
typedef void (*Commit_Callback)(int tid);

/* ---- Exported: module state -------------------------------------------------------------------------- */

#if defined(__GNUC__)
#define QT_EXPORT __attribute__((visibility("default")))
#else
#define QT_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Names of the handlers that the host is to call, closed by a null pointer. */
extern QT_EXPORT const char *EventNames[4];

extern QT_EXPORT boolean init; /* a session is open */

/* shape of the machine */
extern QT_EXPORT int processor_num;
extern QT_EXPORT int thread_num; /* hardware threads per processor */

/* instructions since the last throughput line, and since `start` */
extern QT_EXPORT uint64_t instr_commited;
extern QT_EXPORT uint64_t VMX_instr_commited;
extern QT_EXPORT uint64_t total_instr_commited;
extern QT_EXPORT uint64_t total_VMX_instr_commited;
/* since load: neither `start` nor the throughput line resets these */
extern QT_EXPORT uint64_t VSX_instr_commited;
extern QT_EXPORT uint64_t total_VSX_instr_commited;

/* drop the last character of file names instead of appending the index, on a machine of one thread */
extern QT_EXPORT boolean enable_qt_remove_permanent_thread0_id_from_trace_file;
extern QT_EXPORT boolean enable_qt_appending_of_thread0_id_to_trace_file; /* nothing reads it */

extern QT_EXPORT Cycle start_raw_time; /* host cycles at `start` */
extern QT_EXPORT uint64_t init_t;      /* milliseconds of wall clock at `start` or at the last throughput line */

/* the host's objects */
extern QT_EXPORT void *handle; /* client data */
extern QT_EXPORT MCM *mcm;
extern QT_EXPORT Machine *M;
extern QT_EXPORT ProcessorState *ps;
extern QT_EXPORT ThreadState *ts; /* nothing uses it */

/* capture and ordering, per thread; null while no session is open */
extern QT_EXPORT Node **root;          /* oldest instruction not yet written */
extern QT_EXPORT Node **last_commit;   /* newest committed instruction */
extern QT_EXPORT uint64_t *flush_seq;  /* nothing uses it */
extern QT_EXPORT Node **flush;         /* a flushed instruction on its way into flush_list */
extern QT_EXPORT Node **pre_execution; /* captured before execution: a chain by left, ascending seq */
extern QT_EXPORT Node **crack_inst;    /* pieces of a cracked instruction: a chain by left, ascending seq */
extern QT_EXPORT List **flush_list;    /* flushed instructions waiting for their place in the tree */
/* stacks of the tree walks, shared by all threads */
extern QT_EXPORT Stack *s1;
extern QT_EXPORT Stack *s2;

extern QT_EXPORT char fname_in_bin[MAX_FILE_NAME];  /* nothing uses it */
extern QT_EXPORT char fname_in_text[MAX_FILE_NAME]; /* nothing uses it */

/* output files, per thread */
extern QT_EXPORT QTRACE_FDESCR *qfile_in_bin;
extern QT_EXPORT FILE **qfile_in_text; /* null: no text trace; a null entry: that file could not be created */
extern QT_EXPORT FILE **qfile_in_pte;  /* the same for page-table-entry accesses */
extern QT_EXPORT boolean *hdr_write;   /* 0: the thread's next record must be preceded by a file header */

/* from load to unload, across sessions */
extern QT_EXPORT boolean *paused;                /* collection is paused */
extern QT_EXPORT Commit_Callback *commit_action; /* deferred to the thread's next commit; null: nothing */

/* ---- Exported: entry points, event handlers, helpers ------------------------------------------------- */

/* Learns the machine's shape and makes the tables that live until unload. Returns EventNames, or null when the
 * machine has no processors or no threads. `argc` and `argv` are ignored. */
QT_EXPORT void *plugin_init(int argc, char **argv, void *client_data);

/* A console command: argv[0] is the plugin's file name, argv[1] the keyword. */
QT_EXPORT void plugin_signal(int argc, char **argv);

/* Closes an open session and frees everything. Harmless when repeated. */
QT_EXPORT void plugin_quit(void);

/* Gives a linker something to refer to; prints `n`. */
QT_EXPORT void dummy_plugin_qtbin_init(int n);

/* Events. `iop` is the host's handle of the instruction, valid during the call. */
QT_EXPORT void Event_Instruction_PreExecution(void *iop);
QT_EXPORT void Event_Instruction_Commit(void *iop);
QT_EXPORT void Event_PTE_Access(void *iop, PTE_Event_Info *info);
QT_EXPORT void Event_RTPTE_Access(void *iop, RTPTE_Event_Info *info); /* not in EventNames: found by its name */

/* Writes the text into every thread's text trace. One argument list serves all threads, so only a format
 * without conversions gives the same text in each. */
QT_EXPORT void debug_print_all(const char *format, ...) PLUGIN_PRINTF(1, 2);

/* `first` followed by `second` in a new string; the caller frees it. */
QT_EXPORT char *copycat(char *first, char *second);

/* Computes I, N, T and nn of every node of the tree. Does nothing without a session. */
QT_EXPORT void set_NIT_bit(Node *first);

#ifdef __cplusplus
}

/* ---- The session and the commands (hidden) ----------------------------------------------------------- */

/* Ends the process with the standard assertion report when `condition` does not hold, in every build type.
 * `text` is what the report quotes. */
#define QT_ASSERT(condition, text)                                                                                 \
    (__builtin_expect(!(condition), 0) ? qt_assert_fail(text, __FILE__, __LINE__, __func__) : static_cast<void>(0))
[[noreturn]] void qt_assert_fail(const char *text, const char *file, unsigned line, const char *function);

#define ASSERT_THREAD(tid)    QT_ASSERT((tid) < processor_num * thread_num, "tid < processor_num * thread_num")
#define ASSERT_PAUSED_TABLE() QT_ASSERT(paused != nullptr, "paused != ((void *)0)")
#define ASSERT_ACTION_TABLE() QT_ASSERT(commit_action != nullptr, "commit_action != ((void *)0)")

/* Hardware threads of the machine; every per-thread table has this many entries. */
inline int hardware_threads()
{
    return processor_num * thread_num;
}

/* Opens every thread's files and makes the session's tables; `txt_file` and `pte_file` may be null. Returns 1,
 * or 0 when a name is too long or a binary file cannot be created. A text or PTE file that cannot be created
 * is skipped silently. */
int open_qfile(const char *bin_file, const char *txt_file, const char *pte_file);

/* Makes each of the session's tables that does not exist yet, zeroed. */
void state_allocate_init();

/* Writes what is pending, closes every file and frees the session. Does nothing without a session. */
void close_qfile();

/* The commands. `argv` as plugin_signal got it. */
void start_qtrace(int argc, char **argv);
void stop_qtrace();
void warm_qtrace(int argc, char **argv);
void pause_qtrace(int argc, char **argv);
void resume_qtrace(int argc, char **argv);

/* Pause and resume. A request takes effect at once, or at the thread's next commit while flushed instructions
 * wait in its list. All assert that their tables exist and that `tid` is below the number of threads. */
boolean is_thread_paused(int tid);
boolean are_all_paused(); /* also when there are no threads */
boolean are_any_paused();
void pause_thread_collection(int tid);
void resume_thread_collection(int tid);
void pause_all_collection();
void resume_all_collection();
void wait_for_commit(int tid, Commit_Callback action);
void act_on_commit(int tid); /* runs and clears the thread's deferred action */
void mark_paused(int tid);   /* writes what is pending and drops the thread's capture state */
void mark_resumed(int tid);

/* Milliseconds of wall clock. */
uint64_t current_millisecond_time();
/* Prints the throughput line and begins a new interval. */
void qtrace_report_kips();

/* Formatted text into the thread's text trace; nothing when it has none. */
void debug_vprint(int tid, const char *format, va_list ap);
void debug_print(int tid, const char *format, ...) PLUGIN_PRINTF(2, 3);

static_assert(sizeof(First_OP_Info) == 392);
static_assert(sizeof(Node) == 2648);
#endif

#endif

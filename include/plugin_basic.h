/* The host's plugin interface: machine discovery, console, strings, time, session services, and the payloads
 * of events. Everything here is implemented by the simulator that loads the plugin; names are resolved when
 * the plugin is loaded. Usable from C11 and C++20.
 *
 * All calls and events happen on the host's simulation thread. Strings passed to the host are only read
 * during the call. */
#ifndef PLUGIN_BASIC_H
#define PLUGIN_BASIC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Truth value of 32 bits: 0 is false, anything else true. */
typedef uint32_t boolean;

/* Real (physical) address, in bytes. */
typedef uint64_t PA;

/* Raw host time, in simulated cycles. */
typedef uint64_t Cycle;

/* ---- Machine discovery ------------------------------------------------------------------------------- */

typedef struct MCM MCM;                 /* machine configuration manager, opaque */
typedef struct DeviceMgr DeviceMgr;     /* registry of simulated devices, opaque */
typedef struct ThreadState ThreadState; /* state of one hardware thread, opaque */

/* Value of Machine.processor_major while the device class has not been looked up yet. */
#define PROCESSOR_MAJOR_UNKNOWN 0xFFFFFFFFu

/* The simulated machine. Owned by the host, lives as long as the plugin is loaded. */
typedef struct Machine {
    DeviceMgr *device_mgr;
    uint32_t processor_major; /* device class of "Processor"; PROCESSOR_MAJOR_UNKNOWN until somebody asks */
    uint32_t threads_per_processor;
} Machine;

#define MACHINE_THREADS_PER_PROCESSOR(machine) ((machine)->threads_per_processor)

#define PROCESSOR_OPTION_COUNT 452

/* Indices into ProcessorState.options.processor_options. */
#define PO_QTRACE_ENABLE_REMOVING_OF_PERMANENT_THREAD0_ID_FROM_TRACE_FILE 450
#define PO_QTRACE_ENABLE_APPENDING_OF_THREAD_ID_TO_TRACE_FILE             451

/* Configuration of the processors. Owned by the host; more members follow that the plugin does not read. */
typedef struct ProcessorState {
    struct {
        boolean processor_options[PROCESSOR_OPTION_COUNT];
    } options;
} ProcessorState;

/* The machine that the host is simulating right now; source of the session's start time. */
extern Machine *currentMachine;

/* Each takes the client data that plugin_init received and returns an object owned by the host. */
MCM *select_mcm(void *client_data);
Machine *select_machine(void *client_data);
ProcessorState *select_processor(void *client_data);

/* Class number of the devices called `name`. */
uint32_t DeviceMgr__GetDeviceMajorNum(DeviceMgr *manager, const char *name);
/* How many devices of class `major` the machine has. */
uint32_t DeviceMgr__GetDeviceCount(DeviceMgr *manager, uint32_t major);

/* ---- Console, strings, time, warm load --------------------------------------------------------------- */

#if defined(__GNUC__)
#define PLUGIN_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))
#else
#define PLUGIN_PRINTF(format_index, first_argument)
#endif

/* Plain console output. */
void SIM_PRINT(const char *format, ...) PLUGIN_PRINTF(1, 2);
/* A warning of the given level (the plugin uses level 2 only). */
void sim_do_warning(int level, const char *format, ...) PLUGIN_PRINTF(2, 3);
/* An error with the place it was found at. Returns; the caller gives up its operation. */
void sim_do_error(const char *source, int line, const char *format, ...) PLUGIN_PRINTF(3, 4);

/* Whole-word and prefix comparison, ignoring case; non-zero when equal. */
boolean StrCaseEqual(const char *a, const char *b);
boolean StrNCaseEqual(const char *a, const char *b, int length);

/* Cycles simulated so far. */
Cycle GetRawTime(Machine *machine);

/* Writes the machine's warm-load information into `file`. */
void warm_dump(const char *file, Machine *machine);

/* ---- Event payloads and registration ----------------------------------------------------------------- */

/* One access to an entry of the hashed page table. */
typedef struct PTE_Event_Info {
    uint64_t pa; /* real address that the event reports */
    struct {
        uint64_t upper; /* first doubleword of the entry */
        uint64_t lower; /* second doubleword of the entry */
    } pte;
} PTE_Event_Info;

/* One walk of a radix tree. Real addresses; a level that the walk did not use is 0. */
typedef struct RTPTE_Event_Info {
    uint64_t RTPDE_ra_l1; /* page-directory entry, level 1 */
    uint64_t RTPDE_ra_l2; /* page-directory entry, level 2 */
    uint64_t RTPDE_ra_l3; /* page-directory entry, level 3 */
    uint64_t RTPTE_ra;    /* page-table entry */
    uint64_t pa;          /* real address that the event reports */
} RTPTE_Event_Info;

/* Kinds of instruction event. plugin_init returns a table of handler names (Event_Instruction_PreExecution,
 * Event_Instruction_Commit, Event_PTE_Access), closed by a null pointer; the host looks each handler up by
 * its name and calls it with the instruction's handle whenever the event occurs. */
typedef enum INSTRUCTION_EVENT {
    INSTRUCTION_COMMIT = 1,
    INSTRUCTION_FLUSH = 2,
    INSTRUCTION_PRE_EXECUTE = 3
} INSTRUCTION_EVENT;

#ifdef __cplusplus
}

static_assert(sizeof(boolean) == 4);
static_assert(sizeof(ProcessorState) == PROCESSOR_OPTION_COUNT * sizeof(boolean));
static_assert(sizeof(PTE_Event_Info) == 24);
static_assert(sizeof(RTPTE_Event_Info) == 40);
static_assert(sizeof(Machine) == 16);
#endif

#endif

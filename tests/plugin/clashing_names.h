/* Names of the plugin that a host defines for itself. */
#ifndef CLASHING_NAMES_H
#define CLASHING_NAMES_H

#include <stddef.h>

#define CLASHING_WORDS 64

// clang-format off
#define CLASHING_VARIABLES(X)                                 \
    X(EventNames)                                             \
    X(init)                                                   \
    X(processor_num)                                          \
    X(thread_num)                                             \
    X(instr_commited)                                         \
    X(VMX_instr_commited)                                     \
    X(total_instr_commited)                                   \
    X(total_VMX_instr_commited)                               \
    X(VSX_instr_commited)                                     \
    X(total_VSX_instr_commited)                               \
    X(enable_qt_remove_permanent_thread0_id_from_trace_file)  \
    X(enable_qt_appending_of_thread0_id_to_trace_file)        \
    X(start_raw_time)                                         \
    X(init_t)                                                 \
    X(handle)                                                 \
    X(mcm)                                                    \
    X(M)                                                      \
    X(ps)                                                     \
    X(ts)                                                     \
    X(root)                                                   \
    X(last_commit)                                            \
    X(flush_seq)                                              \
    X(flush)                                                  \
    X(pre_execution)                                          \
    X(crack_inst)                                             \
    X(flush_list)                                             \
    X(s1)                                                     \
    X(s2)                                                     \
    X(fname_in_bin)                                           \
    X(fname_in_text)                                          \
    X(qfile_in_bin)                                           \
    X(qfile_in_text)                                          \
    X(qfile_in_pte)                                           \
    X(hdr_write)                                              \
    X(paused)                                                 \
    X(commit_action)

#define CLASHING_FUNCTIONS(X)          \
    X(plugin_init)                     \
    X(plugin_signal)                   \
    X(plugin_quit)                     \
    X(dummy_plugin_qtbin_init)         \
    X(Event_Instruction_PreExecution)  \
    X(Event_Instruction_Commit)        \
    X(Event_PTE_Access)                \
    X(Event_RTPTE_Access)              \
    X(debug_print_all)                 \
    X(copycat)                         \
    X(set_NIT_bit)                     \
    X(open_qfile)                      \
    X(close_qfile)                     \
    X(new_node)                        \
    X(push)                            \
    X(pop)
// clang-format on

struct Clashing_Variable {
    const char *name;
    long *words; /* CLASHING_WORDS of them */
};

#ifdef __cplusplus
extern "C"
#endif
    struct Clashing_Variable *
    clashing_variables(size_t *count);

#endif

/* Sizes of the records that cross a boundary, for a C and a C++ reader to agree on. */
#ifndef HEADER_SIZES_H
#define HEADER_SIZES_H

#include "plugin_qtbin.h"

/* X(type, bytes) */
#define RECORD_SIZES(X)                                                                                            \
    X(boolean, 4)                                                                                                  \
    X(PA, 8)                                                                                                       \
    X(Cycle, 8)                                                                                                    \
    X(QuadWord, 16)                                                                                                \
    X(MMUStatus, 4)                                                                                                \
    X(RDX_MODE, 4)                                                                                                 \
    X(RDX_XLATE_MODE, 4)                                                                                           \
    X(XLATE_TYPE, 4)                                                                                               \
    X(PARTITION_TYPE, 4)                                                                                           \
    X(QTRACE_FILE_MODE, 4)                                                                                         \
    X(QTRACE_INSTRUCTION_TYPE, 4)                                                                                  \
    X(QTRACE_FDESCR, 4)                                                                                            \
    X(Commit_Callback, 8)                                                                                          \
    X(Machine, 16)                                                                                                 \
    X(ProcessorState, 1808)                                                                                        \
    X(PTE_Event_Info, 24)                                                                                          \
    X(RTPTE_Event_Info, 40)                                                                                        \
    X(HostRadixTree, 32)                                                                                           \
    X(HostRadixTree_RAs, 8)                                                                                        \
    X(GuestRadixTree, 48)                                                                                          \
    X(PAGE_SIZES_USED, 48)                                                                                         \
    X(Plugin_Inst_Registers, 704)                                                                                  \
    X(First_OP_Info, 392)                                                                                          \
    X(Node, 2648)                                                                                                  \
    X(Stack, 16)                                                                                                   \
    X(List, 16)                                                                                                    \
    X(QTRACE_INSTR, 4)                                                                                             \
    X(QTRACE_NODE, 1)                                                                                              \
    X(QTRACE_PROCESSOR, 1)                                                                                         \
    X(QTRACE_EA, 8)                                                                                                \
    X(QTRACE_VSID, 7)                                                                                              \
    X(QTRACE_RPN, 4)                                                                                               \
    X(QTRACE_RTP_Ln, 8)                                                                                            \
    X(QTRACE_PTCR, 8)                                                                                              \
    X(QTRACE_LPID, 8)                                                                                              \
    X(QTRACE_PID, 4)                                                                                               \
    X(QTRACE_RTW, 32)                                                                                              \
    X(QTRACE_RTW_HOST_RA, 8)                                                                                       \
    X(QTRACE_RTW_GUEST, 48)                                                                                        \
    X(control_word, 8)                                                                                             \
    X(QTRACE_HDR, 12)                                                                                              \
    X(QTRACE_FILE_HDR_CNTRL, 4)                                                                                    \
    X(QTRACE_REGISTER_INFO, 16)                                                                                    \
    X(QTRACE_VMX_REGISTER_INFO, 24)                                                                                \
    X(QTRACE_VSX_REGISTER_INFO, 24)                                                                                \
    X(QTRACE_REGISTERS, 1552)                                                                                      \
    X(QTRACE_FILE_HDR, 368)                                                                                        \
    X(QTRACE_RECORD, 2936)

struct Record_Size {
    const char *name;
    size_t bytes;
};

#ifdef __cplusplus
extern "C"
#endif
    const struct Record_Size *
    record_sizes_in_c(size_t *count);

/* The control words with everything set, as C compiles them. */
#ifdef __cplusplus
extern "C"
#endif
    void
    set_bits_in_c(control_word *word, QTRACE_FILE_HDR_CNTRL *control);

#endif

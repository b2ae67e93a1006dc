/* Records of the trace writer library: what one traced instruction and one file header look like in memory.
 * Field order, widths and bit positions are shared with every writer library and may not move. Usable from C11
 * and C++20.
 *
 * Each member names the flag that gates it; a member whose flag is clear is zero and means nothing. Members
 * marked "never set" belong to the library or to other producers; this project's plugin leaves them zero.
 * Multi-byte values in byte arrays are in the byte order of the machine that fills them. */
#ifndef QTRACE_T_H
#define QTRACE_T_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QTRACE_VERSION 0x07010000

/* ---- Scalars ----------------------------------------------------------------------------------------- */

#define QTRACE_EA_LENGTH   8
#define QTRACE_VSID_LENGTH 7
#define QTRACE_RPN_LENGTH  4
#define QTRACE_RTP_LENGTH  8
#define QTRACE_PTCR_LENGTH 8
#define QTRACE_LPID_LENGTH 8
#define QTRACE_PID_LENGTH  4

typedef uint32_t QTRACE_INSTR; /* instruction word */
typedef uint8_t QTRACE_UINT8;
typedef uint16_t QTRACE_UINT16;
typedef uint32_t QTRACE_UINT32;
typedef uint64_t QTRACE_UINT64;
typedef uint8_t QTRACE_NODE;      /* node number: which of the consecutive flushed instructions this is */
typedef uint8_t QTRACE_PROCESSOR; /* hardware thread, low 8 bits */
typedef int QTRACE_FDESCR;        /* an open trace file; -1: none */

typedef uint8_t QTRACE_EA[QTRACE_EA_LENGTH]; /* effective address: a 64-bit value */
/* VSID: bytes 1..7 of the 64-bit value as it lies in memory. On a little-endian machine bits 8..63, lowest
 * first; bits 0..7 are dropped and readers expect it so: 0x1122334455667788 -> 77 66 55 44 33 22 11 */
typedef uint8_t QTRACE_VSID[QTRACE_VSID_LENGTH];
typedef uint8_t QTRACE_RPN[QTRACE_RPN_LENGTH];    /* real page number: a 32-bit value */
typedef uint8_t QTRACE_RTP_Ln[QTRACE_RTP_LENGTH]; /* real address of a radix-walk entry: a 64-bit value */
typedef uint8_t QTRACE_PTCR[QTRACE_PTCR_LENGTH];
typedef uint8_t QTRACE_LPID[QTRACE_LPID_LENGTH];
typedef uint8_t QTRACE_PID[QTRACE_PID_LENGTH];

/* ---- Radix walks ------------------------------------------------------------------------------------- */

#define RDX_MAX_2LEVEL_DEPTH 5 /* host walks of one guest translation: its table entries and the final one */
#define RDX_MAX_GUEST_LEVELS 4 /* guest table entries that a host walk translates */

/* One host walk: real addresses of the directory entries of levels 1 to 3 and of the page-table entry. */
typedef struct QTRACE_RTW {
    QTRACE_RTP_Ln RTPDE_ra_l1;
    QTRACE_RTP_Ln RTPDE_ra_l2;
    QTRACE_RTP_Ln RTPDE_ra_l3;
    QTRACE_RTP_Ln RTPTE_ra;
} QTRACE_RTW;

/* Host real address that one level of the guest walk translates to. */
typedef struct QTRACE_RTW_HOST_RA {
    QTRACE_RTP_Ln ra;
} QTRACE_RTW_HOST_RA;

/* The guest walk, in guest real addresses. Level 4 is never set. */
typedef struct QTRACE_RTW_GUEST {
    QTRACE_RTP_Ln RTPDE_GUEST_ra_l1;
    QTRACE_RTP_Ln RTPDE_GUEST_ra_l2;
    QTRACE_RTP_Ln RTPDE_GUEST_ra_l3;
    QTRACE_RTP_Ln RTPDE_GUEST_ra_l4;
    QTRACE_RTP_Ln RTPTE_GUEST_ra;
    QTRACE_RTP_Ln GUEST_ra;
} QTRACE_RTW_GUEST;

/* ---- Flags ------------------------------------------------------------------------------------------- */

/* Which members of a record are filled. Two units of 32 bits; bits count from the least significant. The
 * translation-mode pairs hold 0 radix, 1 hashed page table, 2 real, 3 undefined or not involved. */
typedef union control_word {
    struct {
        /* unit 0: extended flags */
        uint32_t _secondary_extended_reserved_11_15 : 5; /* 0: 0-4; always 0 */
        uint32_t pid_is_present : 1;                     /* 0: 5; PID present (file header only) */
        uint32_t lpid_is_present : 1;                    /* 0: 6; LPID present (file header only) */
        uint32_t ptcr_is_present : 1;                    /* 0: 7; PTCR present (file header only) */
        uint32_t
            guest_xlate_mode_instruction : 2; /* 0: 8-9; XLATE_TYPE code, guest level of the instruction address */
        uint32_t host_xlate_mode_instruction : 2; /* 0: 10-11; the same, host level */
        uint32_t guest_xlate_mode_data : 2;       /* 0: 12-13; XLATE_TYPE code, guest level of the data address */
        uint32_t host_xlate_mode_data : 2;        /* 0: 14-15; the same, host level */
        uint32_t secondary_extender_present : 1;  /* 0: 16; this unit carries information */
        uint32_t file_header_present : 1;         /* 0: 17; never set */
        uint32_t data_gpage_size_present : 1;     /* 0: 18; data_gpage_size is filled */
        uint32_t instruction_gpage_size_present : 1;           /* 0: 19; next_instruction_gpage_size is filled */
        uint32_t secondary_data_page_size_present : 1;         /* 0: 20; never set */
        uint32_t sequential_instruction_page_size_present : 1; /* 0: 21; never set */
        uint32_t data_segment_size_present : 1;                /* 0: 22; never set */
        uint32_t next_instruction_segment_size_present : 1;    /* 0: 23; never set */
        uint32_t data_page_size_present : 1;                   /* 0: 24; data_page_size is filled */
        uint32_t next_instruction_page_size_present : 1;       /* 0: 25; next_instruction_page_size is filled */
        uint32_t _extended_length_bit : 1;                     /* 0: 26; never set */
        uint32_t trace_alteration_flag_present : 1;            /* 0: 27; never set */
        uint32_t trace_error_code_present : 1;                 /* 0: 28; error_code is filled */
        uint32_t exception_code_present : 1;                   /* 0: 29; never set */
        uint32_t sequential_instruction_RPN_present : 1;       /* 0: 30; never set */
        uint32_t secondary_data_RPN_present : 1;               /* 0: 31; never set */
        /* unit 1: primary flags; bits 16 to 31 are unused */
        uint32_t _extender_present : 1;             /* 1: 0; never set */
        uint32_t _reserved_14 : 1;                  /* 1: 1; reserved */
        uint32_t _reserved_13 : 1;                  /* 1: 2; reserved */
        uint32_t register_trace_present : 1;        /* 1: 3; regs is filled */
        uint32_t next_instruction_RPN_present : 1;  /* 1: 4; next_instruction_rpn is filled */
        uint32_t next_instruction_VSID_present : 1; /* 1: 5; next_instruction_vsid is filled */
        uint32_t next_instruction_EA_present : 1;   /* 1: 6; next_instruction_ea is filled */
        uint32_t data_present : 1;                  /* 1: 7; never set */
        uint32_t length_present : 1;                /* 1: 8; length is filled */
        uint32_t data_RPN_present : 1;              /* 1: 9; data_rpn is filled */
        uint32_t data_VSID_present : 1;             /* 1: 10; data_vsid is filled */
        uint32_t data_address_present : 1;          /* 1: 11; data_ea is filled */
        uint32_t processor_present : 1;             /* 1: 12; processor is filled */
        uint32_t termination_present : 1;           /* 1: 13; termination_node and termination_code are filled */
        uint32_t node_present : 1;                  /* 1: 14; node is filled */
        uint32_t iar_change_present : 1; /* 1: 15; the instruction starts a new instruction-address stream */
    } fld;
    uint16_t half_word[3]; /* the flags as 16-bit words, for encoders */
} control_word;

/* Head of every record, also embedded in the file header. */
typedef struct QTRACE_HDR {
    QTRACE_INSTR instruction;
    control_word control;
} QTRACE_HDR;

/* Which members of a file header are filled. One unit of 32 bits; bits 16 to 31 are unused. */
typedef struct QTRACE_FILE_HDR_CNTRL {
    uint32_t app_spec_data_present : 1;       /* bit 0: never set */
    uint32_t comment_present : 1;             /* bit 1: comment, comment_length */
    uint32_t persistent_data_present : 1;     /* bit 2: never set */
    uint32_t _reserved_12 : 1;                /* bit 3: reserved */
    uint32_t iar_gpage_size_is_present : 1;   /* bit 4: iar_gpage_size */
    uint32_t processor_id_is_present : 1;     /* bit 5: never set */
    uint32_t iar_page_size_is_present : 1;    /* bit 6: iar_page_size */
    uint32_t iar_segment_size_is_present : 1; /* bit 7: never set */
    uint32_t barrier_synchronization : 1;     /* bit 8: never set */
    uint32_t asr_is_present : 1;              /* bit 9: never set */
    uint32_t sdr1_is_present : 1;             /* bit 10: sdr1 */
    uint32_t iar_rpn_is_present : 1;          /* bit 11: iar_rpn */
    uint32_t iar_vsid_is_present : 1;         /* bit 12: iar_vsid */
    uint32_t iar_is_present : 1;              /* bit 13: iar */
    uint32_t version_number_present : 1;      /* bit 14: set with a version of 0: the library supplies its own */
    uint32_t magic_number_present : 1;        /* bit 15: never set */
} QTRACE_FILE_HDR_CNTRL;

/* ---- Enumerations ------------------------------------------------------------------------------------ */

/* Why a run of instructions ends at a record. */
typedef enum QTRACE_TERMINATION_CODE {
    QTRACE_NotTerminated = 0,
    QTRACE_ExceededMaximumBranchDepth = 128,
    QTRACE_ExceededMaximumInstructionDepth = 64, /* used: anything but an unconditional branch */
    QTRACE_TerminatingOpcode = 32,
    QTRACE_Exception = 16,
    QTRACE_UnconditionalBranchNode = 8, /* used: an unconditional branch */
    QTRACE_ExtendedTermCode = 1
} QTRACE_TERMINATION_CODE;

typedef enum QTRACE_EXCEPTION_CODE {
    QTRACE_NoExceptions = 0,
    QTRACE_DataException = 128,
    QTRACE_InstructionFetchException = 64,
    QTRACE_InstructionException = 32,
    QTRACE_ImpreciseInterrupt = 16,
    QTRACE_OtherException = 8,
    QTRACE_ReservedException_5 = 64,
    QTRACE_ReservedException_6 = 32,
    QTRACE_ExtendedExceptionField = 1
} QTRACE_EXCEPTION_CODE;

typedef enum QTRACE_ERROR_CODE {
    QTRACE_NoError = 0,
    QTRACE_DamagedOpcode = 128,
    QTRACE_MissingDataAddress = 64,
    QTRACE_MissingInstructionAddress = 32,
    QTRACE_OpcodeIsSuspect = 16,
    QTRACE_DataAddressIsSuspect = 8, /* used: the data translation did not succeed */
    QTRACE_InstructionAddressIsSuspect = 4,
    QTRACE_ReservedError_6 = 2,
    QTRACE_ExtendedErrorField = 1
} QTRACE_ERROR_CODE;

typedef enum QTRACE_INSTRUCTION_TYPE {
    QTRACE_Sequential = 0,
    QTRACE_ConditionalBranch = 1,
    QTRACE_UnconditionalBranch = 2,
    QTRACE_ExceptionTaken = 3,
    QTRACE_UndefinedInstructionType = 4
} QTRACE_INSTRUCTION_TYPE;

typedef enum QTRACE_FILE_MODE { QTRACE_READ = 1, QTRACE_WRITE = 2 } QTRACE_FILE_MODE;

/* ---- Registers --------------------------------------------------------------------------------------- */

#define QTRACE_MAX_GPRS_IN   32
#define QTRACE_MAX_GPRS_OUT  32
#define QTRACE_MAX_FPRS_IN   3
#define QTRACE_MAX_FPRS_OUT  3
#define QTRACE_MAX_SPRS_IN   4
#define QTRACE_MAX_SPRS_OUT  4
#define QTRACE_MAX_VMXRS_IN  3
#define QTRACE_MAX_VMXRS_OUT 3
#define QTRACE_MAX_VSXRS_IN  3
#define QTRACE_MAX_VSXRS_OUT 3

/* A general, floating-point or special register. */
typedef struct QTRACE_REGISTER_INFO {
    QTRACE_UINT16 index;
    QTRACE_UINT64 value;
} QTRACE_REGISTER_INFO;

/* A 128-bit register: its first and second eight bytes as the host stores them. */
typedef struct QTRACE_VMX_REGISTER_INFO {
    QTRACE_UINT16 index;
    QTRACE_UINT64 value[2];
} QTRACE_VMX_REGISTER_INFO;

typedef struct QTRACE_VSX_REGISTER_INFO {
    QTRACE_UINT16 index;
    QTRACE_UINT64 value[2];
} QTRACE_VSX_REGISTER_INFO;

/* Registers written (out) and read (in); per class a count and that many entries. */
typedef struct QTRACE_REGISTERS {
    QTRACE_UINT8 num_sprs_out;
    QTRACE_UINT8 num_vsxrs_out;
    QTRACE_UINT8 num_vmxrs_out;
    QTRACE_UINT8 num_fprs_out;
    QTRACE_UINT8 num_gprs_out;
    QTRACE_UINT8 num_sprs_in;
    QTRACE_UINT8 num_vsxrs_in;
    QTRACE_UINT8 num_vmxrs_in;
    QTRACE_UINT8 num_fprs_in;
    QTRACE_UINT8 num_gprs_in;
    QTRACE_REGISTER_INFO spr_out[QTRACE_MAX_SPRS_OUT];
    QTRACE_VSX_REGISTER_INFO vsxr_out[QTRACE_MAX_VSXRS_OUT];
    QTRACE_VMX_REGISTER_INFO vmxr_out[QTRACE_MAX_VMXRS_OUT];
    QTRACE_REGISTER_INFO fpr_out[QTRACE_MAX_FPRS_OUT];
    QTRACE_REGISTER_INFO gpr_out[QTRACE_MAX_GPRS_OUT];
    QTRACE_REGISTER_INFO spr_in[QTRACE_MAX_SPRS_IN];
    QTRACE_VSX_REGISTER_INFO vsxr_in[QTRACE_MAX_VSXRS_IN];
    QTRACE_VMX_REGISTER_INFO vmxr_in[QTRACE_MAX_VMXRS_IN];
    QTRACE_REGISTER_INFO fpr_in[QTRACE_MAX_FPRS_IN];
    QTRACE_REGISTER_INFO gpr_in[QTRACE_MAX_GPRS_IN];
} QTRACE_REGISTERS;

/* ---- File header ------------------------------------------------------------------------------------- */

/* Stands before the first record of a trace segment, and (with nothing but lpid and pid) wherever the
 * partition or process changes. */
typedef struct QTRACE_FILE_HDR {
    QTRACE_FILE_HDR_CNTRL control;
    QTRACE_HDR sec_ext_controlword; /* only its control: instruction pair, extender, ptcr/lpid/pid present */
    QTRACE_UINT32 magic;            /* never set */
    QTRACE_UINT32 version;          /* 0, although version_number_present is set */
    QTRACE_EA iar;                  /* address of the first instruction; iar_is_present */
    QTRACE_VSID iar_vsid;           /* iar_vsid_is_present */
    /* translation of iar: guest walk depth, host walk depth, host walks, their results, guest walk, page */
    QTRACE_UINT8 iar_hRTW_depth;
    QTRACE_UINT8 iar_hRTW_num_level;
    QTRACE_RTW iar_hRTW[RDX_MAX_2LEVEL_DEPTH];
    QTRACE_RTW_HOST_RA iar_hRTW_host_RA[RDX_MAX_GUEST_LEVELS];
    QTRACE_RTW_GUEST iar_gRTW;
    QTRACE_RPN iar_rpn;             /* iar_rpn_is_present */
    QTRACE_UINT8 iar_segment_size;  /* never set */
    QTRACE_UINT8 iar_page_size;     /* code; iar_page_size_is_present */
    QTRACE_UINT8 iar_gpage_size;    /* code; iar_gpage_size_is_present */
    QTRACE_PTCR ptcr;               /* ptcr_is_present */
    QTRACE_LPID lpid;               /* lpid_is_present */
    QTRACE_PID pid;                 /* pid_is_present */
    QTRACE_EA sdr1;                 /* sdr1_is_present when not 0 */
    QTRACE_EA asr;                  /* never set */
    QTRACE_PROCESSOR processor_id;  /* never set */
    uint8_t persistent_data_field;  /* never set */
    uint8_t persistent_data_length; /* never set */
    QTRACE_UINT64 persistent_data;  /* never set */
    QTRACE_UINT16 comment_length;   /* bytes of comment without its terminator; comment_present */
    char *comment;                  /* key:value pairs; the producer's, and never freed: libraries may keep it */
    QTRACE_UINT32 app_spec_data_length; /* never set */
    void *app_spec_data;                /* never set */
} QTRACE_FILE_HDR;

/* ---- Record ------------------------------------------------------------------------------------------ */

/* One instruction. An address block is always: guest walk depth (_hRTW_depth), host walk depth
 * (_hRTW_num_level), host walks, their results, guest walk, real page number. */
typedef struct QTRACE_RECORD {
    QTRACE_HDR header; /* instruction word, and the flags that gate what follows */
    /* the instruction's own address: never set, it travels in the file header only */
    QTRACE_EA iar;
    QTRACE_VSID iar_vsid;
    QTRACE_UINT8 iar_hRTW_depth;
    QTRACE_UINT8 iar_hRTW_num_level;
    QTRACE_RTW iar_hRTW[RDX_MAX_2LEVEL_DEPTH];
    QTRACE_RTW_HOST_RA iar_hRTW_host_RA[RDX_MAX_GUEST_LEVELS];
    QTRACE_RTW_GUEST iar_gRTW;
    QTRACE_RPN iar_rpn;
    QTRACE_UINT8 iar_segment_size;
    QTRACE_UINT8 iar_page_size;
    QTRACE_UINT8 iar_gpage_size;
    uint32_t is_speculative; /* never set */
    /* validity bits: never set */
    uint32_t iar_is_valid : 1;
    uint32_t iar_vsid_is_valid : 1;
    uint32_t iar_gRTW_is_valid : 1;
    uint32_t data_gRTW_is_valid : 1;
    uint32_t secondary_data_gRTW_is_valid : 1;
    uint32_t next_instruction_gRTW_is_valid : 1;
    uint32_t sequential_instruction_gRTW_is_valid : 1;
    uint32_t iar_rpn_is_valid : 1;
    uint32_t iar_gpage_size_is_valid : 1;
    uint32_t iar_page_size_is_valid : 1;
    QTRACE_INSTRUCTION_TYPE itype;          /* never set: every instruction is QTRACE_Sequential */
    uint32_t iar_segment_size_is_valid : 1; /* never set; the three bytes below share its 32 bits */
    QTRACE_NODE node;                       /* node_present */
    QTRACE_NODE termination_node;           /* termination_present */
    QTRACE_UINT8 termination_code;          /* a QTRACE_TERMINATION_CODE; termination_present */
    QTRACE_PROCESSOR processor;             /* processor_present: the first record after a full file header */
    QTRACE_EA data_ea;                      /* data_address_present */
    QTRACE_VSID data_vsid;                  /* data_VSID_present */
    /* translation of the data address; page number: data_RPN_present */
    QTRACE_UINT8 data_hRTW_depth;
    QTRACE_UINT8 data_hRTW_num_level;
    QTRACE_RTW data_hRTW[RDX_MAX_2LEVEL_DEPTH];
    QTRACE_RTW_HOST_RA data_hRTW_host_RA[RDX_MAX_GUEST_LEVELS];
    QTRACE_RTW_GUEST data_gRTW;
    QTRACE_RPN data_rpn;
    /* a second data address: never set */
    QTRACE_UINT8 secondary_data_hRTW_depth;
    QTRACE_UINT8 secondary_data_hRTW_num_level;
    QTRACE_RTW secondary_data_hRTW[RDX_MAX_2LEVEL_DEPTH];
    QTRACE_RTW_HOST_RA secondary_data_hRTW_host_RA[RDX_MAX_GUEST_LEVELS];
    QTRACE_RTW_GUEST secondary_data_gRTW;
    QTRACE_RPN secondary_data_rpn;
    QTRACE_UINT16 length;              /* bytes that a string instruction moves; length_present */
    uint8_t *data;                     /* never set */
    QTRACE_EA next_instruction_ea;     /* next_instruction_EA_present */
    QTRACE_VSID next_instruction_vsid; /* next_instruction_VSID_present */
    /* translation of the next address; page number: next_instruction_RPN_present */
    QTRACE_UINT8 next_instruction_hRTW_depth;
    QTRACE_UINT8 next_instruction_hRTW_num_level;
    QTRACE_RTW next_instruction_hRTW[RDX_MAX_2LEVEL_DEPTH];
    QTRACE_RTW_HOST_RA next_instruction_hRTW_host_RA[RDX_MAX_GUEST_LEVELS];
    QTRACE_RTW_GUEST next_instruction_gRTW;
    QTRACE_RPN next_instruction_rpn;
    /* the fall-through address: never set */
    QTRACE_UINT8 sequential_instruction_hRTW_depth;
    QTRACE_UINT8 sequential_instruction_hRTW_num_level;
    QTRACE_RTW sequential_instruction_hRTW[RDX_MAX_2LEVEL_DEPTH];
    QTRACE_RTW_HOST_RA sequential_instruction_hRTW_host_RA[RDX_MAX_GUEST_LEVELS];
    QTRACE_RTW_GUEST sequential_instruction_gRTW;
    QTRACE_RPN sequential_instruction_rpn;
    uint8_t exception_code;                     /* never set */
    uint8_t error_code;                         /* a QTRACE_ERROR_CODE; trace_error_code_present */
    uint8_t trace_alteration_code;              /* never set */
    QTRACE_UINT8 next_instruction_page_size;    /* code; next_instruction_page_size_present */
    QTRACE_UINT8 next_instruction_gpage_size;   /* code; instruction_gpage_size_present */
    QTRACE_UINT8 data_page_size;                /* code; data_page_size_present */
    QTRACE_UINT8 data_gpage_size;               /* code; data_gpage_size_present */
    QTRACE_UINT8 next_instruction_segment_size; /* never set, like the five below */
    QTRACE_UINT8 data_segment_size;
    QTRACE_UINT8 sequential_instruction_page_size;
    QTRACE_UINT8 sequential_instruction_gpage_size;
    QTRACE_UINT8 secondary_data_page_size;
    QTRACE_UINT8 secondary_data_gpage_size;
    QTRACE_FILE_HDR *file_header; /* never set: headers are written by a call of their own */
    void *persistent_data;        /* never set */
    QTRACE_REGISTERS regs;        /* register_trace_present */
    /* the library's bookkeeping: never set by a producer */
    int64_t offset;
    int64_t record_count;
    int64_t instr_count;
    int64_t exec_instr_count;
} QTRACE_RECORD;

#ifdef __cplusplus
}

/* A member added, dropped or moved here would be read as another one by every library built elsewhere. */
static_assert(sizeof(control_word) == 8 && sizeof(QTRACE_HDR) == 12 && sizeof(QTRACE_FILE_HDR_CNTRL) == 4);
static_assert(sizeof(QTRACE_RTW) == 32 && sizeof(QTRACE_RTW_HOST_RA) == 8 && sizeof(QTRACE_RTW_GUEST) == 48);
static_assert(sizeof(QTRACE_REGISTER_INFO) == 16 && sizeof(QTRACE_VMX_REGISTER_INFO) == 24);
static_assert(sizeof(QTRACE_REGISTERS) == 1552 && offsetof(QTRACE_REGISTERS, spr_out) == 16 &&
              offsetof(QTRACE_REGISTERS, gpr_in) == 1040);
static_assert(sizeof(QTRACE_FILE_HDR) == 368 && offsetof(QTRACE_FILE_HDR, iar) == 24 &&
              offsetof(QTRACE_FILE_HDR, ptcr) == 288 && offsetof(QTRACE_FILE_HDR, persistent_data) == 328 &&
              offsetof(QTRACE_FILE_HDR, comment) == 344);
static_assert(sizeof(QTRACE_RECORD) == 2936 && offsetof(QTRACE_RECORD, is_speculative) == 276 &&
              offsetof(QTRACE_RECORD, itype) == 284 && offsetof(QTRACE_RECORD, node) == 289 &&
              offsetof(QTRACE_RECORD, processor) == 292 && offsetof(QTRACE_RECORD, data_ea) == 293 &&
              offsetof(QTRACE_RECORD, length) == 800 && offsetof(QTRACE_RECORD, next_instruction_ea) == 816 &&
              offsetof(QTRACE_RECORD, exception_code) == 1323 && offsetof(QTRACE_RECORD, file_header) == 1336 &&
              offsetof(QTRACE_RECORD, regs) == 1352 && offsetof(QTRACE_RECORD, offset) == 2904);
#endif

#endif

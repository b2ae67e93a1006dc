/* The host's queries about the instruction of the event being delivered, the record types they fill, and the
 * two session notifications. Usable from C11 and C++20.
 *
 * Every query takes the handle that the event delivered; the handle is valid only during that event, and an
 * answer may depend on the state the host has reached for that instruction, so the order in which a plugin
 * asks is part of the contract. Codes and units (page-size codes, page numbers, walk depths) are the host's;
 * they are handed through and never interpreted. */
#ifndef PLUGIN_API_H
#define PLUGIN_API_H

#include "plugin_basic.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Record types ------------------------------------------------------------------------------------ */

/* A 128-bit register value; word 0 comes first in memory. */
typedef struct QuadWord {
    uint64_t word[2];
} QuadWord;

/* One radix walk of the host: real addresses of the entries it read. A level that the walk did not have is 0. */
typedef struct HostRadixTree {
    PA RTPDE_ra_l1; /* page-directory entry, level 1 */
    PA RTPDE_ra_l2; /* page-directory entry, level 2 */
    PA RTPDE_ra_l3; /* page-directory entry, level 3 */
    PA RTPTE_ra;    /* page-table entry */
} HostRadixTree;

/* The host real address that one level of a guest walk resolved to. */
typedef struct HostRadixTree_RAs {
    PA ra;
} HostRadixTree_RAs;

/* One radix walk of a guest: guest real addresses of the entries it read, and what it resolved to. */
typedef struct GuestRadixTree {
    PA RTPDE_GUEST_ra_root; /* root of the tree; neither captured nor written */
    PA RTPDE_GUEST_ra_l1;   /* page-directory entry, level 1 */
    PA RTPDE_GUEST_ra_l2;   /* page-directory entry, level 2 */
    PA RTPDE_GUEST_ra_l3;   /* page-directory entry, level 3 */
    PA RTPTE_GUEST_ra;      /* page-table entry */
    PA GUEST_ra;            /* the final guest real address */
} GuestRadixTree;

/* Which page sizes a partition uses; one truth value each. */
typedef struct PAGE_SIZES_USED {
    boolean PAGE_4K;
    boolean PAGE_16K;
    boolean PAGE_64K;
    boolean PAGE_128K;
    boolean PAGE_256K;
    boolean PAGE_1M;
    boolean PAGE_2M;
    boolean PAGE_16M;
    boolean PAGE_256M;
    boolean PAGE_1G;
    boolean PAGE_16G;
    boolean PAGE_undefined;
} PAGE_SIZES_USED;

/* How many registers of each class one instruction can name. */
#define MAX_GPRS  32
#define MAX_FPRS  4
#define MAX_SPRS  6
#define MAX_VSXRS 4
#define MAX_VMXRS 4

/* Registers that an instruction read or wrote: per class a count and that many (number, value) pairs. Entries
 * from the count on are not filled. */
typedef struct Plugin_Inst_Registers {
    int32_t gpr_num; /* general purpose */
    int32_t gpr_index[MAX_GPRS];
    uint64_t gpr_value[MAX_GPRS];
    int32_t fpr_num; /* floating point */
    int32_t fpr_index[MAX_FPRS];
    uint64_t fpr_value[MAX_FPRS];
    int32_t spr_num; /* special purpose */
    int32_t spr_index[MAX_SPRS];
    uint64_t spr_value[MAX_SPRS];
    int32_t vsx_num; /* vector-scalar */
    int32_t vsx_index[MAX_VSXRS];
    QuadWord vsx_value[MAX_VSXRS];
    int32_t vmx_num; /* vector */
    int32_t vmx_index[MAX_VMXRS];
    QuadWord vmx_value[MAX_VMXRS];
} Plugin_Inst_Registers;

/* A code is whatever 32-bit number the host answers; one that has no name here is no error. */
#ifdef __cplusplus
#define HOST_CODE : uint32_t
#else
#define HOST_CODE
#endif

/* Outcome of an address translation. */
typedef enum MMUStatus HOST_CODE {
    MMU_SUCCESS = 0,
    MMU_EXCEPTION = 1,
    MMU_CROSSES_PAGE = 2,
    MMU_UNALIGNED_LE = 3,
    MMU_FAILURE = 4,
    MMU_RESERVATION_LOST = 5,
    MMU_TRANSLATION_MISS = 6,
    MMU_L1CACHE_MISS = 7,
    MMU_CONTINUE_WITH_PART2 = 8,
    MMU_BREAKPOINT_HIT = 9
} MMUStatus;

/* Which kind of tables one partition level translates with. */
typedef enum RDX_MODE HOST_CODE {
    RADIX_MODE_NOT_SET = 0,
    GUEST_MODE_RADIX = 1,
    HOST_MODE_RADIX = 2,
    GUEST_MODE_HPT = 3,
    HOST_MODE_HPT = 4,
    RDX_MODE_LAST = 5
} RDX_MODE;

/* The host's exact translation mode of one access. */
typedef enum RDX_XLATE_MODE HOST_CODE {
    RADIX_MODE_NOT_YET_SET = 0,
    NOT_Radix = 1,
    OffsetReal = 2,
    UPRTeq0_TI = 3,
    UPRTeq0_TA_PLS = 4,
    UPRTeq0_TA_SLS = 5,
    UPRTeq1_TI = 6,
    UPRTeq1_TA_PLS = 7,
    UPRTeq1_TA_SLS = 8,
    UltravisorRealModeURMOR = 9,
    UltravisorRealModeNoURMOR = 10,
    HypervisorRealModeHRMOR = 11,
    HypervisorRealModeNoHRMOR = 12,
    VirtualRealMode = 13,
    Z7_GuestHptOnHostHpt = 14,
    Z7_GuestRadixOnHostHpt = 15,
    Z7_GuestRealOnHostHpt = 16,
    Z7_GuestRadixOnHostHpt_HVeq1_LPIDneq0 = 17,
    Z7_GuestRadixOnHostHpt_HVeq1_LPIDeq0 = 18,
    Z7_HostHptSTEGroup = 19,
    Z7_HostHptShortVA = 20,
    Z7_ProcessTableEntryHostHpt_Primary_LLP = 21,
    Z7_ProcessTableEntryHostHpt_Secondary_LLP = 22,
    Z7_GuestRadixOnHostRadix = 23,
    Z7_GuestRealOnHostRadix = 24,
    Z7_HostRadixSingleLevel = 25,
    Z7_HostRadixProcessScoped = 26,
    Z7_HypervisorRadixSingleLevel = 27,
    Z7_HypervisorRadixSingleLevel_LPIDReq0 = 28,
    Z7_HypervisorRadixProcessScoped = 29,
    Z7_HostRadixSingleLevel_PR_0 = 30,
    Z7_HostRadixSingleLevel_MSR_PR = 31,
    Z7_ProcessTableEntryRadix = 32,
    Z7_HostHptSegmentPteSearch = 33,
    POSSIBLE_GUEST_Radix = 34,
    POSSIBLE_HOST_Radix = 35,
    POSSIBLE_HYPERVISOR_Radix = 36,
    RDX_XLATE_MODE_LAST = 37
} RDX_XLATE_MODE;

/* ---- The instruction and its thread ------------------------------------------------------------------ */

int Get_Inst_ThreadId(void *iop);       /* hardware thread, 0 .. processors * threads per processor - 1 */
uint64_t Get_Inst_SeqNumber(void *iop); /* ascending per hardware thread */
boolean In_Cycle_Mode(void *iop);       /* the host runs its cycle-accurate model; instructions may be cracked */
uint64_t Get_Reg_PTCR(void *iop);       /* partition-table control register */
uint64_t Get_Reg_LPIDR(void *iop);      /* logical-partition id */
uint32_t Get_Reg_PIDR(void *iop);       /* process id */
boolean Get_Check_IF_LPID_Change(void *iop); /* has the LPID changed since this was last asked? */
boolean Get_Check_IF_PID_Change(void *iop);  /* has the PID changed since this was last asked? */
uint32_t Get_Version_Kelvo(void);            /* version of the host */
boolean Is_Mode_64bit(void *iop);
boolean Is_LE_Mode(void *iop);                           /* little-endian */
boolean Is_Mode_Kernel(void *iop);                       /* privileged */
uint64_t Get_Memory_Total_Size(void *iop);               /* bytes */
void Get_Pages_Used(void *iop, PAGE_SIZES_USED *pages);  /* of the host partition */
void Get_gPages_Used(void *iop, PAGE_SIZES_USED *pages); /* of the guest */
uint64_t Get_Inst_SDR1(void *iop);                       /* base and size of the hashed page table */

boolean Is_Inst_SimSupport(void *iop); /* a pseudo-instruction that talks to the simulator */
uint32_t Get_Inst_Instbody(void *iop); /* instruction word */
boolean Is_Inst_Filtered(void *iop);   /* not to be traced */
uint64_t Get_Inst_PC(void *iop);       /* effective address of the instruction */
uint64_t Get_Inst_NPC(void *iop);      /* effective address of the next one, as far as the host knows */
boolean Is_Inst_Branch(void *iop);
boolean Is_Inst_Unconditional_Branch(void *iop);
boolean Is_Inst_Branch_Taken(void *iop);
boolean Is_Inst_Load(void *iop);
boolean Is_Inst_Store(void *iop);
boolean Is_Inst_Cache(void *iop);                      /* cache management */
boolean Is_Inst_Exception(void *iop);                  /* the instruction took an exception */
boolean Is_Inst_String(void *iop);                     /* moves a string of bytes */
uint16_t Get_String_Length(void *iop, boolean commit); /* bytes; 0xFFFF: unknown */
boolean Is_Inst_VMX(void *iop);
boolean Is_Inst_VSX(void *iop);
void Get_Inst_Input_Registers(void *iop, Plugin_Inst_Registers *registers);  /* sets counts and that many entries */
void Get_Inst_Output_Registers(void *iop, Plugin_Inst_Registers *registers); /* likewise */
/* Mnemonic and operands as text, cut to `size` bytes and always terminated. */
void Get_Inst_Name_And_Operand(void *iop, char *buffer, int size);

/* ---- Translation of the instruction address ---------------------------------------------------------- */

MMUStatus Get_PC_MMU_Status(void *iop);
RDX_XLATE_MODE Get_PC_Xlate_Type(void *iop);
RDX_MODE Get_PC_Radix_Guest_Mode(void *iop);
RDX_MODE Get_PC_Radix_Host_Mode(void *iop);
uint8_t Get_PC_Host_AXD_Two_Level(void *iop);
uint8_t Get_PC_Guest_AXD_Two_Level(void *iop); /* non-zero: a guest's translation on top of the host's */
uint8_t Get_PC_Radix_Host_Walk_Depth(void *iop);
uint8_t Get_PC_Radix_Guest_Walk_Depth(void *iop);
boolean Is_Inst_Relocated(void *iop);      /* translation was on */
uint64_t Get_Inst_PC_RA(void *iop);        /* real address */
uint64_t Get_Inst_PC_VSID(void *iop);      /* virtual segment id */
uint32_t Get_Inst_PC_RPN(void *iop);       /* real page number (hashed page table) */
uint32_t Get_Inst_Host_PC_RPN(void *iop);  /* real page number (host radix) */
uint32_t Get_Inst_Guest_PC_RPN(void *iop); /* real page number (guest radix) */
uint8_t Get_Inst_PC_PageSize(void *iop);   /* page-size codes */
uint8_t Get_Inst_PC_Host_PageSize(void *iop);
uint8_t Get_Inst_PC_Guest_PageSize(void *iop);
PA Get_Inst_PC_HOST_RTPDE_L1_n_RA(void *iop, int n); /* entries of host walk n */
PA Get_Inst_PC_HOST_RTPDE_L2_n_RA(void *iop, int n);
PA Get_Inst_PC_HOST_RTPDE_L3_n_RA(void *iop, int n);
PA Get_Inst_PC_HOST_RTPTE_n_RA(void *iop, int n);
PA Get_Inst_PC_RonR_HOST_RA_Ln(void *iop, int n); /* host real address that guest level n resolved to */
PA Get_Inst_PC_GUEST_RTPDE_L1_RA(void *iop);      /* entries of the guest walk */
PA Get_Inst_PC_GUEST_RTPDE_L2_RA(void *iop);
PA Get_Inst_PC_GUEST_RTPDE_L3_RA(void *iop);
PA Get_Inst_PC_GUEST_RTPTE_RA(void *iop);
PA Get_Inst_PC_GUEST_RA(void *iop); /* final guest real address */

/* ---- The data access and its translation: the same questions about the data address ------------------ */

boolean Is_Inst_Data_EA_Valid(void *iop);
uint64_t Get_Inst_Data_EA(void *iop); /* effective address */
MMUStatus Get_Data_MMU_Status(void *iop);
RDX_XLATE_MODE Get_Data_Xlate_Type(void *iop);
RDX_MODE Get_Data_Radix_Guest_Mode(void *iop);
RDX_MODE Get_Data_Radix_Host_Mode(void *iop);
uint8_t Get_Data_Host_AXD_Two_Level(void *iop);
uint8_t Get_Data_Guest_AXD_Two_Level(void *iop);
uint8_t Get_Data_Radix_Host_Walk_Depth(void *iop);
uint8_t Get_Data_Radix_Guest_Walk_Depth(void *iop);
boolean Is_Data_Relocated(void *iop);
uint64_t Get_Inst_Data_RA(void *iop);
uint64_t Get_Inst_Data_VSID(void *iop);
uint32_t Get_Inst_Data_RPN(void *iop);
uint32_t Get_Inst_Data_Host_RPN(void *iop);
uint32_t Get_Inst_Data_Guest_RPN(void *iop);
uint8_t Get_Inst_Data_PageSize(void *iop);
uint8_t Get_Inst_Data_Host_PageSize(void *iop);
uint8_t Get_Inst_Data_Guest_PageSize(void *iop);
PA Get_Inst_Data_HOST_RTPDE_L1_n_RA(void *iop, int n);
PA Get_Inst_Data_HOST_RTPDE_L2_n_RA(void *iop, int n);
PA Get_Inst_Data_HOST_RTPDE_L3_n_RA(void *iop, int n);
PA Get_Inst_Data_HOST_RTPTE_n_RA(void *iop, int n);
PA Get_Inst_Data_RonR_HOST_RA_Ln(void *iop, int n);
PA Get_Inst_Data_GUEST_RTPDE_L1_RA(void *iop);
PA Get_Inst_Data_GUEST_RTPDE_L2_RA(void *iop);
PA Get_Inst_Data_GUEST_RTPDE_L3_RA(void *iop);
PA Get_Inst_Data_GUEST_RTPTE_RA(void *iop);
PA Get_Inst_Data_GUEST_RA(void *iop);

/* ---- Session notifications --------------------------------------------------------------------------- */

void Kelvo_QTrace_Plugin_Start(void); /* a session has been opened; the last thing `start` does */
void Kelvo_QTrace_Plugin_Stop(void);  /* `stop` has closed the session */

#ifdef __cplusplus
}

static_assert(sizeof(QuadWord) == 16);
static_assert(sizeof(HostRadixTree) == 32);
static_assert(sizeof(HostRadixTree_RAs) == 8);
static_assert(sizeof(GuestRadixTree) == 48);
static_assert(sizeof(PAGE_SIZES_USED) == 12 * sizeof(boolean));
static_assert(sizeof(MMUStatus) == 4 && sizeof(RDX_MODE) == 4 && sizeof(RDX_XLATE_MODE) == 4);
static_assert(sizeof(Plugin_Inst_Registers) == 704);
#endif

#endif

#include "bench_host.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <strings.h>

struct DeviceMgr {
};
struct MCM {
};

namespace
{

// What the change queries compare with.
struct Last_Told {
    uint64_t lpid;
    uint32_t pid;
};

DeviceMgr device_manager;
MCM configuration_manager;
Machine machine{&device_manager, 0, 1};
ProcessorState processor{};
uint32_t processors = 1;
uint32_t version;
uint64_t memory;
std::vector<Last_Told> last_told(1);
const bench::Writer *writer;

const bench::Instruction &instruction_of(void *iop)
{
    return *static_cast<const bench::Instruction *>(iop);
}

const bench::Context &context_of(void *iop)
{
    return *instruction_of(iop).context;
}

template <class Told> boolean tell(Told &told, Told now)
{
    const bool changed = told != now;
    told = now;
    return changed;
}

Last_Told &told_of(void *iop)
{
    return last_told[static_cast<size_t>(instruction_of(iop).tid)];
}

// One class of registers: numbers to `index`, as many values to `value`.
template <class Value, size_t N>
void hand_out(size_t count, int32_t &num, int32_t (&index)[N], Value (&value)[N], const int32_t *&numbers,
              const uint64_t *&values)
{
    num = static_cast<int32_t>(count);
    for (size_t i = 0; i < count && i < N; ++i) {
        index[i] = *numbers++;
        std::memcpy(&value[i], values, sizeof(Value));
        values += sizeof(Value) / sizeof(uint64_t);
    }
}

void hand_out(const bench::Registers &from, Plugin_Inst_Registers &to)
{
    const int32_t *numbers = from.numbers;
    const uint64_t *values = from.values;
    hand_out(from.gprs, to.gpr_num, to.gpr_index, to.gpr_value, numbers, values);
    hand_out(from.fprs, to.fpr_num, to.fpr_index, to.fpr_value, numbers, values);
    hand_out(from.sprs, to.spr_num, to.spr_index, to.spr_value, numbers, values);
    hand_out(from.vsxs, to.vsx_num, to.vsx_index, to.vsx_value, numbers, values);
    hand_out(from.vmxs, to.vmx_num, to.vmx_index, to.vmx_value, numbers, values);
}

} // namespace

namespace bench
{

void set_machine(uint32_t processor_count, uint32_t host_version, uint64_t memory_size)
{
    processors = processor_count;
    version = host_version;
    memory = memory_size;
    last_told.assign(processor_count, {});
}

void set_writer(const Writer *next)
{
    writer = next;
}

} // namespace bench

extern "C" {

// ---- Machine, console, strings, time, session ---------------------------------------------------------------

Machine *currentMachine = &machine;

MCM *select_mcm(void *)
{
    return &configuration_manager;
}

Machine *select_machine(void *)
{
    return &machine;
}

ProcessorState *select_processor(void *)
{
    return &processor;
}

uint32_t DeviceMgr__GetDeviceMajorNum(DeviceMgr *, const char *)
{
    return 0;
}

uint32_t DeviceMgr__GetDeviceCount(DeviceMgr *, uint32_t)
{
    return processors;
}

void SIM_PRINT(const char *, ...)
{
} // session and throughput lines are of no interest here

void sim_do_warning(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
    va_end(arguments);
}

void sim_do_error(const char *, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
}

boolean StrCaseEqual(const char *a, const char *b)
{
    return strcasecmp(a, b) == 0;
}

boolean StrNCaseEqual(const char *a, const char *b, int length)
{
    return strncasecmp(a, b, static_cast<size_t>(length)) == 0;
}

Cycle GetRawTime(Machine *)
{
    return 0;
}

void Kelvo_QTrace_Plugin_Start(void)
{
}
void Kelvo_QTrace_Plugin_Stop(void)
{
}
void warm_dump(const char *, Machine *)
{
}

// ---- Writer -------------------------------------------------------------------------------------------------

QTRACE_FDESCR QTRACE_Fopen(const char *name, QTRACE_FILE_MODE mode)
{
    return writer ? writer->open(name, mode) : 0;
}

void QTRACE_Fclose(QTRACE_FDESCR file)
{
    if (writer)
        writer->close(file);
}

int QTRACE_FwriteFileHeader(QTRACE_FDESCR file, QTRACE_FILE_HDR *header)
{
    return writer ? writer->write_header(file, header) : 0;
}

int QTRACE_FwriteRecord(QTRACE_FDESCR file, QTRACE_RECORD *record)
{
    return writer ? writer->write_record(file, record) : 0;
}

// ---- Queries ------------------------------------------------------------------------------------------------

#define INSTRUCTION_QUERY(type, name, member)                                                                      \
    type name(void *iop)                                                                                           \
    {                                                                                                              \
        return static_cast<type>(instruction_of(iop).member);                                                      \
    }
#define CONTEXT_QUERY(type, name, member)                                                                          \
    type name(void *iop)                                                                                           \
    {                                                                                                              \
        return context_of(iop).member;                                                                             \
    }
#define ADDRESS_QUERY(type, fetch_name, data_name, member)                                                         \
    INSTRUCTION_QUERY(type, fetch_name, fetch.member)                                                              \
    INSTRUCTION_QUERY(type, data_name, data.member)
#define ONE_LEVEL_QUERY(name, member)                                                                              \
    PA name(void *iop, int n)                                                                                      \
    {                                                                                                              \
        const auto at = static_cast<size_t>(n);                                                                    \
        return instruction_of(iop).member;                                                                         \
    }
#define LEVEL_QUERY(fetch_name, data_name, member)                                                                 \
    ONE_LEVEL_QUERY(fetch_name, fetch.member)                                                                      \
    ONE_LEVEL_QUERY(data_name, data.member)

#include "plain_queries.inc"

// clang-format off
ADDRESS_QUERY(PA, Get_Inst_PC_GUEST_RTPDE_L1_RA, Get_Inst_Data_GUEST_RTPDE_L1_RA, walks->guest.RTPDE_GUEST_ra_l1)
ADDRESS_QUERY(PA, Get_Inst_PC_GUEST_RTPDE_L2_RA, Get_Inst_Data_GUEST_RTPDE_L2_RA, walks->guest.RTPDE_GUEST_ra_l2)
ADDRESS_QUERY(PA, Get_Inst_PC_GUEST_RTPDE_L3_RA, Get_Inst_Data_GUEST_RTPDE_L3_RA, walks->guest.RTPDE_GUEST_ra_l3)
ADDRESS_QUERY(PA, Get_Inst_PC_GUEST_RTPTE_RA,    Get_Inst_Data_GUEST_RTPTE_RA,    walks->guest.RTPTE_GUEST_ra)
ADDRESS_QUERY(PA, Get_Inst_PC_GUEST_RA,          Get_Inst_Data_GUEST_RA,          guest_ra)

LEVEL_QUERY(Get_Inst_PC_HOST_RTPDE_L1_n_RA, Get_Inst_Data_HOST_RTPDE_L1_n_RA, walks->host[at].RTPDE_ra_l1)
LEVEL_QUERY(Get_Inst_PC_HOST_RTPDE_L2_n_RA, Get_Inst_Data_HOST_RTPDE_L2_n_RA, walks->host[at].RTPDE_ra_l2)
LEVEL_QUERY(Get_Inst_PC_HOST_RTPDE_L3_n_RA, Get_Inst_Data_HOST_RTPDE_L3_n_RA, walks->host[at].RTPDE_ra_l3)
LEVEL_QUERY(Get_Inst_PC_HOST_RTPTE_n_RA,    Get_Inst_Data_HOST_RTPTE_n_RA,    walks->host[at].RTPTE_ra)
LEVEL_QUERY(Get_Inst_PC_RonR_HOST_RA_Ln,    Get_Inst_Data_RonR_HOST_RA_Ln,    host_ra[at])
// clang-format on

uint32_t Get_Version_Kelvo(void)
{
    return version;
}

uint64_t Get_Memory_Total_Size(void *)
{
    return memory;
}

boolean Get_Check_IF_LPID_Change(void *iop)
{
    return tell(told_of(iop).lpid, context_of(iop).lpid);
}

boolean Get_Check_IF_PID_Change(void *iop)
{
    return tell(told_of(iop).pid, context_of(iop).pid);
}

void Get_Pages_Used(void *iop, PAGE_SIZES_USED *pages)
{
    *pages = context_of(iop).pages;
}

void Get_gPages_Used(void *iop, PAGE_SIZES_USED *pages)
{
    *pages = context_of(iop).guest_pages;
}

void Get_Inst_Input_Registers(void *iop, Plugin_Inst_Registers *registers)
{
    hand_out(instruction_of(iop).in, *registers);
}

void Get_Inst_Output_Registers(void *iop, Plugin_Inst_Registers *registers)
{
    hand_out(instruction_of(iop).out, *registers);
}

uint16_t Get_String_Length(void *iop, boolean)
{
    return instruction_of(iop).string_length;
}

void Get_Inst_Name_And_Operand(void *iop, char *buffer, int size)
{
    const char *text = instruction_of(iop).text;
    const size_t length = strnlen(text, static_cast<size_t>(size) - 1);
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
}
}

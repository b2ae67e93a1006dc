#include "host.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <strings.h>

// Opaque to the plugin: all there is to know is in the one host of the process.
struct DeviceMgr {
};
struct MCM {
};

namespace replay
{

namespace
{

Host the_host;
DeviceMgr device_manager;
MCM configuration_manager;
Host::Query_Observer query_observer;

constexpr uint32_t PROCESSOR_CLASS = 1;
constexpr uint32_t NO_CLASS = PROCESSOR_MAJOR_UNKNOWN;

std::string format_text(const char *format, va_list arguments)
{
    // NOLINTBEGIN(clang-analyzer-valist.Uninitialized): the callers have started it
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(std::max(length, 0)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    // NOLINTEND(clang-analyzer-valist.Uninitialized)
    return text;
}

void print_to_terminal(const Console_Message &message)
{
    if (message.channel == Channel::print) {
        std::fputs(message.text.c_str(), stdout);
        return;
    }
    std::fflush(stdout); // keeps the two channels in order where both end in one place
    std::fputs(description_of(message).c_str(), stderr);
}

} // namespace

Host &host()
{
    return the_host;
}

void *handle_of(const Instruction &instruction)
{
    return const_cast<Instruction *>(&instruction);
}

std::string description_of(const Console_Message &message)
{
    std::string text;
    if (message.channel == Channel::warning)
        text = "warning (" + std::to_string(message.level) + "): ";
    if (message.channel == Channel::error)
        text = "error (" + message.source + ":" + std::to_string(message.line) + "): ";
    text += message.text;
    if (message.channel != Channel::print && !text.ends_with('\n'))
        text += '\n';
    return text;
}

void Host::reset(const Machine_Shape &shape)
{
    const uint64_t threads = uint64_t{shape.processors} * shape.threads;
    if (threads > MAX_HARDWARE_THREADS)
        throw std::invalid_argument("too many hardware threads");
    processor_ = {};
    for (unsigned option : shape.options) {
        if (option >= PROCESSOR_OPTION_COUNT)
            throw std::invalid_argument("no such processor option");
        processor_.options.processor_options[option] = 1;
    }
    shape_ = shape;
    machine_ = {&device_manager, PROCESSOR_MAJOR_UNKNOWN, shape.threads};
    contexts_.assign(static_cast<size_t>(threads), {});
    raw_time_ = 0;
}

void Host::set_context(int tid, const Thread_Context &context)
{
    Thread &of = thread(tid);
    of.now = context;
    if (of.has_context)
        return;
    of.has_context = true;
    if (!of.lpid_told)
        of.lpid_last_told = context.lpid;
    if (!of.pid_told)
        of.pid_last_told = context.pid;
}

void Host::set_query_observer(Query_Observer observer)
{
    query_observer = std::move(observer);
}

void Host::say(const Console_Message &message)
{
    if (console_)
        console_(message);
    else
        print_to_terminal(message);
}

void Host::tell_session(std::string_view what)
{
    if (session_listener_)
        session_listener_(what);
}

namespace
{

// No exception may pass through the plugin, which called us.
template <class Service> void serve(Service service)
{
    try {
        service();
        return;
    } catch (const std::bad_alloc &) {
    }
    try {
        the_host.say({Channel::error, 0, "replay", 0, "out of memory"});
    } catch (const std::bad_alloc &) {
        std::fputs("replay: out of memory\n", stderr);
    }
}

const Instruction &instruction_of(void *iop)
{
    return *static_cast<const Instruction *>(iop);
}

Host::Thread &thread_of(void *iop)
{
    return the_host.thread(instruction_of(iop).tid);
}

// What a query does besides answering: nothing, or in the observing build telling its name.
#ifdef REPLAY_OBSERVE_QUERIES
void observe(const char *name)
{
    if (query_observer)
        query_observer(name);
}
void observe(const char *name, int n)
{
    if (query_observer)
        query_observer(std::string(name) + "(" + std::to_string(n) + ")");
}
#else
inline void observe(const char *)
{
}
inline void observe(const char *, int)
{
}
#endif

template <class Value> bool changed_since_told(Value now, Value &last_told, bool &told)
{
    const bool changed = now != last_told;
    last_told = now;
    told = true;
    return changed;
}

// Walks and levels that do not exist answer 0.
template <class Array> typename Array::value_type entry_or_zero(const Array &entries, int n)
{
    if (n < 0 || static_cast<size_t>(n) >= entries.size())
        return {};
    return entries[static_cast<size_t>(n)];
}

} // namespace
} // namespace replay

using namespace replay;

// Everything below stands in one object file, so that a program that uses the host has all of it.
extern "C" {

// ---- machine discovery ----------------------------------------------------------------------------------

Machine *currentMachine = the_host.machine();

MCM *select_mcm(void *)
{
    return &configuration_manager;
}

Machine *select_machine(void *client_data)
{
    return static_cast<Host *>(client_data)->machine();
}

ProcessorState *select_processor(void *client_data)
{
    return static_cast<Host *>(client_data)->processor();
}

uint32_t DeviceMgr__GetDeviceMajorNum(DeviceMgr *, const char *name)
{
    return std::strcmp(name, "Processor") == 0 ? PROCESSOR_CLASS : NO_CLASS;
}

uint32_t DeviceMgr__GetDeviceCount(DeviceMgr *, uint32_t major)
{
    return major == PROCESSOR_CLASS ? the_host.shape().processors : 0;
}

// ---- console, strings, time, session --------------------------------------------------------------------

void SIM_PRINT(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    serve([&] { the_host.say({Channel::print, 0, {}, 0, format_text(format, arguments)}); });
    va_end(arguments);
}

void sim_do_warning(int level, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    serve([&] { the_host.say({Channel::warning, level, {}, 0, format_text(format, arguments)}); });
    va_end(arguments);
}

void sim_do_error(const char *source, int line, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    serve([&] { the_host.say({Channel::error, 0, source, line, format_text(format, arguments)}); });
    va_end(arguments);
}

boolean StrCaseEqual(const char *a, const char *b)
{
    return strcasecmp(a, b) == 0;
}

boolean StrNCaseEqual(const char *a, const char *b, int length)
{
    return strncasecmp(a, b, static_cast<size_t>(std::max(length, 0))) == 0;
}

Cycle GetRawTime(Machine *)
{
    return the_host.raw_time();
}

void Kelvo_QTrace_Plugin_Start(void)
{
    serve([] { the_host.tell_session("start"); });
}

void Kelvo_QTrace_Plugin_Stop(void)
{
    serve([] { the_host.tell_session("stop"); });
}

void warm_dump(const char *file, Machine *)
{
    serve([&] { the_host.tell_session(std::string("warm ") + file); });
}

// ---- queries --------------------------------------------------------------------------------------------

// One row a query: type, name, where the answer stands in the instruction or in its thread's context.
#define INSTRUCTION_QUERY(type, name, member)                                                                      \
    type name(void *iop)                                                                                           \
    {                                                                                                              \
        observe(#name);                                                                                            \
        return instruction_of(iop).member;                                                                         \
    }
#define CONTEXT_QUERY(type, name, member)                                                                          \
    type name(void *iop)                                                                                           \
    {                                                                                                              \
        observe(#name);                                                                                            \
        return thread_of(iop).now.member;                                                                          \
    }
// The fetch's query and its twin about the data access.
#define ADDRESS_QUERY(type, fetch_name, data_name, member)                                                         \
    INSTRUCTION_QUERY(type, fetch_name, fetch.member)                                                              \
    INSTRUCTION_QUERY(type, data_name, data.member)
#define ONE_LEVEL_QUERY(name, array, member)                                                                       \
    PA name(void *iop, int n)                                                                                      \
    {                                                                                                              \
        observe(#name, n);                                                                                         \
        return entry_or_zero(instruction_of(iop).array, n) member;                                                 \
    }
#define LEVEL_QUERY(fetch_name, data_name, array, member)                                                          \
    ONE_LEVEL_QUERY(fetch_name, fetch.array, member)                                                               \
    ONE_LEVEL_QUERY(data_name, data.array, member)

#include "plain_queries.inc"

// clang-format off
ADDRESS_QUERY(PA, Get_Inst_PC_GUEST_RTPDE_L1_RA, Get_Inst_Data_GUEST_RTPDE_L1_RA, guest_walk.RTPDE_GUEST_ra_l1)
ADDRESS_QUERY(PA, Get_Inst_PC_GUEST_RTPDE_L2_RA, Get_Inst_Data_GUEST_RTPDE_L2_RA, guest_walk.RTPDE_GUEST_ra_l2)
ADDRESS_QUERY(PA, Get_Inst_PC_GUEST_RTPDE_L3_RA, Get_Inst_Data_GUEST_RTPDE_L3_RA, guest_walk.RTPDE_GUEST_ra_l3)
ADDRESS_QUERY(PA, Get_Inst_PC_GUEST_RTPTE_RA,    Get_Inst_Data_GUEST_RTPTE_RA,    guest_walk.RTPTE_GUEST_ra)
ADDRESS_QUERY(PA, Get_Inst_PC_GUEST_RA,          Get_Inst_Data_GUEST_RA,          guest_walk.GUEST_ra)

LEVEL_QUERY(Get_Inst_PC_HOST_RTPDE_L1_n_RA, Get_Inst_Data_HOST_RTPDE_L1_n_RA, host_walk, .RTPDE_ra_l1)
LEVEL_QUERY(Get_Inst_PC_HOST_RTPDE_L2_n_RA, Get_Inst_Data_HOST_RTPDE_L2_n_RA, host_walk, .RTPDE_ra_l2)
LEVEL_QUERY(Get_Inst_PC_HOST_RTPDE_L3_n_RA, Get_Inst_Data_HOST_RTPDE_L3_n_RA, host_walk, .RTPDE_ra_l3)
LEVEL_QUERY(Get_Inst_PC_HOST_RTPTE_n_RA,    Get_Inst_Data_HOST_RTPTE_n_RA,    host_walk, .RTPTE_ra)
LEVEL_QUERY(Get_Inst_PC_RonR_HOST_RA_Ln,    Get_Inst_Data_RonR_HOST_RA_Ln,    host_ra, )
// clang-format on

uint32_t Get_Version_Kelvo(void)
{
    observe("Get_Version_Kelvo");
    return the_host.shape().version;
}

uint64_t Get_Memory_Total_Size(void *)
{
    observe("Get_Memory_Total_Size");
    return the_host.shape().memory;
}

boolean Get_Check_IF_LPID_Change(void *iop)
{
    observe("Get_Check_IF_LPID_Change");
    Host::Thread &of = thread_of(iop);
    return changed_since_told(of.now.lpid, of.lpid_last_told, of.lpid_told);
}

boolean Get_Check_IF_PID_Change(void *iop)
{
    observe("Get_Check_IF_PID_Change");
    Host::Thread &of = thread_of(iop);
    return changed_since_told(of.now.pid, of.pid_last_told, of.pid_told);
}

void Get_Pages_Used(void *iop, PAGE_SIZES_USED *pages)
{
    observe("Get_Pages_Used");
    *pages = thread_of(iop).now.pages;
}

void Get_gPages_Used(void *iop, PAGE_SIZES_USED *pages)
{
    observe("Get_gPages_Used");
    *pages = thread_of(iop).now.guest_pages;
}

void Get_Inst_Input_Registers(void *iop, Plugin_Inst_Registers *registers)
{
    observe("Get_Inst_Input_Registers");
    copy_registers(instruction_of(iop).in, *registers);
}

void Get_Inst_Output_Registers(void *iop, Plugin_Inst_Registers *registers)
{
    observe("Get_Inst_Output_Registers");
    copy_registers(instruction_of(iop).out, *registers);
}

uint16_t Get_String_Length(void *iop, boolean commit)
{
    observe("Get_String_Length", static_cast<int>(commit));
    return instruction_of(iop).string_length;
}

void Get_Inst_Name_And_Operand(void *iop, char *buffer, int size)
{
    observe("Get_Inst_Name_And_Operand");
    if (size <= 0)
        return;
    const std::string &text = instruction_of(iop).text;
    const size_t length = std::min(text.size(), static_cast<size_t>(size) - 1);
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
}
}

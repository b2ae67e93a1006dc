// A plugin that says what it is called with.

#include "plugin_api.h"
#include "plugin_basic.h"

extern "C" {

#ifdef HAS_NO_HANDLER
const char *EventNames[] = {"Event_Instruction_Commit", "Event_Of_Nobody", nullptr};
#else
const char *EventNames[] = {"Event_Instruction_PreExecution", "Event_Instruction_Commit", "Event_PTE_Access",
                            nullptr};
#endif

// As the trace plugin has it: null, or a flag for each thread. There are more than a test's machine has threads.
boolean every_thread[] = {1, 1, 1, 1};
boolean *paused = nullptr;

void *plugin_init(int argc, char **argv, void *client_data)
{
    SIM_PRINT("init %d %s %u\n", argc, argv[0], select_machine(client_data)->threads_per_processor);
#ifdef REFUSES_THE_MACHINE
    return nullptr;
#else
    return EventNames;
#endif
}

void plugin_signal(int argc, char **argv)
{
    SIM_PRINT("signal");
    for (int i = 0; i < argc; ++i)
        SIM_PRINT(" [%s]", argv[i]);
    SIM_PRINT("\n");
    if (argc > 1 && StrCaseEqual(argv[1], "pause"))
        paused = every_thread;
    for (int i = 1; i < argc && StrCaseEqual(argv[1], "warn"); ++i) // once for each word
        sim_do_warning(2, "as you wish");
}

#ifndef HAS_NO_QUIT
void plugin_quit(void)
{
    SIM_PRINT("quit\n");
}
#endif

void Event_Instruction_PreExecution(void *iop)
{
    SIM_PRINT("pre %d\n", Get_Inst_ThreadId(iop));
}

void Event_Instruction_Commit(void *iop)
{
    SIM_PRINT("commit %d %lu at %lu\n", Get_Inst_ThreadId(iop), Get_Inst_SeqNumber(iop),
              GetRawTime(currentMachine));
}

void Event_PTE_Access(void *iop, PTE_Event_Info *info)
{
    SIM_PRINT("pte %d %lx %lx %lx\n", Get_Inst_ThreadId(iop), info->pa, info->pte.upper, info->pte.lower);
}

void Event_RTPTE_Access(void *iop, RTPTE_Event_Info *info)
{
    SIM_PRINT("rtpte %d %lx %lx %lx %lx %lx\n", Get_Inst_ThreadId(iop), info->RTPDE_ra_l1, info->RTPDE_ra_l2,
              info->RTPDE_ra_l3, info->RTPTE_ra, info->pa);
}
}

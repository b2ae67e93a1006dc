// Whatever the bytes are, reading them as a commit stream ends with events in range or a refusal.

#include "stream_reader.h"

#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

using namespace replay;

namespace
{

void require(bool holds)
{
    if (!holds)
        std::abort();
}

// A file in memory, under a name that can be opened.
class Memory_File
{
public:
    Memory_File(const uint8_t *data, size_t size) : descriptor_(memfd_create("stream", 0))
    {
        require(descriptor_ >= 0 && write(descriptor_, data, size) == static_cast<ssize_t>(size));
    }
    ~Memory_File() { close(descriptor_); }
    std::string name() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

private:
    int descriptor_;
};

void ask(const Instruction &instruction)
{
    void *iop = handle_of(instruction);
    char text[64];
    Get_Inst_Name_And_Operand(iop, text, sizeof text);
    Plugin_Inst_Registers registers;
    Get_Inst_Input_Registers(iop, &registers);
    require(registers.gpr_num >= 0 && registers.gpr_num <= MAX_GPRS);
    require(registers.vsx_num >= 0 && registers.vsx_num <= MAX_VSXRS);
    Get_Inst_Output_Registers(iop, &registers);
    require(registers.spr_num >= 0 && registers.spr_num <= MAX_SPRS);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const Memory_File file(data, size);
    Stream_Reader reader(file.name());
    uint64_t threads = 0;
    for (const Stream_Event *event; (event = reader.next());) {
        if (event->kind == Event_Kind::machine) {
            threads = uint64_t{event->machine.processors} * event->machine.threads;
            require(threads <= MAX_HARDWARE_THREADS);
            continue;
        }
        require(event->instruction.tid >= 0 && static_cast<uint64_t>(event->instruction.tid) < threads);
        ask(event->instruction);
    }
    if (reader.error())
        require(!reader.error()->text().empty());
    require(reader.next() == nullptr);
    return 0;
}

#include "record_printer.h"
#include "tool_command.h"
#include "trace_files.h"

#include <cstdlib>

namespace qtrace_tool
{
namespace
{

class Recover_Command : public Command
{
public:
    void declare(CLI::App &app) override
    {
        app.add_option("IN", in_, "the damaged file")->required();
        app.add_option("OUT", out_, "the file to be written; replaced when it exists")->required();
    }

    void run(Tool_Run &run) override
    {
        QTRACE_Recovery recovery;
        char *reason = nullptr;
        const int result = qtrace_recover(in_.c_str(), out_.c_str(), &recovery, &reason);
        const std::unique_ptr<char, decltype(&std::free)> owner(reason, &std::free);
        if (result != 0) {
            run.fail(reason != nullptr ? std::string_view(reason) : "out of memory");
            return;
        }
        if (recovery.damaged_places > 0)
            run.found();
        run.json ? tell_json(run.out, recovery) : tell(run.out, recovery);
    }

private:
    void tell(Output &out, const QTRACE_Recovery &recovery) const;
    void tell_json(Output &out, const QTRACE_Recovery &recovery) const;

    std::string in_, out_;
};

void Recover_Command::tell(Output &out, const QTRACE_Recovery &recovery) const
{
    out.print("{}: {} records and {} headers in {} blocks\n", out_, recovery.records, recovery.headers,
              recovery.blocks);
    if (recovery.damaged_places == 0) {
        out.print("{}: nothing is damaged, nothing was lost\n", in_);
        return;
    }
    out.paint(Colour::bad);
    out.print("{}: lost at {} places: {} bytes, ", in_, recovery.damaged_places, recovery.lost_bytes);
    if (recovery.lost_records_known)
        out.print("{} records", recovery.lost_records);
    else
        out.print("at least {} records", recovery.lost_records);
    out.put(recovery.open_end ? "; the end of the trace is missing\n" : "\n");
    out.paint(Colour::plain);
}

void Recover_Command::tell_json(Output &out, const QTRACE_Recovery &recovery) const
{
    out.put("{\"from\":");
    print_json_text(out, in_);
    out.put(",\"to\":");
    print_json_text(out, out_);
    out.print(",\"blocks\":{},\"records\":{},\"headers\":{},\"damaged_places\":{},\"lost_bytes\":{},"
              "\"lost_records\":{},\"lost_records_known\":{},\"open_end\":{}}}\n",
              recovery.blocks, recovery.records, recovery.headers, recovery.damaged_places, recovery.lost_bytes,
              recovery.lost_records, recovery.lost_records_known != 0, recovery.open_end != 0);
}

} // namespace

std::unique_ptr<Command> make_recover_command()
{
    return std::make_unique<Recover_Command>();
}

} // namespace qtrace_tool

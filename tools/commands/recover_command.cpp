#include "json_writer.h"
#include "qtrace_jobs.h"
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
    void declare(Options &app) override
    {
        app.add_option("IN", in_, "the damaged file, or a base name")->required();
        app.add_option("OUT", out_, "the file to be written, or a base name like IN; replaced when it exists")
            ->required();
        declare_jobs(app, jobs_);
    }

    // Of a base name, each file becomes one of the other base name.
    void run(Tool_Run &run) override
    {
        for (const Named_File &file : traces_of(run, in_))
            recover(run, file.name, out_ + file.number);
    }

private:
    void recover(Tool_Run &run, const std::string &from, const std::string &to) const;

    std::string in_, out_;
    unsigned jobs_ = 1;
};

void tell(Output &out, const std::string &from, const std::string &to, const QTRACE_Recovery &recovery)
{
    out.print("{}: {} and {} in {}\n", to, counted(recovery.records, "record"), counted(recovery.headers, "header"),
              counted(recovery.blocks, "block"));
    if (recovery.damaged_places == 0) {
        out.print("{}: nothing is damaged, nothing was lost\n", from);
        return;
    }
    out.paint(Colour::bad);
    out.print("{}: lost at {}: {}, {}{}", from, counted(recovery.damaged_places, "place"),
              counted(recovery.lost_bytes, "byte"), recovery.lost_records_known ? "" : "at least ",
              counted(recovery.lost_records, "record"));
    out.put(recovery.open_end ? "; the end of the trace is missing\n" : "\n");
    out.paint(Colour::plain);
}

void tell_json(Output &out, const std::string &from, const std::string &to, const QTRACE_Recovery &recovery)
{
    Json_Writer json(out);
    json.line([&] {
        json.member("from", from);
        json.member("to", to);
        json.member("blocks", recovery.blocks);
        json.member("records", recovery.records);
        json.member("headers", recovery.headers);
        json.member("damaged_places", recovery.damaged_places);
        json.member("lost_bytes", recovery.lost_bytes);
        json.member("lost_records", recovery.lost_records);
        json.member("lost_records_known", recovery.lost_records_known != 0);
        json.member("open_end", recovery.open_end != 0);
    });
}

void Recover_Command::recover(Tool_Run &run, const std::string &from, const std::string &to) const
{
    QTRACE_Recovery recovery;
    char *reason = nullptr;
    const int result = qtrace_recover_by(from.c_str(), to.c_str(), jobs_, &recovery, &reason);
    const std::unique_ptr<char, decltype(&std::free)> owner(reason, &std::free);
    if (result != 0) {
        run.fail(reason != nullptr ? std::string_view(reason) : "out of memory");
        return;
    }
    if (recovery.damaged_places > 0)
        run.found();
    run.show([&] { tell(run.out, from, to, recovery); }, [&] { tell_json(run.out, from, to, recovery); });
}

} // namespace

std::unique_ptr<Command> make_recover_command()
{
    return std::make_unique<Recover_Command>();
}

} // namespace qtrace_tool

#include "json_writer.h"
#include "tool_command.h"
#include "trace_files.h"

#include <algorithm>

namespace qtrace_tool
{
namespace
{

// Some blocks of a file, for one job.
struct Part {
    const Trace_File *file;
    uint64_t first, count; // records
};

// Cuts the file at borders of blocks, so that parts have about `records` records each.
void cut(const Trace_File &file, uint64_t records, std::vector<Part> &parts)
{
    Part part{&file, 0, 0};
    file.each_block([&](const QTRACE_Block &block) {
        const uint64_t end = block.first_record + block.records;
        part.count = end > part.first ? end - part.first : 0;
        if (part.count >= records && end < file.next_record_number()) {
            parts.push_back(part);
            part = {&file, end, 0};
        }
        return true;
    });
    parts.push_back(part);
}

// As a word of a shell.
std::string quoted(const std::string &name)
{
    const bool plain = std::ranges::all_of(name, [](unsigned char c) {
        return std::isalnum(c) != 0 ||
               std::string_view("_./-+=,:@%").find(static_cast<char>(c)) != std::string::npos;
    });
    if (plain && !name.empty())
        return name;
    std::string text = "'";
    for (const char c : name)
        text += c == '\'' ? "'\\''" : std::string(1, c);
    return text + "'";
}

class Plan_Command : public Command
{
public:
    void declare(Options &app) override
    {
        declare_files(app, files_);
        declare_number(app, "--parts", parts_, "about how many lines to print")->required();
    }

    void run(Tool_Run &run) override
    {
        if (parts_ == 0)
            throw Usage_Error("`0` is not a number for --parts: 1 or more expected");
        const std::vector<std::unique_ptr<Trace_File>> files = open_traces(run, files_);
        uint64_t records = 0;
        for (const std::unique_ptr<Trace_File> &file : files)
            records += file->info().records;
        std::vector<Part> parts;
        for (const std::unique_ptr<Trace_File> &file : files)
            cut(*file, std::max<uint64_t>(1, (records + parts_ - 1) / parts_), parts);
        for (const Part &part : parts)
            print(run, part);
    }

private:
    static void print(Tool_Run &run, const Part &part)
    {
        run.show(
            [&] { run.out.print("{} --from {} --count {}\n", quoted(part.file->name()), part.first, part.count); },
            [&] {
                Json_Writer json(run.out);
                json.line([&] {
                    json.member("file", part.file->name());
                    json.member("from", part.first);
                    json.member("count", part.count);
                });
            });
    }

    std::vector<std::string> files_;
    uint64_t parts_ = 0;
};

} // namespace

std::unique_ptr<Command> make_plan_command()
{
    return std::make_unique<Plan_Command>();
}

} // namespace qtrace_tool

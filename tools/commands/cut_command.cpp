#include "exports/output_file.h"
#include "json_writer.h"
#include "qtrace_jobs.h"
#include "record_filter.h"
#include "tool_command.h"
#include "trace_files.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <string>

namespace qtrace_tool
{
namespace
{

// Where the library's cut goes, and what it tells meanwhile.
struct Cut_Output {
    Output_File &file;
    Progress &progress;
    uint64_t passed = 0;

    static int write(void *user, const void *bytes, size_t size)
    {
        Output &out = static_cast<Cut_Output *>(user)->file.out();
        out.put(std::string_view(static_cast<const char *>(bytes), size));
        out.settle();
        return out.error();
    }
    static void step(void *user, uint64_t records)
    {
        auto *self = static_cast<Cut_Output *>(user);
        if (records <= self->passed)
            return;
        self->progress.step(records - self->passed);
        self->passed = records;
    }
};

class Cut_Command : public Command
{
public:
    void declare(Options &app) override;
    void run(Tool_Run &run) override;

private:
    void require_sample() const;
    QTRACE_Cut choice() const;
    void cut(Tool_Run &run, const std::string &from, const std::string &to) const;
    static void tell(Tool_Run &run, const std::string &from, const std::string &to,
                     const QTRACE_Cut_Result &result);

    std::string in_, out_;
    Record_Filter filter_;
    static constexpr uint64_t NOT_GIVEN = std::numeric_limits<uint64_t>::max();
    uint64_t every_ = NOT_GIVEN, window_ = NOT_GIVEN;
    unsigned jobs_ = 1;
    bool force_ = false;
};

void Cut_Command::declare(Options &app)
{
    app.add_option("FILE", in_, "a trace file, or a base name")->required();
    app.add_option("-o,--output", out_, "the trace file to be written, or a base name like FILE")
        ->required()
        ->type_name("OUT");
    app.add_flag("--force", force_, "replace OUT when it exists");
    declare_jobs(app, jobs_);
    filter_.declare_range(app);
    filter_.declare_contexts(app);
    declare_number(app, "--every", every_, "samples: of every N records, counted from the first one");
    declare_number(app, "--window", window_, "samples: that many, from the first on")->type_name("M");
}

void Cut_Command::require_sample() const
{
    if ((every_ == NOT_GIVEN) != (window_ == NOT_GIVEN))
        throw Usage_Error(every_ == NOT_GIVEN ? "--window requires --every" : "--every requires --window");
    if (every_ == 0 || window_ == 0)
        throw Usage_Error(
            fmt::format("`0` is not a number for --{}: 1 or more expected", every_ == 0 ? "every" : "window"));
    if (window_ > every_)
        throw Usage_Error(fmt::format("--window {} is more than --every {}", window_, every_));
}

// Of a base name, each file becomes one of the other base name.
void Cut_Command::run(Tool_Run &run)
{
    require_sample();
    for (const Named_File &file : traces_of(run, in_))
        cut(run, file.name, out_ + file.number);
}

QTRACE_Cut Cut_Command::choice() const
{
    QTRACE_Cut choice{};
    choice.from = filter_.from();
    choice.most = filter_.count();
    choice.every = every_ == NOT_GIVEN ? 0 : every_;
    choice.window = window_;
    choice.lpids = filter_.lpids().data();
    choice.lpid_count = filter_.lpids().size();
    choice.pids = filter_.pids().data();
    choice.pid_count = filter_.pids().size();
    return choice;
}

void Cut_Command::cut(Tool_Run &run, const std::string &from, const std::string &to) const
{
    const std::unique_ptr<Trace_File> file = Trace_File::open(run, from);
    if (!file)
        return;
    if (!file->has_record(filter_.from()))
        return run.fail(file->no_record(filter_.from()));
    Output_File output(to, force_);
    Progress progress(run, from, file->next_record_number());
    Cut_Output user{output, progress};
    QTRACE_Cut choice = this->choice();
    choice.write = Cut_Output::write;
    choice.progress = Cut_Output::step;
    choice.user = &user;
    QTRACE_Cut_Result result;
    char *reason = nullptr;
    const int failed = qtrace_cut_by(from.c_str(), &choice, jobs_, &result, &reason);
    const std::unique_ptr<char, decltype(&std::free)> owner(reason, &std::free);
    output.check();
    if (failed != 0)
        throw std::runtime_error(reason != nullptr ? reason : "out of memory");
    output.finish();
    tell(run, from, to, result);
}

void Cut_Command::tell(Tool_Run &run, const std::string &from, const std::string &to,
                       const QTRACE_Cut_Result &result)
{
    if (result.damaged_places != 0)
        run.warn(fmt::format("{}: left out {}", from, counted(result.damaged_places, "damaged place")));
    run.show(
        [&] {
            run.out.print("{}: {} and {} in {}\n", to, counted(result.records, "record"),
                          counted(result.headers, "header"), counted(result.blocks, "block"));
        },
        [&] {
            Json_Writer json(run.out);
            json.line([&] {
                json.member("from", from);
                json.member("to", to);
                json.member("blocks", result.blocks);
                json.member("records", result.records);
                json.member("headers", result.headers);
                json.member("damaged_places", result.damaged_places);
                json.member("open_end", result.open_end != 0);
            });
        });
}

} // namespace

std::unique_ptr<Command> make_cut_command()
{
    return std::make_unique<Cut_Command>();
}

} // namespace qtrace_tool

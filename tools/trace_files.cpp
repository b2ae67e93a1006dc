#include "trace_files.h"

#include "header_comment.h"
#include "tool_command.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <stdexcept>

namespace qtrace_tool
{

using namespace trace;

namespace
{

namespace fs = std::filesystem;

// Numbers N, without leading zeros, for which there is a file NAME + N.
std::set<uint64_t> numbers_of(const std::string &name)
{
    const fs::path base(name);
    const fs::path folder = base.has_parent_path() ? base.parent_path() : fs::path(".");
    const std::string beginning = base.filename().string();
    std::set<uint64_t> numbers;
    std::error_code ignored;
    for (auto entry = fs::directory_iterator(folder, ignored); entry != fs::directory_iterator();
         entry.increment(ignored)) {
        const std::string file = entry->path().filename().string();
        if (!file.starts_with(beginning))
            continue;
        const std::string digits = file.substr(beginning.size());
        const std::optional<uint64_t> number = parse_digits(digits, 10);
        if (number && std::to_string(*number) == digits)
            numbers.insert(*number);
    }
    return numbers;
}

// "trace2, trace5 to trace7"
std::string missing_before(const std::string &name, const std::set<uint64_t> &numbers)
{
    std::string missing;
    uint64_t next = 0;
    for (const uint64_t number : numbers) {
        if (number > next)
            missing += fmt::format("{}{}{}", missing.empty() ? "" : ", ", name, next);
        if (number > next + 1)
            missing += fmt::format(" to {}{}", name, number - 1);
        next = number + 1;
    }
    return missing;
}

// What a file's first header says of the machine, if it says something.
std::optional<trace::Header_Comment> machine_of(const std::string &name)
{
    const Reader reader(qtrace_open(name.c_str(), nullptr));
    const QTRACE_Item *item = nullptr;
    trace::Header_Comment comment;
    if (!reader || qtrace_next(reader.get(), &item) != QTRACE_ITEM_HEADER || item->header.comment == nullptr ||
        !trace::parse_comment({item->header.comment, item->header.comment_length}, comment))
        return std::nullopt;
    return comment;
}

std::vector<std::string> names_of(std::vector<Named_File> &&files)
{
    std::vector<std::string> names;
    for (Named_File &file : files)
        names.push_back(std::move(file.name));
    return names;
}

} // namespace

std::vector<Named_File> files_of(Tool_Run &run, const std::string &name)
{
    std::error_code ignored;
    if (fs::exists(name, ignored) && !fs::is_directory(name, ignored))
        return {{name, ""}};
    const std::set<uint64_t> numbers = numbers_of(name);
    if (const std::string missing = missing_before(name, numbers); !missing.empty())
        run.warn(fmt::format("missing in the row of numbers: {}", missing));
    std::vector<Named_File> files;
    for (const uint64_t number : numbers)
        files.push_back({name + std::to_string(number), std::to_string(number)});
    return files.empty() ? std::vector<Named_File>{{name, ""}} : files;
}

std::vector<std::string> files_of(Tool_Run &run, const std::vector<std::string> &names)
{
    std::vector<std::string> files;
    for (const std::string &name : names)
        for (std::string &file : names_of(files_of(run, name)))
            files.push_back(std::move(file));
    return files;
}

std::vector<std::string> threads_of(const std::string &file)
{
    const std::string base = file.substr(0, file.find_last_not_of("0123456789") + 1);
    const std::set<uint64_t> numbers = numbers_of(base);
    std::vector<std::string> files;
    for (const uint64_t number : numbers)
        files.push_back(base + std::to_string(number));
    return std::ranges::find(files, file) != files.end() ? files : std::vector<std::string>{file};
}

std::vector<Named_File> traces_of(Tool_Run &run, const std::string &name)
{
    std::vector<Named_File> files = files_of(run, name);
    std::optional<trace::Header_Comment> first;
    for (size_t i = 0; files.size() > 1 && i < files.size(); i++) {
        const std::optional<trace::Header_Comment> machine = machine_of(files[i].name);
        if (first && machine && (first->version != machine->version || first->memory != machine->memory))
            run.warn(
                fmt::format("{}: its first header tells of another machine than those before: version {} and {} "
                            "bytes of memory instead of {} and {}; files of several sessions?",
                            files[i].name, machine->version, machine->memory, first->version, first->memory));
        if (!first)
            first = machine;
    }
    return files;
}

std::vector<std::string> traces_of(Tool_Run &run, const std::vector<std::string> &names)
{
    std::vector<std::string> files;
    for (const std::string &name : names)
        for (std::string &file : names_of(traces_of(run, name)))
            files.push_back(std::move(file));
    return files;
}

Trace_File::Trace_File(const std::string &name, Index index)
    : name_(name), index_(std::move(index)), reader_(another_reader()), info_(*qtrace_index_info(index_.get()))
{
}

std::unique_ptr<Trace_File> Trace_File::open(Tool_Run &run, const std::string &name)
{
    char *reason = nullptr;
    Index index(qtrace_index_open(name.c_str(), &reason));
    const std::unique_ptr<char, decltype(&std::free)> owner(reason, &std::free);
    std::unique_ptr<Trace_File> file;
    if (index)
        file.reset(new Trace_File(name, std::move(index)));
    if (file && file->reader_)
        return file;
    run.fail(reason != nullptr ? std::string_view(reason) : "out of memory");
    return nullptr;
}

std::span<const QTRACE_Step> Trace_File::steps() const
{
    uint64_t count = 0;
    const QTRACE_Step *first = qtrace_index_steps(index_.get(), &count);
    return {first, count};
}

void Trace_File::each_block(const std::function<bool(const QTRACE_Block &)> &visit) const
{
    std::vector<QTRACE_Block> blocks;
    for (uint64_t step = 0; step < steps().size(); step++) {
        blocks.resize(steps()[step].blocks);
        if (qtrace_step_blocks(reader(), step, blocks.data(), blocks.size()) != blocks.size())
            throw std::runtime_error(qtrace_error(reader()));
        if (!std::ranges::all_of(blocks, visit))
            return;
    }
}

std::string Trace_File::no_record(uint64_t record) const
{
    return fmt::format("{}: no record {}: the file has {}", name_, record, info_.records);
}

std::string describe_loss(const QTRACE_Reader *reader, const QTRACE_Discontinuity &what)
{
    std::string text = qtrace_error(reader);
    const char *least = what.records_known ? "" : "at least ";
    if (what.records > 0 && (what.records_known || what.cause == QTRACE_CAUSE_CUT_END))
        text += fmt::format(" ({}{} {} lost)", least, counted(what.records, "record"),
                            what.records == 1 ? "is" : "are");
    return text;
}

std::vector<std::unique_ptr<Trace_File>> open_traces(Tool_Run &run, const std::vector<std::string> &names)
{
    std::vector<std::unique_ptr<Trace_File>> traces;
    for (const std::string &name : traces_of(run, names))
        if (std::unique_ptr<Trace_File> trace = Trace_File::open(run, name))
            traces.push_back(std::move(trace));
    return traces;
}

} // namespace qtrace_tool

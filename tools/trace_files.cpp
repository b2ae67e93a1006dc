#include "trace_files.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace qtrace_tool
{

std::vector<std::string> files_of(const std::string &name)
{
    std::error_code ignored;
    std::vector<std::string> files;
    if (!std::filesystem::exists(name, ignored) || std::filesystem::is_directory(name, ignored))
        for (unsigned i = 0; std::filesystem::exists(name + std::to_string(i), ignored); i++)
            files.push_back(name + std::to_string(i));
    if (files.empty())
        files.push_back(name);
    return files;
}

std::vector<std::string> files_of(const std::vector<std::string> &names)
{
    std::vector<std::string> files;
    for (const std::string &name : names)
        for (std::string &file : files_of(name))
            files.push_back(std::move(file));
    return files;
}

Trace_File::Trace_File(Tool_Run &run, const std::string &name, QTRACE_Reader *reader, bool silent)
    : run_(run), name_(name), silent_(silent), reader_(reader)
{
}

std::unique_ptr<Trace_File> Trace_File::open(Tool_Run &run, const std::string &name, bool silent)
{
    char *reason = nullptr;
    QTRACE_Reader *reader = qtrace_open(name.c_str(), &reason);
    const std::unique_ptr<char, decltype(&std::free)> owner(reason, &std::free);
    if (reader == nullptr) {
        run.fail(reason != nullptr ? std::string_view(reason) : "out of memory");
        return nullptr;
    }
    std::unique_ptr<Trace_File> file(new Trace_File(run, name, reader, silent));
    if (qtrace_info(reader, &file->info_) != 0) {
        run.fail(qtrace_error(reader));
        return nullptr;
    }
    return file;
}

// The writer and a recovery say themselves what they left out; that is no finding.
static bool is_damage(const QTRACE_Discontinuity &what)
{
    return what.cause == QTRACE_CAUSE_DAMAGE || what.cause == QTRACE_CAUSE_CUT_END;
}

const QTRACE_Item *Trace_File::next_after(QTRACE_ITEM kind, const QTRACE_Item *item)
{
    for (; kind == QTRACE_ITEM_DISCONTINUITY; kind = qtrace_next(reader_.get(), &item))
        if (is_damage(item->discontinuity))
            note_loss(item->discontinuity);
    if (kind == QTRACE_ITEM_ERROR) {
        readable_ = false;
        run_.fail(qtrace_error(reader_.get()));
    }
    return kind == QTRACE_ITEM_HEADER || kind == QTRACE_ITEM_RECORD ? item : nullptr;
}

// A place is met again when the reader goes back in front of it.
void Trace_File::note_loss(const QTRACE_Discontinuity &damage)
{
    if (std::ranges::find(losses_, damage.offset, &Loss::offset) != losses_.end())
        return;
    std::string text = qtrace_error(reader_.get());
    if (damage.records_known && damage.records > 0)
        text += fmt::format(" ({} records are lost)", damage.records);
    else if (damage.cause == QTRACE_CAUSE_CUT_END && damage.records > 0)
        text += fmt::format(" (at least {} records are lost)", damage.records);
    losses_.push_back({damage.offset, text});
    if (!silent_)
        run_.warn(text);
}

void Trace_File::verify()
{
    if (qtrace_verify(reader_.get(), &info_) != 0)
        run_.fail(qtrace_error(reader_.get()));
}

std::vector<std::unique_ptr<Trace_File>> open_traces(Tool_Run &run, const std::vector<std::string> &names)
{
    std::vector<std::unique_ptr<Trace_File>> traces;
    for (const std::string &name : files_of(names))
        if (std::unique_ptr<Trace_File> trace = Trace_File::open(run, name))
            traces.push_back(std::move(trace));
    return traces;
}

} // namespace qtrace_tool

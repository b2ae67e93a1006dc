// Trace files as the subcommands use them: names, readers that report what was lost.
#pragma once

#include "block_sequence.h"
#include "qtrace_columns.h"
#include "qtrace_reader.h"
#include "tool_run.h"

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qtrace_tool
{

// A file of a thread.
struct Named_File {
    std::string name;
    std::string number; // of the thread, as the base name leaves it; empty for a file that was named itself
};

// The files that `name` stands for: itself, when there is such a file; else all NAME0, NAME1, ... that exist, in
// ascending order; else itself, so that opening it says what is wrong. Numbers that are missing in the row are told
// to the run.
std::vector<Named_File> files_of(Tool_Run &run, const std::string &name);
std::vector<std::string> files_of(Tool_Run &run, const std::vector<std::string> &names);
// The same for traces: the run is told, too, when the first headers of files of one base name tell of different
// machines, for then they come from different sessions.
std::vector<Named_File> traces_of(Tool_Run &run, const std::string &name);
std::vector<std::string> traces_of(Tool_Run &run, const std::vector<std::string> &names);

// The files of all threads of the trace that `file` is of, itself among them, in ascending order: those that differ
// from it in the number at the end of the name. A file without such a number stands alone.
std::vector<std::string> threads_of(const std::string &file);

struct Reader_Closer {
    void operator()(QTRACE_Reader *reader) const { qtrace_close(reader); }
};
using Reader = std::unique_ptr<QTRACE_Reader, Reader_Closer>;

using trace::is_damage;
// Where, why, and how many records are lost, as far as known: of the discontinuity that was delivered last.
std::string describe_loss(const QTRACE_Reader *reader, const QTRACE_Discontinuity &what);

// An open trace file, by the headers of its blocks.
class Trace_File
{
public:
    // Null when the file cannot be read; the run has been told.
    static std::unique_ptr<Trace_File> open(Tool_Run &run, const std::string &name);

    const std::string &name() const { return name_; }
    const QTRACE_Info &info() const { return info_; }
    std::span<const QTRACE_Step> steps() const;
    // Calls visit(block) for the blocks in file order, until it returns false.
    void each_block(const std::function<bool(const QTRACE_Block &)> &visit) const;
    // Number that a record after the last one would have.
    uint64_t next_record_number() const { return steps().empty() ? 0 : steps().back().record_after; }
    // Whether reading can begin at that record; and that it cannot, as text.
    bool has_record(uint64_t record) const { return record == 0 || record < next_record_number(); }
    std::string no_record(uint64_t record) const;
    // A reader of the same file at its beginning, for another thread. Null when memory is short.
    Reader another_reader() const { return Reader(qtrace_open_with_index(index_.get())); }

    QTRACE_Reader *reader() const { return reader_.get(); }

private:
    struct Index_Closer {
        void operator()(QTRACE_Index *index) const { qtrace_index_close(index); }
    };
    using Index = std::unique_ptr<QTRACE_Index, Index_Closer>;
    Trace_File(const std::string &name, Index index);

    std::string name_;
    Index index_;
    Reader reader_;
    QTRACE_Info info_{};
};

// Readers of all traces that the names stand for; those that cannot be opened are left out.
std::vector<std::unique_ptr<Trace_File>> open_traces(Tool_Run &run, const std::vector<std::string> &names);

} // namespace qtrace_tool

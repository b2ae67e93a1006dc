// Trace files as the subcommands use them: names, readers that report what was lost.
#pragma once

#include "qtrace_columns.h"
#include "qtrace_reader.h"
#include "tool_run.h"

#include <optional>
#include <string>
#include <vector>

namespace qtrace_tool
{

// The files that `name` stands for: itself, when there is such a file; else NAME0, NAME1, ... as far as they
// exist; else itself, so that opening it says what is wrong.
std::vector<std::string> files_of(const std::string &name);
std::vector<std::string> files_of(const std::vector<std::string> &names);

// An open trace file. Damage is told to the run when it is met, and counted here.
class Trace_File
{
public:
    // Null when the file cannot be read; the run has been told. A silent reader does not tell the run about losses:
    // another one reads the same file.
    static std::unique_ptr<Trace_File> open(Tool_Run &run, const std::string &name, bool silent = false);

    const std::string &name() const { return name_; }
    const QTRACE_Info &info() const { return info_; }

    // The next header or record; null at the end. Damage on the way has been reported.
    const QTRACE_Item *next()
    {
        const QTRACE_Item *item = nullptr;
        const QTRACE_ITEM kind = qtrace_next(reader_.get(), &item);
        return kind == QTRACE_ITEM_HEADER || kind == QTRACE_ITEM_RECORD ? item : next_after(kind, item);
    }
    // Goes to that record, to the headers in front of it. False: there is none.
    bool seek(uint64_t record) { return qtrace_seek(reader_.get(), record) == 0; }

    // The header in force at the item delivered last; null before any.
    const QTRACE_FILE_HDR *context() const { return qtrace_open_header(reader_.get()); }
    QTRACE_Reader *reader() const { return reader_.get(); }

    // A place that could not be read.
    struct Loss {
        uint64_t offset;
        std::string text; // where, why, and how many records, when that is known
    };
    // Those met so far, each once; a new one stands in front of the item delivered last.
    const std::vector<Loss> &losses() const { return losses_; }
    // Reads the payloads of all blocks too, so that info() knows of every damaged place.
    void verify();
    bool readable() const { return readable_; } // false after an error that ended the reading

private:
    struct Closer {
        void operator()(QTRACE_Reader *reader) const { qtrace_close(reader); }
    };
    Trace_File(Tool_Run &run, const std::string &name, QTRACE_Reader *reader, bool silent);
    const QTRACE_Item *next_after(QTRACE_ITEM kind, const QTRACE_Item *item);
    void note_loss(const QTRACE_Discontinuity &damage);

    Tool_Run &run_;
    std::string name_;
    bool silent_;
    std::unique_ptr<QTRACE_Reader, Closer> reader_;
    QTRACE_Info info_{};
    std::vector<Loss> losses_;
    bool readable_ = true;
};

// Readers of all files that the names stand for; those that cannot be opened are left out.
std::vector<std::unique_ptr<Trace_File>> open_traces(Tool_Run &run, const std::vector<std::string> &names);

} // namespace qtrace_tool

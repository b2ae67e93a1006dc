#include "header_comment.h"
#include "qtrace_jobs.h"
#include "record_printer.h"
#include "tool_command.h"
#include "trace_files.h"

namespace qtrace_tool
{

using namespace trace;
namespace
{

// A header and where it stands.
struct Placed_Header {
    uint64_t number;        // headers before it
    uint64_t before_record; // the record it stands before
    QTRACE_FILE_HDR header;
    std::string comment;

    bool is_full() const { return header.control.iar_is_present; }
};

// Reads the payloads of all blocks too, so that the summary knows of every damaged place.
void verify(Tool_Run &run, const Trace_File &file, unsigned jobs, QTRACE_Info &info)
{
    if (qtrace_verify_by(file.reader(), jobs, &info) != 0)
        run.fail(qtrace_error(file.reader()));
}

// Finds the headers of a file. Runs of records without any are not decoded: two places with the same number of
// headers before them have none between.
class Header_Finder
{
public:
    // The summary is replaced when damage comes up that it does not know of.
    Header_Finder(Tool_Run &run, Trace_File &file, unsigned jobs, QTRACE_Info &info)
        : run_(run), file_(file), jobs_(jobs), info_(info)
    {
    }

    std::vector<Placed_Header> find()
    {
        if (info_.damaged_places == 0)
            search(0, info_.records, 0, info_.headers);
        else
            collect(info_.records);
        if (info_.damaged_places == 0 && !file_.losses().empty())
            find_among_damage();
        return std::move(headers_);
    }

private:
    // So few records that decoding them costs less than looking for a place between them.
    static constexpr uint64_t FEW_RECORDS = 4096;

    void search(uint64_t from, uint64_t to, uint64_t headers_before, uint64_t headers_after);
    void collect(uint64_t end);
    void find_among_damage();
    uint64_t headers_before(uint64_t record);

    Tool_Run &run_;
    Trace_File &file_;
    unsigned jobs_;
    QTRACE_Info &info_;
    std::vector<Placed_Header> headers_;
};

// Headers before the records `from` to `to` - 1, of which `headers_before` stand before record `from` and
// those before it, without the ones directly before it.
void Header_Finder::search(uint64_t from, uint64_t to, uint64_t before, uint64_t after)
{
    if (before == after)
        return;
    if (to - from <= FEW_RECORDS) {
        if (info_.records == 0 || file_.seek(from))
            collect(to);
        return;
    }
    const uint64_t middle = from + (to - from) / 2;
    const uint64_t at_middle = headers_before(middle);
    search(from, middle, before, at_middle);
    search(middle, to, at_middle, after);
}

// From the place of the reader up to record `end`; at the end of the file also what follows its last record.
void Header_Finder::collect(uint64_t end)
{
    const bool to_the_end = end >= info_.records;
    while (const QTRACE_Item *item = file_.next()) {
        if (item->record_number >= end && !to_the_end)
            break;
        if (item->kind == QTRACE_ITEM_HEADER)
            headers_.push_back({item->header_number, item->record_number, item->header,
                                item->header.comment != nullptr ? std::string(item->header.comment) : ""});
    }
}

// Damage that block headers do not show came up: places tell nothing about numbers then.
void Header_Finder::find_among_damage()
{
    headers_.clear();
    verify(run_, file_, jobs_, info_);
    if (file_.seek(0))
        collect(info_.records);
}

uint64_t Header_Finder::headers_before(uint64_t record)
{
    const QTRACE_Item *item = file_.seek(record) ? file_.next() : nullptr;
    return item != nullptr ? item->header_number : info_.headers;
}

// What `info` says about one file.
struct File_Summary {
    QTRACE_Info info;
    std::vector<Placed_Header> headers;
    uint64_t full_headers = 0;

    uint64_t gaps() const { return full_headers > 0 ? full_headers - 1 : 0; }
    uint64_t partition_changes() const { return headers.size() - full_headers; }
    double bytes_per_record() const
    {
        return info.records == 0 ? 0.0 : static_cast<double>(info.size) / static_cast<double>(info.records);
    }
};

File_Summary summarise(Tool_Run &run, Trace_File &file, bool verified, unsigned jobs)
{
    File_Summary summary{file.info(), {}, 0};
    if (verified)
        verify(run, file, jobs, summary.info);
    summary.headers = Header_Finder(run, file, jobs, summary.info).find();
    for (const Placed_Header &header : summary.headers)
        summary.full_headers += header.is_full();
    return summary;
}

std::string join(const std::vector<std::string> &words)
{
    return words.empty() ? "none" : fmt::format("{}", fmt::join(words, " "));
}

std::string bytes_in_words(uint64_t bytes)
{
    static constexpr std::string_view UNITS[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    auto amount = static_cast<double>(bytes);
    for (; amount >= 1024 && unit + 1 < std::size(UNITS); unit++)
        amount /= 1024;
    return unit == 0 ? fmt::format("{} bytes", bytes) : fmt::format("{:.1f} {}", amount, UNITS[unit]);
}

void print_full_header(Output &out, const Placed_Header &placed)
{
    const QTRACE_FILE_HDR &header = placed.header;
    const Mode_Pair modes = instruction_modes(header.sec_ext_controlword.control);
    out.print("  header {:<4} before record {}: instruction at {:016x} ({}/{}), ptcr 0x{:x}, lpid 0x{:x}, pid {}",
              placed.number, placed.before_record, number(header.iar), mode_word(modes.guest),
              mode_word(modes.host), number(header.ptcr), number(header.lpid), number(header.pid));
    if (header.control.sdr1_is_present)
        out.print(", sdr1 0x{:x}", number(header.sdr1));
    Header_Comment comment;
    if (parse_comment(placed.comment, comment)) {
        out.print("\n              simulator version {}, {}-bit, {}-endian, {} of memory\n"
                  "              host pages: {}; guest pages: {}\n",
                  comment.version, comment.bits64 ? 64 : 32, comment.little_endian ? "little" : "big",
                  bytes_in_words(static_cast<uint64_t>(comment.memory)), join(comment.host_pages),
                  join(comment.guest_pages));
    } else {
        out.put("\n              comment: ");
        print_visible(out, placed.comment.empty() ? "none" : placed.comment);
        out.put('\n');
    }
}

void print_ending(Output &out, const QTRACE_Info &info)
{
    out.put("  ends         ");
    out.paint(info.clean_end && !info.open_end && info.damaged_places == 0 ? Colour::good : Colour::bad);
    out.put(!info.clean_end ? "not cleanly: it was cut, its writer died, or something follows its last block"
            : info.open_end ? "where a recovery or a cut closed the file: the end of the trace is missing"
                            : "cleanly");
    if (info.damaged_places > 0)
        out.print("; {} (`qtrace recover` saves the rest)", counted(info.damaged_places, "damaged place"));
    out.paint(Colour::plain);
    out.put('\n');
    if (info.left_out > 0)
        out.print("  missing      records or headers at {}\n", counted(info.left_out, "place"));
}

class Info_Command : public Command
{
public:
    void declare(Options &app) override
    {
        declare_files(app, files_);
        app.add_flag("--verify", verify_, "read all blocks, not only their headers, for damage");
        declare_number(app, "--headers", limit_, "full headers to list (of each file; all with --json)")
            ->default_str("10");
        declare_jobs(app, jobs_);
    }

    void run(Tool_Run &run) override
    {
        for (const std::string &name : traces_of(run, files_))
            if (const std::unique_ptr<Trace_File> file = Trace_File::open(run, name))
                tell(run, *file);
    }

private:
    void tell(Tool_Run &run, Trace_File &file) const
    {
        const File_Summary summary = summarise(run, file, verify_, jobs_);
        if (!summary.info.clean_end || summary.info.damaged_places > 0)
            run.found();
        run.show([&] { print_text(run.out, file.name(), summary); },
                 [&] { print_json(run.out, file.name(), summary); });
        run.out.settle();
    }
    void print_text(Output &out, const std::string &name, const File_Summary &summary) const;
    static void print_json(Output &out, const std::string &name, const File_Summary &summary);

    std::vector<std::string> files_;
    uint64_t limit_ = 10;
    bool verify_ = false;
    unsigned jobs_ = 1;
};

void Info_Command::print_text(Output &out, const std::string &name, const File_Summary &summary) const
{
    const QTRACE_Info &info = summary.info;
    out.paint(Colour::head);
    out.put(name);
    out.paint(Colour::plain);
    out.print("\n  format       version {}, blocks compressed with {}\n", info.format_version,
              info.compression == 1 ? "zstd" : "nothing");
    out.print("  records      {}\n", info.records);
    out.print("  headers      {}: {} full, {} for partition changes\n", summary.headers.size(),
              summary.full_headers, summary.partition_changes());
    out.print("  gaps         {}{}\n", summary.gaps(),
              summary.gaps() == 0 ? "" : " (tracing was paused and resumed that often)");
    out.print("  size         {} ({}) in {}, {:.2f} bytes a record\n", info.size, bytes_in_words(info.size),
              counted(info.blocks, "block"), summary.bytes_per_record());
    print_ending(out, info);
    uint64_t listed = 0;
    for (const Placed_Header &header : summary.headers)
        if (header.is_full() && listed < limit_) {
            print_full_header(out, header);
            listed++;
        }
    if (listed < summary.full_headers)
        out.print("  ... and {} more full headers (--headers N lists N)\n", summary.full_headers - listed);
}

void Info_Command::print_json(Output &out, const std::string &name, const File_Summary &summary)
{
    const QTRACE_Info &info = summary.info;
    out.put("{\"file\":");
    print_json_text(out, name);
    out.print(",\"format_version\":{},\"compression\":\"{}\",\"records\":{},\"headers\":{},\"full_headers\":{},"
              "\"partition_changes\":{},\"gaps\":{},\"size\":{},\"blocks\":{},\"bytes_per_record\":{:.3f},"
              "\"clean_end\":{},\"damaged_places\":{},\"left_out\":{},\"open_end\":{},\"header_list\":[",
              info.format_version, info.compression == 1 ? "zstd" : "none", info.records, info.headers,
              summary.full_headers, summary.partition_changes(), summary.gaps(), info.size, info.blocks,
              summary.bytes_per_record(), info.clean_end != 0, info.damaged_places, info.left_out,
              info.open_end != 0);
    bool first = true;
    for (const Placed_Header &placed : summary.headers) {
        out.print("{}{{\"header\":{},\"before_record\":{},\"full\":{},\"lpid\":\"0x{:x}\",\"pid\":{}",
                  first ? "" : ",", placed.number, placed.before_record, placed.is_full(),
                  number(placed.header.lpid), number(placed.header.pid));
        first = false;
        if (placed.is_full()) {
            out.print(",\"address\":\"0x{:x}\",\"ptcr\":\"0x{:x}\",\"sdr1\":\"0x{:x}\",\"comment\":",
                      number(placed.header.iar), number(placed.header.ptcr), number(placed.header.sdr1));
            print_json_bytes(out, placed.comment);
        }
        out.put('}');
    }
    out.put("]}\n");
}

} // namespace

std::unique_ptr<Command> make_info_command()
{
    return std::make_unique<Info_Command>();
}

} // namespace qtrace_tool

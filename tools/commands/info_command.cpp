#include "header_comment.h"
#include "item_scan.h"
#include "json_writer.h"
#include "qtrace_jobs.h"
#include "record_printer.h"
#include "tool_command.h"
#include "trace_files.h"

#include <algorithm>
#include <functional>

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
    size_t size() const { return sizeof *this + comment.size(); }
};

// What a group of blocks has, and its headers.
class Header_Sink : public Item_Sink
{
public:
    void begin(const Group_Start &) override {}
    void header(const QTRACE_Item &item) override
    {
        headers.push_back({item.header_number, item.record_number, item.header,
                           item.header.comment != nullptr ? std::string(item.header.comment) : ""});
        size_ += headers.back().size();
        set_full(size_ >= MOST_KEPT);
    }
    void record(const QTRACE_Item &) override { records++; }
    void loss(const QTRACE_Item &item, const std::string &) override
    {
        is_damage(item.discontinuity) ? damaged_places++ : left_out++;
    }
    // It was merged.
    void clear()
    {
        headers.clear();
        records = damaged_places = left_out = size_ = 0;
    }

    std::vector<Placed_Header> headers;
    uint64_t records = 0, damaged_places = 0, left_out = 0;

private:
    static constexpr uint64_t MOST_KEPT = 1 << 18; // bytes

    uint64_t size_ = 0;
};

// What `info` says about one file, or a range of its records.
struct File_Summary {
    QTRACE_Info info{};
    uint64_t headers = 0, full_headers = 0;
    // Those to be listed, unless they are too many to be kept.
    std::vector<Placed_Header> kept;
    bool all_kept = true;
    bool is_complete = true; // false: an error ended the reading

    uint64_t gaps() const { return full_headers > 0 ? full_headers - 1 : 0; }
    uint64_t partition_changes() const { return headers - full_headers; }
    double bytes_per_record() const
    {
        return info.records == 0 ? 0.0 : static_cast<double>(info.size) / static_cast<double>(info.records);
    }
};

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
        options_ = &app;
        declare_files(app, files_);
        app.add_flag("--verify", verify_, "read all blocks, not only their headers, for damage");
        declare_number(app, "--headers", limit_, "full headers to list (of each file; all with --json)")
            ->default_str("10");
        declare_jobs(app, jobs_);
        declare_range(app, range_);
        app.describe("--from", "with --verify: number of the first record, from 0 (of each file)");
        app.describe("--count", "with --verify: records to read (of each file)");
    }

    void run(Tool_Run &run) override;

private:
    // How the items of a file are read.
    struct Reading {
        bool only_headers; // blocks without headers are passed over
        bool is_range;     // only what the user chose
        bool is_silent;    // damage is not told
    };
    // Headers that are listed: of so many full ones before it.
    using Wanted = std::function<bool(const Placed_Header &header, uint64_t full_before)>;
    using Visit = std::function<void(const Placed_Header &header)>;

    void tell(Tool_Run &run, Trace_File &file) const;
    void verify(Tool_Run &run, const Trace_File &file, QTRACE_Info &info) const;
    bool scan_headers(Tool_Run &run, Trace_File &file, const Reading &reading,
                      const std::function<void(Header_Sink &)> &merge) const;
    Reading summarise(Tool_Run &run, Trace_File &file, const Wanted &wanted, File_Summary &summary) const;
    uint64_t count(Tool_Run &run, Trace_File &file, const Reading &reading, const Wanted &wanted,
                   File_Summary &summary) const;
    void list(Tool_Run &run, Trace_File &file, Reading reading, const Wanted &wanted, const File_Summary &summary,
              const Visit &visit) const;
    void print_text(Output &out, const std::string &name, const File_Summary &summary) const;

    const Options *options_ = nullptr;
    std::vector<std::string> files_;
    uint64_t limit_ = 10;
    bool verify_ = false;
    bool is_range_ = false; // records were chosen
    Record_Range range_;
    unsigned jobs_ = 1;
};

void Info_Command::run(Tool_Run &run)
{
    const std::vector<std::string> given = options_->given();
    for (const char *const name : {"--from", "--count"})
        is_range_ |= std::ranges::find(given, name) != given.end();
    if (is_range_ && !verify_)
        throw Usage_Error("--from and --count need --verify: without it no records are read");
    for (const std::string &name : traces_of(run, files_))
        if (const std::unique_ptr<Trace_File> file = Trace_File::open(run, name))
            tell(run, *file);
}

// Reads the payloads of all blocks too, so that the summary knows of every damaged place.
void Info_Command::verify(Tool_Run &run, const Trace_File &file, QTRACE_Info &info) const
{
    if (qtrace_verify_by(file.reader(), jobs_, &info) != 0)
        run.fail(qtrace_error(file.reader()));
}

// False: an error ended the reading, and the run has been told.
bool Info_Command::scan_headers(Tool_Run &run, Trace_File &file, const Reading &reading,
                                const std::function<void(Header_Sink &)> &merge) const
{
    Scan_Options options;
    options.jobs = jobs_;
    options.range = reading.is_range ? range_ : Record_Range{};
    options.silent = reading.is_silent;
    options.headers_only = reading.only_headers;
    if (reading.only_headers)
        options.steps = 1;
    return scan<Header_Sink>(
        run, file, options, [&] { return std::make_unique<Header_Sink>(); },
        [&](Header_Sink &group) {
            merge(group);
            group.clear();
            return true;
        });
}

// Counts what the file has, and keeps the headers that are wanted. Returns the damaged places that were met.
uint64_t Info_Command::count(Tool_Run &run, Trace_File &file, const Reading &reading, const Wanted &wanted,
                             File_Summary &summary) const
{
    static constexpr size_t MOST_KEPT = 1 << 20; // bytes
    uint64_t records = 0, damaged_places = 0, left_out = 0;
    size_t size = 0;
    summary.is_complete = scan_headers(run, file, reading, [&](Header_Sink &group) {
        for (Placed_Header &header : group.headers) {
            const bool is_wanted = wanted(header, summary.full_headers);
            summary.headers++;
            summary.full_headers += header.is_full();
            size += is_wanted ? header.size() : 0;
            summary.all_kept &= size <= MOST_KEPT;
            if (is_wanted && summary.all_kept)
                summary.kept.push_back(std::move(header));
        }
        records += group.records;
        damaged_places += group.damaged_places;
        left_out += group.left_out;
    });
    if (reading.is_range) {
        summary.info.records = records;
        summary.info.headers = summary.headers;
        summary.info.damaged_places = damaged_places;
        summary.info.left_out = left_out;
    }
    return damaged_places;
}

// The blocks that hold records of the range.
void count_blocks(const Trace_File &file, const Record_Range &range, QTRACE_Info &info)
{
    info.blocks = info.size = 0;
    file.each_block([&](const QTRACE_Block &block) {
        if (block.first_record + block.records > range.first && !range.ends_before(block.first_record)) {
            info.blocks++;
            info.size += block.size;
        }
        return true;
    });
}

// Returns how the headers were found.
Info_Command::Reading Info_Command::summarise(Tool_Run &run, Trace_File &file, const Wanted &wanted,
                                              File_Summary &summary) const
{
    // So few records that decoding them costs less than looking for the headers.
    static constexpr uint64_t FEW_RECORDS = 4096;
    const Reading everything{false, is_range_, false};
    if (is_range_) {
        count(run, file, everything, wanted, summary);
        count_blocks(file, range_, summary.info);
        return everything;
    }
    if (verify_)
        verify(run, file, summary.info);
    if (summary.info.damaged_places == 0) {
        const Reading quick{summary.info.records > FEW_RECORDS, false, true};
        if (count(run, file, quick, wanted, summary) == 0)
            return quick;
        // Damage that block headers do not show came up.
        summary = {};
        summary.info = file.info();
        verify(run, file, summary.info);
    }
    count(run, file, everything, wanted, summary);
    return everything;
}

void Info_Command::list(Tool_Run &run, Trace_File &file, Reading reading, const Wanted &wanted,
                        const File_Summary &summary, const Visit &visit) const
{
    if (summary.all_kept) {
        std::ranges::for_each(summary.kept, visit);
        return;
    }
    uint64_t full = 0;
    reading.is_silent = true;
    scan_headers(run, file, reading, [&](const Header_Sink &group) {
        for (const Placed_Header &header : group.headers) {
            if (wanted(header, full))
                visit(header);
            full += header.is_full();
        }
        run.out.settle();
    });
}

void print_json_header(Json_Writer &json, const Placed_Header &placed)
{
    const QTRACE_FILE_HDR &header = placed.header;
    json.object([&] {
        json.member("header", placed.number);
        json.member("before_record", placed.before_record);
        json.member("full", placed.is_full());
        json.member("lpid", Json_Hex{number(header.lpid)});
        json.member("pid", number(header.pid));
        if (!placed.is_full())
            return;
        json.member("address", Json_Hex{number(header.iar)});
        json.member("ptcr", Json_Hex{number(header.ptcr)});
        json.member("sdr1", Json_Hex{number(header.sdr1)});
        json.member("comment", Json_Bytes{placed.comment});
    });
}

void put_members(Json_Writer &json, const std::string &name, const File_Summary &summary)
{
    const QTRACE_Info &info = summary.info;
    json.member("file", std::string_view(name));
    json.member("format_version", info.format_version);
    json.member("compression", std::string_view(info.compression == 1 ? "zstd" : "none"));
    json.member("records", info.records);
    json.member("headers", info.headers);
    json.member("full_headers", summary.full_headers);
    json.member("partition_changes", summary.partition_changes());
    json.member("gaps", summary.gaps());
    json.member("size", info.size);
    json.member("blocks", info.blocks);
    json.member("bytes_per_record", Json_Fixed{summary.bytes_per_record(), 3});
    json.member("clean_end", info.clean_end != 0);
    json.member("damaged_places", info.damaged_places);
    json.member("left_out", info.left_out);
    json.member("open_end", info.open_end != 0);
}

void Info_Command::tell(Tool_Run &run, Trace_File &file) const
{
    if (!file.has_record(range_.first))
        return run.fail(file.no_record(range_.first));
    Wanted wanted;
    run.show(
        [&] {
            wanted = [this](const Placed_Header &header, uint64_t full) {
                return header.is_full() && full < limit_;
            };
        },
        [&] { wanted = [](const Placed_Header &, uint64_t) { return true; }; });
    File_Summary summary;
    summary.info = file.info();
    const Reading reading = summarise(run, file, wanted, summary);
    if (!summary.is_complete)
        return;
    if (!summary.info.clean_end || summary.info.damaged_places > 0)
        run.found();
    run.show(
        [&] {
            print_text(run.out, file.name(), summary);
            list(run, file, reading, wanted, summary,
                 [&](const Placed_Header &header) { print_full_header(run.out, header); });
            if (limit_ < summary.full_headers)
                run.out.print("  ... and {} more full headers (--headers N lists N)\n",
                              summary.full_headers - limit_);
        },
        [&] {
            Json_Writer json(run.out);
            json.line([&] {
                put_members(json, file.name(), summary);
                json.array("header_list", [&] {
                    list(run, file, reading, wanted, summary,
                         [&](const Placed_Header &header) { print_json_header(json, header); });
                });
            });
        });
    run.out.settle();
}

void Info_Command::print_text(Output &out, const std::string &name, const File_Summary &summary) const
{
    const QTRACE_Info &info = summary.info;
    out.paint(Colour::head);
    out.put(name);
    out.paint(Colour::plain);
    out.print("\n  format       version {}, blocks compressed with {}\n", info.format_version,
              info.compression == 1 ? "zstd" : "nothing");
    out.print("  records      {}", info.records);
    if (is_range_)
        out.print(", from number {} on", range_.first);
    out.print("\n  headers      {}: {} full, {} for partition changes\n", summary.headers, summary.full_headers,
              summary.partition_changes());
    out.print("  gaps         {}{}\n", summary.gaps(),
              summary.gaps() == 0 ? "" : " (tracing was paused and resumed that often)");
    out.print("  size         {} ({}) in {}, {:.2f} bytes a record\n", info.size, bytes_in_words(info.size),
              counted(info.blocks, "block"), summary.bytes_per_record());
    print_ending(out, info);
}

} // namespace

std::unique_ptr<Command> make_info_command()
{
    return std::make_unique<Info_Command>();
}

} // namespace qtrace_tool

// Plays every recorded stream with text and page-table-entry traces on and compares what comes out, for every
// instruction: the records with the stream, the text lines with the records, the entry files with the stream's
// events.
#include "qtrace_reader.h"
#include "recorded_stream.h"
#include "text_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <iomanip>
#include <map>
#include <memory>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

// Lines of each stream that take part; a slow build plays the beginning only.
constexpr size_t LINE_LIMIT = QT_STREAM_LINES;
constexpr int SHOWN_DIFFERENCES = 10;

// Commits of each stream, out of the table in the folder's description.
std::map<std::string, size_t> described_commits()
{
    std::ifstream in(fs::path(QT_STREAMS) / "README.md");
    std::map<std::string, size_t> commits;
    for (std::string line; std::getline(in, line);) {
        char name[64], count[16];
        if (sscanf(line.c_str(), "| `%63[^`]` | %15[0-9,] |", name, count) != 2)
            continue;
        std::string digits = count;
        std::erase(digits, ',');
        commits[name] = std::stoull(digits);
    }
    return commits;
}

std::string contents_of(const fs::path &file)
{
    std::ifstream in(file, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

// Items of a trace file: the headers before a record, and the record.
struct Trace_Entry {
    std::vector<QTRACE_FILE_HDR> headers;
    std::vector<std::string> comments;
    QTRACE_RECORD record{};
    uint64_t address = 0;
    bool address_known = false;
};

class Trace_File
{
public:
    explicit Trace_File(const fs::path &file)
    {
        char *error = nullptr;
        reader_.reset(qtrace_open(file.c_str(), &error));
        EXPECT_NE(reader_, nullptr) << (error ? error : "");
        free(error);
    }

    std::optional<Trace_Entry> next()
    {
        Trace_Entry entry;
        const QTRACE_Item *item = nullptr;
        while (reader_) {
            switch (qtrace_next(reader_.get(), &item)) {
            case QTRACE_ITEM_HEADER:
                entry.headers.push_back(item->header);
                entry.comments.emplace_back(item->header.comment ? item->header.comment : "");
                break;
            case QTRACE_ITEM_RECORD:
                entry.record = item->record;
                entry.address = item->address;
                entry.address_known = item->address_known != 0;
                return entry;
            case QTRACE_ITEM_END:
                return std::nullopt;
            default:
                ADD_FAILURE() << qtrace_error(reader_.get());
                return std::nullopt;
            }
        }
        return std::nullopt;
    }

private:
    struct Close {
        void operator()(QTRACE_Reader *reader) const { qtrace_close(reader); }
    };
    std::unique_ptr<QTRACE_Reader, Close> reader_;
};

// Registers as a record carries them, of one side.
Recorded_Registers input_registers(const QTRACE_REGISTERS &r)
{
    Recorded_Registers found;
    for (unsigned i = 0; i < r.num_gprs_in; ++i)
        found.push_back({'r', r.gpr_in[i].index, {r.gpr_in[i].value}});
    for (unsigned i = 0; i < r.num_fprs_in; ++i)
        found.push_back({'f', r.fpr_in[i].index, {r.fpr_in[i].value}});
    for (unsigned i = 0; i < r.num_sprs_in; ++i)
        found.push_back({'s', r.spr_in[i].index, {r.spr_in[i].value}});
    for (unsigned i = 0; i < r.num_vmxrs_in; ++i)
        found.push_back({'v', r.vmxr_in[i].index, {r.vmxr_in[i].value[0], r.vmxr_in[i].value[1]}});
    for (unsigned i = 0; i < r.num_vsxrs_in; ++i)
        found.push_back({'x', r.vsxr_in[i].index, {r.vsxr_in[i].value[0], r.vsxr_in[i].value[1]}});
    return found;
}

Recorded_Registers output_registers(const QTRACE_REGISTERS &r)
{
    Recorded_Registers found;
    for (unsigned i = 0; i < r.num_gprs_out; ++i)
        found.push_back({'r', r.gpr_out[i].index, {r.gpr_out[i].value}});
    for (unsigned i = 0; i < r.num_fprs_out; ++i)
        found.push_back({'f', r.fpr_out[i].index, {r.fpr_out[i].value}});
    for (unsigned i = 0; i < r.num_sprs_out; ++i)
        found.push_back({'s', r.spr_out[i].index, {r.spr_out[i].value}});
    for (unsigned i = 0; i < r.num_vmxrs_out; ++i)
        found.push_back({'v', r.vmxr_out[i].index, {r.vmxr_out[i].value[0], r.vmxr_out[i].value[1]}});
    for (unsigned i = 0; i < r.num_vsxrs_out; ++i)
        found.push_back({'x', r.vsxr_out[i].index, {r.vsxr_out[i].value[0], r.vsxr_out[i].value[1]}});
    return found;
}

// The text has one letter for both kinds of 128-bit registers.
Recorded_Registers as_text_shows(Recorded_Registers registers)
{
    for (Recorded_Register &r : registers)
        r.kind = r.kind == 'x' ? 'v' : r.kind;
    return registers;
}

std::string text_of(const Recorded_Registers &registers)
{
    std::string text;
    for (const Recorded_Register &r : registers)
        text += fmt::format("{}{}={:x}:{:x} ", r.kind, r.number, r.word[0], r.word[1]);
    return text;
}

// What the trace is to say about the successor of an instruction.
struct Expected_Flow {
    bool i = false, n = false, t = false;
    bool filled = false; // the next address and its translation are the successor's, not the host's guess
    uint64_t next = 0;
};

Expected_Flow expected_flow(const Recorded_Commit &now, const Recorded_Commit *successor)
{
    const bool taken = now.branch && now.taken;
    Expected_Flow flow;
    flow.filled = successor && (successor->pc != now.pc + 4 || taken);
    flow.next = flow.filled ? successor->pc : now.npc;
    if (!successor)
        return flow; // nothing follows: no termination either
    const bool sequential = flow.next == now.pc + 4;
    flow.n = flow.t = !sequential || now.branch;
    flow.i = flow.n && (!sequential || taken);
    return flow;
}

// Compares one hardware thread's files. Differences are counted and the first few shown.
class Thread_Comparison
{
public:
    Thread_Comparison(const fs::path &folder, size_t tid, const Recorded_Thread &stream)
        : tid_(tid), stream_(stream), trace_(folder / fmt::format("trace{}", tid)),
          text_(folder / fmt::format("text{}", tid))
    {
    }

    void run()
    {
        size_t position = 0;
        for (; position < stream_.commits.size(); ++position) {
            at_ = position;
            const auto record = trace_.next();
            const auto text = text_.next();
            ASSERT_TRUE(record) << "records end at " << position;
            ASSERT_TRUE(text) << "text ends at line of instruction " << position;
            const Recorded_Commit *successor =
                position + 1 < stream_.commits.size() ? &stream_.commits[position + 1] : nullptr;
            const Expected_Flow flow = expected_flow(stream_.commits[position], successor);
            record_with_stream(*record, stream_.commits[position], successor, flow);
            text_with_record(*text, *record, stream_.commits[position]);
            text_with_stream(text->line, stream_.commits[position], flow);
            next_of_last_ = flow.filled && flow.i ? std::optional(facts_of_next(record->record)) : std::nullopt;
        }
        EXPECT_FALSE(trace_.next()) << "records after the last instruction";
        EXPECT_FALSE(text_.next()) << "text after the last instruction";
        EXPECT_EQ(differences_, 0) << "differences in thread " << tid_;
    }

    size_t translations_compared() const { return translations_compared_; }

private:
    const size_t tid_;
    const Recorded_Thread &stream_;
    Trace_File trace_;
    Text_Trace text_;
    size_t at_ = 0;
    int differences_ = 0;
    size_t translations_compared_ = 0;
    std::optional<Address_Facts> next_of_last_; // what the previous record says about this instruction's address

    void same(const char *what, const std::string &expected, const std::string &found)
    {
        if (expected == found)
            return;
        if (++differences_ <= SHOWN_DIFFERENCES)
            ADD_FAILURE() << "thread " << tid_ << ", instruction " << at_ << ", seq " << stream_.commits[at_].seq
                          << ": " << what << "\nexpected " << expected << "\nfound    " << found;
    }
    void same(const char *what, uint64_t expected, uint64_t found)
    {
        if (expected != found)
            same(what, fmt::format("{:#x}", expected), fmt::format("{:#x}", found));
    }
    void same(const char *what, const Address_Facts &expected, const Address_Facts &found)
    {
        if (!(expected == found))
            same(what, expected.text() + '.', found.text());
    }
    void same(const char *what, const Recorded_Registers &expected, const Recorded_Registers &found)
    {
        if (!(expected == found))
            same(what, text_of(expected) + '.', text_of(found));
    }

    void record_with_stream(const Trace_Entry &entry, const Recorded_Commit &commit,
                            const Recorded_Commit *successor, const Expected_Flow &flow)
    {
        const QTRACE_RECORD &record = entry.record;
        const auto &flags = record.header.control.fld;
        same("record: instruction word", commit.op, record.header.instruction);
        same("record: address known", 1, entry.address_known);
        same("record: address", commit.pc, entry.address);
        same("record: starts a new address stream", flow.i, flags.iar_change_present);
        same("record: node number present", flow.n, flags.node_present);
        same("record: node number", 0, record.node);
        same("record: termination present", flow.t, flags.termination_present);
        same("record: termination", flow.t ? (commit.unconditional ? 8 : 64) : 0, record.termination_code);
        same("record: next address present", flow.i, flags.next_instruction_EA_present);
        same("record: next address", flow.i ? flow.next : 0, value_of_bytes(record.next_instruction_ea));
        if (flow.i && flow.filled)
            same("record: next translation",
                 expected_facts(successor->fetch, successor->fetch.mode, successor->kernel), facts_of_next(record));
        data_of_record(record, commit);
        same("record: input registers", commit.in, input_registers(record.regs));
        same("record: output registers", commit.out, output_registers(record.regs));
        same("record: registers present", !commit.in.empty() || !commit.out.empty(), flags.register_trace_present);
        const bool length = commit.string && commit.string_length != 0xFFFF;
        same("record: string length present", length, flags.length_present);
        same("record: string length", length ? commit.string_length : 0, record.length);
    }

    void data_of_record(const QTRACE_RECORD &record, const Recorded_Commit &commit)
    {
        const auto &flags = record.header.control.fld;
        const bool present = commit.access && commit.ea;
        same("record: data address present", present, flags.data_address_present);
        same("record: data address", present ? *commit.ea : 0, value_of_bytes(record.data_ea));
        same("record: data translation",
             present ? expected_facts(commit.data, commit.fetch.mode, commit.kernel) : Address_Facts(),
             facts_of_data(record));
        const bool suspect = present && commit.data.status != 0;
        same("record: error code", suspect ? 8 : 0, flags.trace_error_code_present ? record.error_code : 0u);
    }

    void text_with_record(const Text_Entry &text, const Trace_Entry &entry, const Recorded_Commit &commit)
    {
        const QTRACE_RECORD &record = entry.record;
        const auto &flags = record.header.control.fld;
        const Text_Line &line = text.line;
        headers_agree(text, entry);
        same("text: thread", tid_, static_cast<uint64_t>(line.tid));
        same("text: instruction word", record.header.instruction, line.word);
        same("text: address", entry.address, line.address);
        same("text: I", flags.iar_change_present, line.i);
        same("text: N", flags.node_present, line.n);
        same("text: T", flags.termination_present, line.t);
        same("text: node number present", flags.node_present | flags.termination_present, line.node.has_value());
        same("text: node number", flags.node_present ? record.node : record.termination_node,
             line.node.value_or(0));
        if (flags.next_instruction_EA_present)
            same("text: next address", value_of_bytes(record.next_instruction_ea), line.next_address);
        same("text: data address present", flags.data_address_present, line.data_address.has_value());
        same("text: data address", value_of_bytes(record.data_ea), line.data_address.value_or(0));
        if (line.data_address && !commit.exception)
            translations_agree("text: data translation", facts_of_data(record), *line.data_translation,
                               line.data_mode);
        if (commit.exception && line.data_translation)
            same("text: data translation of an exception", Address_Facts(), *line.data_translation);
        if (line.instruction_translation && next_of_last_)
            translations_agree("text: translation of the address, and the previous record's next", *next_of_last_,
                               *line.instruction_translation, line.instruction_mode);
        same("text: input registers", as_text_shows(input_registers(record.regs)), line.in);
        same("text: output registers", as_text_shows(output_registers(record.regs)), line.out);
        same("text: length present", flags.length_present, line.length.has_value());
        same("text: length", record.length, line.length.value_or(0));
    }

    // A record has no guest page size of a guest real address.
    void translations_agree(const char *what, const Address_Facts &record, Address_Facts line,
                            const std::string &mode)
    {
        if (mode == "Z7_GuestRealOnHostRadix")
            line.drop(Fact::guest_page_size);
        same(what, record, line);
        translations_compared_ += record.all().empty() ? 0 : 1;
    }

    void headers_agree(const Text_Entry &text, const Trace_Entry &entry)
    {
        size_t files = 0, partitions = 0;
        for (size_t i = 0; i < entry.headers.size(); ++i) {
            const QTRACE_FILE_HDR &header = entry.headers[i];
            if (header.control.iar_is_present) {
                ++files;
                same("text: comment", entry.comments[i], text.comment.value_or("none"));
                same("header: address", stream_.commits[at_].pc, value_of_bytes(header.iar));
                const Recorded_Commit &commit = stream_.commits[at_];
                same("header: translation", expected_facts(commit.fetch, commit.fetch.mode, commit.kernel),
                     facts_of_header(header));
            } else {
                ++partitions;
                same("text: partition change",
                     fmt::format("Partition Change: pid:{},lpid:{})", value_of_bytes(header.pid),
                                 value_of_bytes(header.lpid)),
                     text.partition_change.value_or("none"));
            }
        }
        same("text: header lines", files, text.comment.has_value());
        same("text: partition changes", partitions, text.partition_change.has_value());
    }

    void text_with_stream(const Text_Line &line, const Recorded_Commit &commit, const Expected_Flow &flow)
    {
        same("text: seq", commit.seq, line.seq);
        same("text: name", commit.text.substr(0, 63), line.name);
        same("text: next address", flow.next, line.next_address);
        same("text: branch", !commit.branch ? "" : commit.taken ? "taken" : "untaken", line.branch);
        if (flow.i) {
            Address_Facts found = line.instruction_translation.value_or(Address_Facts());
            if (line.instruction_mode == "Z7_GuestRealOnHostRadix")
                found.drop(Fact::guest_page_size);
            same("text: translation of the address", expected_facts(commit.fetch, commit.fetch.mode, commit.kernel),
                 found);
        }
    }
};

// One stream, played into the plugin by the replay program; the files are gone afterwards.
class Played_Stream
{
public:
    explicit Played_Stream(const std::string &name)
        : folder_(fs::temp_directory_path() / fmt::format("qt_stream_{}_{}", getpid(), name))
    {
        fs::create_directories(folder_);
        const std::string text = stream_text(fs::path(QT_STREAMS) / name, LINE_LIMIT);
        stream_ = parse_stream(text);
        fs::path input = fs::path(QT_STREAMS) / name;
        if (LINE_LIMIT != SIZE_MAX) {
            input = folder_ / "stream.jsonl";
            std::ofstream(input, std::ios::binary) << text;
        }
        play(input);
    }
    ~Played_Stream() { fs::remove_all(folder_); }

    const fs::path &folder() const { return folder_; }
    const Recorded_Stream &stream() const { return stream_; }
    size_t commits() const
    {
        size_t count = 0;
        for (const Recorded_Thread &thread : stream_.threads)
            count += thread.commits.size();
        return count;
    }

private:
    const fs::path folder_;
    Recorded_Stream stream_;

    void play(const fs::path &input)
    {
        std::ofstream script(folder_ / "script");
        const std::string signal = "plugin signal " + fs::path(QT_PLUGIN).filename().string();
        script << "plugin load " << std::quoted(QT_PLUGIN) << "\n"
               << signal << " start " << std::quoted((folder_ / "trace").string()) << " txt "
               << std::quoted((folder_ / "text").string()) << " pte " << std::quoted((folder_ / "pte").string())
               << "\n"
               << "run\n"
               << signal << " stop\nplugin unload\nquit\n";
        script.close();
        const std::string command = fmt::format("'{}' '{}' '{}' > '{}' 2>&1", QT_REPLAY, input.string(),
                                                (folder_ / "script").string(), (folder_ / "console").string());
        const int status = std::system(command.c_str());
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << contents_of(folder_ / "console");
    }
};

class every_stream : public ::testing::TestWithParam<std::string>
{
};

TEST_P(every_stream, records_text_and_entry_files_tell_what_the_stream_tells)
{
    const Played_Stream played(GetParam());
    if (LINE_LIMIT == SIZE_MAX) {
        EXPECT_EQ(played.commits(), described_commits()[GetParam()]);
    }
    size_t translations = 0;
    for (size_t tid = 0; tid < played.stream().threads.size(); ++tid) {
        const Recorded_Thread &thread = played.stream().threads[tid];
        EXPECT_GT(thread.commits.size(), 0u);
        Thread_Comparison comparison(played.folder(), tid, thread);
        comparison.run();
        translations += comparison.translations_compared();
        EXPECT_TRUE(contents_of(played.folder() / fmt::format("pte{}", tid)) == thread.entry_accesses)
            << "thread " << tid;
    }
    EXPECT_GT(translations, played.commits() / 20); // real mode has none
}

std::vector<std::string> stream_names()
{
    std::vector<std::string> names;
    for (const auto &[name, commits] : described_commits())
        names.push_back(name);
    return names;
}

TEST(stream_folder, has_every_described_stream_and_no_other)
{
    std::vector<std::string> found;
    for (const auto &entry : fs::directory_iterator(QT_STREAMS))
        if (entry.path().filename() != "README.md")
            found.push_back(entry.path().filename());
    EXPECT_THAT(found, ::testing::UnorderedElementsAreArray(stream_names()));
}

INSTANTIATE_TEST_SUITE_P(stream, every_stream, ::testing::ValuesIn(stream_names()), [](const auto &name) {
    std::string word = name.param.substr(0, name.param.find('.'));
    std::replace(word.begin(), word.end(), '-', '_');
    return word;
});

} // namespace

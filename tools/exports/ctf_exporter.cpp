// Common Trace Format 1.8: a stream of packets for each file, and metadata that describe them.
#include "exporter.h"

#include "address_view.h"
#include "instruction_kinds.h"
#include "printable_text.h"

#include <array>
#include <random>

namespace qtrace_tool
{
namespace
{

using namespace trace;

using Uuid = std::array<uint8_t, 16>;

// Any other number than that of every other trace: readers take traces of the same one together.
Uuid random_uuid()
{
    std::random_device source;
    Uuid uuid;
    for (uint8_t &byte : uuid)
        byte = static_cast<uint8_t>(source());
    uuid[6] = (uuid[6] & 0x0F) | 0x40;
    uuid[8] = (uuid[8] & 0x3F) | 0x80;
    return uuid;
}

std::string uuid_text(const Uuid &uuid)
{
    std::string text;
    for (size_t i = 0; i < uuid.size(); i++)
        text += fmt::format("{}{:02x}", i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "", uuid[i]);
    return text;
}

// Numbers and texts one after another, as the fields of an event are.
class Fields
{
public:
    template <class Number> void number(Number value)
    {
        bytes_.append(reinterpret_cast<const char *>(&value), sizeof value);
    }
    // A flag, and the value when there is one.
    template <class Number> void optional(bool present, Number value)
    {
        number(uint8_t{present});
        if (present)
            number(value);
    }
    void text(std::string_view text)
    {
        bytes_.append(text);
        bytes_.push_back('\0');
    }
    // Text of others: what is not UTF-8 or is a control character becomes visible.
    void visible_text(std::string_view text_of_others)
    {
        Output visible(-1);
        print_visible(visible, text_of_others);
        text(visible.take());
    }
    void append(std::string_view other) { bytes_ += other; }
    const std::string &bytes() const { return bytes_; }
    void clear() { bytes_.clear(); }

private:
    std::string bytes_;
};

// The packets of a thread. A packet is written as soon as it is large enough.
class Ctf_Stream
{
public:
    Ctf_Stream(std::unique_ptr<Folder_File> file, const Uuid &uuid, uint32_t number)
        : file_(std::move(file)), uuid_(uuid), number_(number)
    {
    }
    // The fields after the event's header.
    void event(uint8_t id, uint64_t record, std::string_view fields);
    // Records from this number on are missing. They have a packet of their own, so that readers name exactly them.
    void lost(uint64_t first, uint64_t count);
    void close();

private:
    static constexpr size_t PACKET_SIZE = 256 * 1024; // about
    void write_packet(uint64_t first, uint64_t last);
    void write_events();

    std::unique_ptr<Folder_File> file_;
    Uuid uuid_;
    uint32_t number_;
    Fields events_;
    uint64_t first_ = 0, last_ = 0; // record numbers of the events
    uint64_t packets_ = 0, lost_ = 0;
};

enum Event_Id : uint8_t { RECORD_EVENT, HEADER_EVENT };

void Ctf_Stream::event(uint8_t id, uint64_t record, std::string_view fields)
{
    if (events_.bytes().empty())
        first_ = record;
    last_ = record;
    events_.number(id);
    events_.number(record);
    events_.append(fields);
    if (events_.bytes().size() >= PACKET_SIZE)
        write_events();
}

void Ctf_Stream::write_events()
{
    if (!events_.bytes().empty())
        write_packet(first_, last_);
}

void Ctf_Stream::write_packet(uint64_t first, uint64_t last)
{
    constexpr uint32_t MAGIC = 0xC1FC1FC1;
    constexpr uint64_t HEAD_SIZE = 84;
    const uint64_t bits = 8 * (HEAD_SIZE + events_.bytes().size());
    Fields head;
    head.number(MAGIC);
    for (const uint8_t byte : uuid_)
        head.number(byte);
    head.number(uint32_t{0}); // the kind of stream
    head.number(uint64_t{number_});
    head.number(first);
    head.number(last);
    head.number(bits);
    head.number(bits);
    head.number(packets_++);
    head.number(lost_);
    head.number(number_);
    file_->out().put(head.bytes());
    file_->out().put(events_.bytes());
    file_->out().settle();
    file_->check();
    events_.clear();
}

// Readers tell how many events were discarded since the packet before, so that there has to be one.
void Ctf_Stream::lost(uint64_t first, uint64_t count)
{
    write_events();
    if (packets_ == 0)
        write_packet(first, first);
    lost_ += count;
    last_ = first + count - 1;
    write_packet(first, last_);
}

void Ctf_Stream::close()
{
    write_events();
    if (packets_ == 0)
        write_packet(0, 0);
    file_->close();
}

// ---- Metadata ------------------------------------------------------------------------------------------

constexpr const char *TYPES = R"(
typealias integer { size = 8; align = 8; signed = false; } := uint8_t;
typealias integer { size = 16; align = 8; signed = false; } := uint16_t;
typealias integer { size = 32; align = 8; signed = false; } := uint32_t;
typealias integer { size = 64; align = 8; signed = false; } := uint64_t;
typealias integer { size = 32; align = 8; signed = false; base = 16; } := hex32_t;
typealias integer { size = 64; align = 8; signed = false; base = 16; } := hex64_t;
)";

constexpr const char *STREAM = R"(
typealias integer { size = 64; align = 8; signed = false; map = clock.record.value; } := record_number_t;

struct place {
    hex64_t address;
    string modes;
    uint8_t real_count;
    hex64_t real[real_count];
};

struct register {
    string name;
    uint8_t words;
    hex64_t value[words];
};

stream {
    id = 0;
    packet.context := struct {
        record_number_t timestamp_begin;
        record_number_t timestamp_end;
        uint64_t content_size;
        uint64_t packet_size;
        uint64_t packet_seq_num;
        uint64_t events_discarded;
        uint32_t cpu_id;
    };
    event.header := struct {
        uint8_t id;
        record_number_t timestamp;
    };
    event.context := struct {
        uint8_t partition_known;
        hex64_t lpid;
        uint32_t pid;
    };
};
)";

constexpr const char *EVENT_RECORD = R"(
event {
    name = "record";
    id = 0;
    stream_id = 0;
    fields := struct {
        uint8_t address_known;
        hex64_t address;
        hex32_t instruction;
        string kinds;
        hex64_t flags;
        uint8_t next_count;
        struct place next[next_count];
        uint8_t data_count;
        struct place data[data_count];
        uint8_t length_count;
        uint32_t length[length_count];
        uint8_t error_count;
        uint32_t error[error_count];
        uint16_t input_count;
        struct register inputs[input_count];
        uint16_t output_count;
        struct register outputs[output_count];
)";

constexpr const char *SYMBOLS = R"(        string symbol;
        string next_symbol;
        string data_symbol;
)";

constexpr const char *EVENT_HEADER = R"(    };
};

event {
    name = "header";
    id = 1;
    stream_id = 0;
    fields := struct {
        uint8_t address_count;
        struct place address[address_count];
        string comment;
    };
};
)";

// As a string of the metadata.
std::string quoted(std::string_view text)
{
    Output visible(-1);
    print_visible(visible, text);
    std::string result = "\"";
    for (const char c : visible.take()) {
        if (c == '"' || c == '\\')
            result += '\\';
        result += c;
    }
    return result + '"';
}

// ---- Events --------------------------------------------------------------------------------------------

// Events of a group of blocks, and where records are missing between them.
class Ctf_Part : public Export_Part
{
public:
    explicit Ctf_Part(const Symbol_Names &names) : names_(names) {}
    void header(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) override;
    void record(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) override;
    void lost(uint64_t first, uint64_t count) override { entries_.push_back({LOST, first, count}); }
    size_t size() const override { return fields_.bytes().size() + entries_.size() * sizeof(Entry); }
    void write(Ctf_Stream &stream) const;

private:
    static constexpr uint8_t LOST = 0xFF; // instead of an event
    struct Entry {
        uint8_t id;
        uint64_t record;
        uint64_t size; // of its fields; of lost ones how many records
    };
    void put_context(const QTRACE_FILE_HDR *context);
    void put_kinds(uint32_t kinds);
    void put_place(const Translated_Address &address);
    void put_registers(const QTRACE_REGISTERS &registers, bool output);
    void put_symbols(const QTRACE_Item &item, const QTRACE_FILE_HDR *context);
    void end_event(uint8_t id, uint64_t record);

    Name_Finder names_;
    Fields fields_;    // of all events
    size_t begin_ = 0; // of the event that is put together
    std::vector<Entry> entries_;
};

void Ctf_Part::end_event(uint8_t id, uint64_t record)
{
    entries_.push_back({id, record, fields_.bytes().size() - begin_});
    begin_ = fields_.bytes().size();
}

void Ctf_Part::write(Ctf_Stream &stream) const
{
    std::string_view left = fields_.bytes();
    for (const Entry &entry : entries_) {
        if (entry.id == LOST) {
            stream.lost(entry.record, entry.size);
            continue;
        }
        stream.event(entry.id, entry.record, left.substr(0, entry.size));
        left.remove_prefix(entry.size);
    }
}

void Ctf_Part::put_context(const QTRACE_FILE_HDR *context)
{
    fields_.number(uint8_t{context != nullptr});
    fields_.number(context != nullptr ? number(context->lpid) : uint64_t{0});
    fields_.number(context != nullptr ? number(context->pid) : uint32_t{0});
}

void Ctf_Part::put_kinds(uint32_t kinds)
{
    std::string text;
    for (const Kind_Name &row : KINDS)
        if ((kinds & row.kind) != 0) {
            text += text.empty() ? "" : " ";
            text += row.name;
        }
    fields_.text(text);
}

void Ctf_Part::put_place(const Translated_Address &address)
{
    fields_.number(uint8_t{address.present});
    if (!address.present)
        return;
    fields_.number(address.address);
    fields_.text(pair_name(address.modes));
    const std::optional<uint64_t> real = address.real();
    fields_.optional(real.has_value(), real.value_or(0));
}

void Ctf_Part::put_registers(const QTRACE_REGISTERS &registers, bool output)
{
    uint16_t count = 0;
    for (const Register_Class &kind : REGISTER_CLASSES)
        if (kind.output == output)
            count = static_cast<uint16_t>(count + kind.entries(registers));
    fields_.number(count);
    for (const Register_Class &kind : REGISTER_CLASSES)
        for (unsigned i = 0; kind.output == output && i < kind.entries(registers); i++) {
            const Register_Entry entry = register_entry(kind, registers, i);
            fields_.text(fmt::format("{}{}", kind.letter, entry.index));
            fields_.number(static_cast<uint8_t>(kind.words));
            for (unsigned word = 0; word < kind.words; word++)
                fields_.number(entry.value[word]);
        }
}

void Ctf_Part::put_symbols(const QTRACE_Item &item, const QTRACE_FILE_HDR *context)
{
    if (!names_.any())
        return;
    names_.enter(context);
    const Translated_Address next = next_address_of(item.record), data = data_address_of(item.record);
    fields_.visible_text(item.address_known ? names_.text(item.address) : "");
    fields_.visible_text(next.present ? names_.text(next.address) : "");
    fields_.visible_text(data.present ? names_.text(data.address) : "");
}

void Ctf_Part::record(const QTRACE_Item &item, const QTRACE_FILE_HDR *context)
{
    const QTRACE_RECORD &record = item.record;
    const auto &flags = record.header.control.fld;
    put_context(context);
    fields_.number(uint8_t{item.address_known != 0});
    fields_.number(item.address_known ? item.address : uint64_t{0});
    fields_.number(uint32_t{record.header.instruction});
    put_kinds(kinds_of(record, item.address));
    fields_.number(uint64_t{flags_of(record).control});
    put_place(next_address_of(record));
    put_place(data_address_of(record));
    fields_.optional(flags.length_present, uint32_t{record.length});
    fields_.optional(flags.trace_error_code_present, uint32_t{record.error_code});
    put_registers(record.regs, false);
    put_registers(record.regs, true);
    put_symbols(item, context);
    end_event(RECORD_EVENT, item.record_number);
}

void Ctf_Part::header(const QTRACE_Item &item, const QTRACE_FILE_HDR *context)
{
    put_context(context);
    put_place(item.header.control.iar_is_present ? first_address_of(item.header) : Translated_Address{});
    const bool comment = item.header.comment != nullptr;
    fields_.visible_text(comment ? std::string_view(item.header.comment, item.header.comment_length) : "");
    end_event(HEADER_EVENT, item.record_number);
}

// ---- The exporter --------------------------------------------------------------------------------------

class Ctf_Exporter : public Exporter
{
public:
    Ctf_Exporter(Output_Folder &folder, const Export_Options &options)
        : folder_(folder), options_(options), names_(*options.names)
    {
    }
    void begin_file(const std::string &name) override;
    std::unique_ptr<Export_Part> make_part() const override { return std::make_unique<Ctf_Part>(names_); }
    void add(Export_Part &part) override { static_cast<Ctf_Part &>(part).write(*stream_); }
    void finish() override;

private:
    void put_metadata(Output &out) const;

    Output_Folder &folder_;
    const Export_Options &options_;
    const Symbol_Names &names_;
    Uuid uuid_ = random_uuid();
    std::unique_ptr<Ctf_Stream> stream_;
    uint32_t streams_ = 0;
};

void Ctf_Exporter::begin_file(const std::string &)
{
    if (stream_)
        stream_->close();
    stream_ = std::make_unique<Ctf_Stream>(folder_.stream(streams_), uuid_, streams_);
    streams_++;
}

void Ctf_Exporter::put_metadata(Output &out) const
{
    out.put("/* CTF 1.8 */\n");
    out.put(TYPES);
    out.print("\ntrace {{\n    major = 1;\n    minor = 8;\n    byte_order = le;\n    uuid = \"{}\";\n"
              "    packet.header := struct {{\n        uint32_t magic;\n        uint8_t uuid[16];\n"
              "        uint32_t stream_id;\n        uint64_t stream_instance_id;\n    }};\n}};\n",
              uuid_text(uuid_));
    out.put("\nenv {\n    tracer_name = \"qtrace\";\n    timestamp = \"the number of the record in its file, not a "
            "time\";\n");
    for (size_t i = 0; i < options_.files.size(); i++)
        out.print("    stream{} = {};\n", i, quoted(options_.files[i]));
    out.put(
        "};\n\nclock {\n    name = record;\n    description = \"the number of the record in its file, shown as "
        "nanoseconds\";\n    freq = 1000000000;\n    offset_s = 0;\n    offset = 0;\n    absolute = FALSE;\n};\n");
    out.put(STREAM);
    out.put(EVENT_RECORD);
    out.put(Name_Finder(names_).any() ? SYMBOLS : "");
    out.put(EVENT_HEADER);
}

void Ctf_Exporter::finish()
{
    stream_->close();
    const std::unique_ptr<Folder_File> metadata = folder_.metadata();
    put_metadata(metadata->out());
    metadata->close();
}

} // namespace

std::unique_ptr<Exporter> make_ctf_exporter(Output_Folder &folder, const Export_Options &options)
{
    return std::make_unique<Ctf_Exporter>(folder, options);
}

} // namespace qtrace_tool

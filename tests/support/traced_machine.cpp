#include "traced_machine.h"

#include <atomic>
#include <cstring>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace
{

std::filesystem::path fresh_folder()
{
    static std::atomic<int> count{0};
    auto folder = std::filesystem::temp_directory_path() /
                  ("qt_test_" + std::to_string(getpid()) + "_" + std::to_string(count++));
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    return folder;
}

} // namespace

Traced_Machine::Traced_Machine(uint32_t processors, uint32_t threads, bool load)
    : Traced_Machine(
          replay::Machine_Shape{
              .processors = processors, .threads = threads, .version = 3, .memory = 0x10000000, .options = {}},
          load)
{
}

Traced_Machine::Traced_Machine(const replay::Machine_Shape &shape, bool load) : folder_(fresh_folder())
{
    recording_writer().reset();
    replay::host().reset(shape);
    keep_output();
    next_.resize(static_cast<size_t>(replay::host().thread_count()));
    if (load)
        plugin_init(0, nullptr, replay::host().client_data());
}

Traced_Machine::~Traced_Machine()
{
    plugin_quit();
    replay::host().set_console({});
    replay::host().set_session_listener({});
    replay::host().set_query_observer({});
    std::filesystem::remove_all(folder_);
}

void Traced_Machine::keep_output()
{
    replay::host().set_console([this](const replay::Console_Message &message) { messages_.push_back(message); });
    replay::host().set_session_listener([this](std::string_view what) { session_calls_.emplace_back(what); });
    replay::host().set_query_observer([this](std::string_view name) { queries_.emplace_back(name); });
}

void Traced_Machine::signal(const std::vector<std::string> &words)
{
    std::vector<std::string> all{"plugin_qtbin.so"};
    all.insert(all.end(), words.begin(), words.end());
    std::vector<char *> argv;
    for (std::string &word : all)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    plugin_signal(static_cast<int>(all.size()), argv.data());
}

void Traced_Machine::start()
{
    signal({"start", path("trace")});
}

void Traced_Machine::start_with_text()
{
    signal({"start", path("trace"), "txt", path("text")});
}

void Traced_Machine::start_with_everything()
{
    signal({"start", path("trace"), "txt", path("text"), "pte", path("pte")});
}

void Traced_Machine::commit(replay::Instruction instruction)
{
    if (instruction.npc == 0)
        instruction.npc = instruction.pc + 4;
    next_.at(static_cast<size_t>(instruction.tid)) = {instruction.seq + 1, instruction.npc};
    replay::host().set_raw_time(replay::host().raw_time() + 1);
    Event_Instruction_Commit(replay::handle_of(instruction));
}

void Traced_Machine::commit_run(size_t count, int tid)
{
    for (size_t i = 0; i < count; ++i) {
        replay::Instruction instruction;
        const Position at = next_.at(static_cast<size_t>(tid));
        instruction.tid = tid;
        instruction.seq = at.seq;
        instruction.pc = at.pc;
        instruction.op = static_cast<uint32_t>(0x60000000 + at.seq);
        commit(std::move(instruction));
    }
}

namespace
{

// Visits every item of every file that was opened for the thread, in order.
template <class Visitor> void visit_items(int tid, Visitor visitor)
{
    const std::string suffix = "trace" + std::to_string(tid);
    for (const Writer_Call &call : recording_writer().calls())
        if (call.kind == Writer_Call::Kind::open && call.name.ends_with(suffix) && call.file >= 0)
            for (const auto &item : recording_writer().file(call.file).items)
                visitor(item);
}

} // namespace

std::vector<QTRACE_RECORD> Traced_Machine::records(int tid) const
{
    std::vector<QTRACE_RECORD> found;
    visit_items(tid, [&](const auto &item) {
        if (const auto *record = std::get_if<QTRACE_RECORD>(&item))
            found.push_back(*record);
    });
    return found;
}

std::vector<Written_Header> Traced_Machine::headers(int tid) const
{
    std::vector<Written_Header> found;
    visit_items(tid, [&](const auto &item) {
        if (const auto *header = std::get_if<Written_Header>(&item))
            found.push_back(*header);
    });
    return found;
}

std::string Traced_Machine::order(int tid) const
{
    std::string letters;
    visit_items(tid, [&](const auto &item) { letters += std::holds_alternative<QTRACE_RECORD>(item) ? 'R' : 'H'; });
    return letters;
}

std::vector<uint32_t> Traced_Machine::instruction_words(int tid) const
{
    std::vector<uint32_t> words;
    for (const QTRACE_RECORD &record : records(tid))
        words.push_back(record.header.instruction);
    return words;
}

std::string Traced_Machine::printed() const
{
    std::string text;
    for (const auto &message : messages_)
        if (message.channel == replay::Channel::print)
            text += message.text;
    return text;
}

std::vector<std::string> Traced_Machine::warnings() const
{
    std::vector<std::string> texts;
    for (const auto &message : messages_)
        if (message.channel == replay::Channel::warning)
            texts.push_back(message.text);
    return texts;
}

std::vector<std::string> Traced_Machine::errors() const
{
    std::vector<std::string> texts;
    for (const auto &message : messages_)
        if (message.channel == replay::Channel::error)
            texts.push_back(message.text);
    return texts;
}

std::vector<int> Traced_Machine::warning_levels() const
{
    std::vector<int> levels;
    for (const auto &message : messages_)
        if (message.channel == replay::Channel::warning)
            levels.push_back(message.level);
    return levels;
}

void Traced_Machine::forget_output()
{
    messages_.clear();
    session_calls_.clear();
}

std::string Traced_Machine::file(const std::string &name) const
{
    std::ifstream in(folder_ / name, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

std::vector<std::string> Traced_Machine::text_lines(int tid) const
{
    std::istringstream in(file("text" + std::to_string(tid)));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

uint64_t value_of(const uint8_t (&bytes)[8])
{
    uint64_t value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

uint32_t value_of(const uint8_t (&bytes)[4])
{
    uint32_t value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

// A machine with the plugin in it, for unit tests: the plugin is linked into the test, the writer keeps what it
// is given, and everything the plugin says is kept too.
#pragma once

#include <ostream> // before the plugin's global `flush`, which std::endl would find instead of std::flush

#include "host.h"
#include "plugin_qtbin.h"
#include "recording_writer.h"

#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

class Traced_Machine
{
public:
    // Loads the plugin into a fresh machine (plugin_init). With `load` false it is left to the test.
    explicit Traced_Machine(uint32_t processors = 1, uint32_t threads = 1, bool load = true);
    explicit Traced_Machine(const replay::Machine_Shape &shape, bool load = true);
    ~Traced_Machine(); // plugin_quit; the working folder of the test is removed

    // plugin_signal with these words after the plugin's file name.
    void signal(const std::vector<std::string> &words);
    // A session on "trace" (binary only), or with a text trace "text" and PTE files "pte" in the test's folder.
    void start();
    void start_with_text();
    void start_with_everything();
    void stop() { signal({"stop"}); }

    // One committed instruction; raw time moves by 1 first. An npc of 0 is taken as pc + 4.
    void commit(replay::Instruction instruction);
    // `count` sequential instructions of a thread, continuing its seq and pc from its last commit.
    void commit_run(size_t count, int tid = 0);

    // What the writer was given for a thread, over all its files: records, headers, both in order.
    std::vector<QTRACE_RECORD> records(int tid = 0) const;
    std::vector<Written_Header> headers(int tid = 0) const;
    std::string order(int tid = 0) const; // 'H' for a header, 'R' for a record: "HRRHR"
    // Instruction words of the records, the easiest way to tell records apart.
    std::vector<uint32_t> instruction_words(int tid = 0) const;

    // What the plugin said since the last forget_output(): SIM_PRINT texts joined; warnings; errors; all.
    std::string printed() const;
    std::vector<std::string> warnings() const;
    std::vector<std::string> errors() const;
    std::vector<int> warning_levels() const;
    const std::vector<replay::Console_Message> &messages() const { return messages_; }
    const std::vector<std::string> &session_calls() const { return session_calls_; } // "start", "stop", "warm F"
    void forget_output();

    // Names of the host queries made since the last forget_queries().
    const std::vector<std::string> &queries() const { return queries_; }
    void forget_queries() { queries_.clear(); }

    // Whole contents of a file of the session, by its full name below the test's folder ("text0").
    std::string file(const std::string &name) const;
    std::vector<std::string> text_lines(int tid = 0) const; // of "text<tid>", without line ends
    const std::filesystem::path &folder() const { return folder_; }
    std::string path(const std::string &name) const { return (folder_ / name).string(); }

private:
    void keep_output();

    std::filesystem::path folder_;
    std::vector<replay::Console_Message> messages_;
    std::vector<std::string> session_calls_;
    std::vector<std::string> queries_;
    struct Position {
        uint64_t seq = 0;
        uint64_t pc = 0x1000;
    };
    std::vector<Position> next_;
};

// Values of byte-array members.
uint64_t value_of(const uint8_t (&bytes)[8]);
uint32_t value_of(const uint8_t (&bytes)[4]);

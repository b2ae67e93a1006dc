// Text traces in memory, for tests that hand nodes straight to the text writer: no session is open, the tables that
// the writer looks at are set by hand.
#pragma once

#include <ostream> // before the plugin's global `flush`, which std::endl would find instead of std::flush

#include "plugin_qtbin.h"

#include <memory>
#include <string>
#include <vector>

class Text_Streams
{
public:
    // One stream a hardware thread; every thread's file header counts as written.
    explicit Text_Streams(size_t threads = 1);
    ~Text_Streams(); // the writer's tables are null again
    Text_Streams(const Text_Streams &) = delete;
    Text_Streams &operator=(const Text_Streams &) = delete;

    // The thread's text file could not be created.
    void close(int tid);
    // The thread's file header has not been written yet.
    void expect_header(int tid = 0);

    // What has been written for the thread since the last call. Nothing is flushed by this.
    std::string take(int tid = 0);
    // What the writer writes for this node.
    std::string text_of(Node &node);

private:
    struct Stream {
        char *data = nullptr;
        size_t size = 0;
        size_t taken = 0;
        FILE *file = nullptr;
    };
    std::vector<std::unique_ptr<Stream>> streams_;
    std::vector<FILE *> files_;
    std::vector<boolean> header_written_;
};

// A completed and committed instruction word 0x60000000 at 0x1000, seq 7, user mode, not a branch, no access.
Node plain_node();

// `text` with every '~' replaced by as many zeros as make the hexadecimal digits after it sixteen:
// "0x~A01" is "0x0000000000000A01".
std::string full(const std::string &text);

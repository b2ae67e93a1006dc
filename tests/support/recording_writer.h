// A trace writer library for tests: keeps what it is given, in order, and fails when told to.
#pragma once

#include "qtrace.h"

#include <cstddef>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

// A record or header with all bits zero, also those that have no name.
template <class Written> Written blank()
{
    Written written;
    std::memset(&written, 0, sizeof written);
    return written;
}

// A file header with its comment kept by value; header.comment is null in the copy.
struct Written_Header {
    QTRACE_FILE_HDR header = blank<QTRACE_FILE_HDR>();
    std::string comment;
};

// One call that the writer received, in call order over all files.
struct Writer_Call {
    enum class Kind { open, close, header, record } kind;
    QTRACE_FDESCR file; // of an open: the descriptor it returned, -1 when it failed
    std::string name;   // of an open
    bool failed = false;
};

class Recording_Writer
{
public:
    struct File {
        std::string name;
        bool open = false;
        std::vector<std::variant<Written_Header, QTRACE_RECORD>> items; // successful writes, in order
    };

    // Forgets everything; descriptors are counted from `first_descriptor`.
    void reset(QTRACE_FDESCR first_descriptor = 100);

    // The k-th call (from 1) of that kind from now on fails; 0: none. With `for_ever`, all from the k-th on.
    void fail_open(size_t k, bool for_ever = false);
    void fail_header(size_t k, bool for_ever = false);
    void fail_record(size_t k, bool for_ever = false);

    // From now on every record is overwritten with `byte` after it was kept.
    void scribble(uint8_t byte) { scribble_ = byte; }

    const std::vector<Writer_Call> &calls() const { return calls_; }
    const File &file(QTRACE_FDESCR descriptor) const { return files_.at(descriptor); }
    // The file last opened under that name; null when there was none.
    const File *file_named(const std::string &name) const;
    size_t open_files() const;

    // ---- the four operations ----------------------------------------------------------------------------
    QTRACE_FDESCR open(const char *name, QTRACE_FILE_MODE mode);
    void close(QTRACE_FDESCR descriptor);
    int write_header(QTRACE_FDESCR descriptor, const QTRACE_FILE_HDR &header);
    int write_record(QTRACE_FDESCR descriptor, const QTRACE_RECORD &record);
    // What a library does with a record that it has written.
    void use_up(QTRACE_RECORD &record) const;

private:
    struct Failure {
        size_t countdown = 0; // calls until the failing one; 0: never
        bool for_ever = false;
        bool due();
    };
    std::map<QTRACE_FDESCR, File> files_;
    std::vector<Writer_Call> calls_;
    QTRACE_FDESCR next_ = 100;
    std::optional<uint8_t> scribble_;
    Failure open_failure_, header_failure_, record_failure_;
};

// The process's writer; QTRACE_Fopen and the others go to it.
Recording_Writer &recording_writer();

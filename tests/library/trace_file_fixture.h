// A trace file in a folder of its own, for tests of the library: written by items, read back, damaged byte by byte.
#pragma once

#include "qtrace.h"
#include "qtrace_reader.h"
#include "random_traces.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

struct Item {
    bool is_header;
    std::string image;                  // of the record or header, without pointers
    std::optional<std::string> comment; // of a header
    uint64_t address;
    bool address_known;
    bool operator==(const Item &) const = default;
};

// Without this a failing comparison would print thousands of bytes.
inline void PrintTo(const Item &item, std::ostream *out)
{
    *out << (item.is_header ? "header at " : "record at ") << std::hex << item.address;
}

struct Contents {
    std::vector<Item> items;
    std::vector<QTRACE_Discontinuity> damages;
    std::vector<std::string> texts;             // of the damages
    std::vector<QTRACE_Discontinuity> wanted{}; // discontinuities that are no damage
    bool opened = true;
    std::string open_error;

    void add(const QTRACE_Discontinuity &what, const char *text)
    {
        if (what.cause != QTRACE_CAUSE_DAMAGE && what.cause != QTRACE_CAUSE_CUT_END)
            return wanted.push_back(what);
        damages.push_back(what);
        texts.emplace_back(text);
    }
    uint64_t records() const
    {
        return static_cast<uint64_t>(
            std::count_if(items.begin(), items.end(), [](auto &i) { return !i.is_header; }));
    }
};

template <class Structure> inline std::string image_of(const Structure &structure)
{
    return {reinterpret_cast<const char *>(&structure), sizeof structure};
}

inline Item item_of(const QTRACE_Item &from)
{
    if (from.kind == QTRACE_ITEM_RECORD)
        return {false, image_of(from.record), {}, from.address, from.address_known != 0};
    QTRACE_FILE_HDR header = from.header;
    std::optional<std::string> comment;
    if (header.comment != nullptr)
        comment.emplace(header.comment, header.comment_length);
    header.comment = nullptr;
    return {true, image_of(header), comment, from.address, from.address_known != 0};
}

// Files cannot grow beyond a size while it lives.
class Small_Disk
{
public:
    explicit Small_Disk(rlim_t bytes)
    {
        previous_handler_ = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &previous_);
        const rlimit small{bytes, previous_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
    }
    ~Small_Disk()
    {
        setrlimit(RLIMIT_FSIZE, &previous_);
        std::signal(SIGXFSZ, previous_handler_);
    }

private:
    rlimit previous_{};
    void (*previous_handler_)(int) = nullptr;
};

class trace_file : public testing::Test
{
protected:
    trace_file()
    {
        // Thousands of small files are written; in memory that takes no time.
        const std::filesystem::path memory = "/dev/shm";
        const auto parent = exists(memory) ? memory : std::filesystem::temp_directory_path();
        folder_ = parent / ("qtrace_library_" + std::to_string(getpid()));
        std::filesystem::create_directories(folder_);
        name_ = (folder_ / "trace").string();
        unsetenv("QTRACE_COMPRESSION");
    }
    ~trace_file() override { std::filesystem::remove_all(folder_); }

    QTRACE_FDESCR open() { return QTRACE_Fopen(name_.c_str(), QTRACE_WRITE); }

    // Writes an item and remembers what the reader should give for it.
    void write(QTRACE_FDESCR file, QTRACE_RECORD record)
    {
        written_.push_back({false, image_of(record), {}, address_, known_});
        ASSERT_EQ(QTRACE_FwriteRecord(file, &record), 0) << qtrace_writer_error();
        if (record.header.control.fld.next_instruction_EA_present) {
            std::memcpy(&address_, record.next_instruction_ea, 8);
            known_ = true;
        } else {
            address_ += 4;
        }
    }
    void write(QTRACE_FDESCR file, QTRACE_FILE_HDR header, std::optional<std::string> comment = {})
    {
        if (comment)
            header.comment_length = static_cast<QTRACE_UINT16>(comment->size());
        if (header.control.iar_is_present) {
            std::memcpy(&address_, header.iar, 8);
            known_ = true;
        }
        written_.push_back({true, image_of(header), comment, address_, known_});
        header.comment = comment ? comment->data() : nullptr;
        ASSERT_EQ(QTRACE_FwriteFileHeader(file, &header), 0) << qtrace_writer_error();
    }

    // A header with a comment, then that many plausible records.
    void write_plausible(size_t records, uint64_t seed = 1)
    {
        Random_Trace chance(seed);
        const QTRACE_FDESCR file = open();
        write(file, chance.plausible_header(), "KelvoVer:3");
        for (size_t i = 0; i < records; ++i)
            write(file, chance.plausible_record());
        QTRACE_Fclose(file);
    }

    Contents read(const std::string &name) const
    {
        Contents contents;
        char *error = nullptr;
        QTRACE_Reader *reader = qtrace_open(name.c_str(), &error);
        if (reader == nullptr) {
            contents.opened = false;
            contents.open_error = error;
            free(error);
            return contents;
        }
        const QTRACE_Item *item;
        QTRACE_ITEM kind;
        while ((kind = qtrace_next(reader, &item)) != QTRACE_ITEM_END && kind != QTRACE_ITEM_ERROR) {
            EXPECT_EQ(kind, item->kind);
            if (kind == QTRACE_ITEM_DISCONTINUITY) {
                contents.add(item->discontinuity, qtrace_error(reader));
            } else {
                contents.items.push_back(item_of(*item));
            }
        }
        EXPECT_EQ(kind, QTRACE_ITEM_END);
        qtrace_close(reader);
        return contents;
    }
    Contents read() const { return read(name_); }

    std::string bytes() const
    {
        std::ifstream in(name_, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void put_bytes(const std::string &bytes) const
    {
        std::ofstream(name_, std::ios::binary | std::ios::trunc).write(bytes.data(), std::ssize(bytes));
    }
    QTRACE_Info verified() const
    {
        QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
        QTRACE_Info info{};
        EXPECT_EQ(qtrace_verify(reader, &info), 0);
        qtrace_close(reader);
        return info;
    }
    // Offsets of the blocks of a whole file.
    std::vector<uint64_t> block_offsets() const
    {
        std::vector<uint64_t> offsets;
        QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
        const QTRACE_Item *item;
        while (qtrace_next(reader, &item) != QTRACE_ITEM_END)
            if (offsets.empty() || offsets.back() != item->block_offset)
                offsets.push_back(item->block_offset);
        qtrace_close(reader);
        return offsets;
    }
    // The items read are a run of those written, at each place where nothing was lost.
    void expect_subset(const Contents &contents) const
    {
        size_t at = 0;
        for (const Item &item : contents.items) {
            while (at < written_.size() && !(written_[at] == item))
                ++at;
            ASSERT_LT(at, written_.size()) << "an item that was never written";
            ++at;
        }
    }

    std::filesystem::path folder_;
    std::string name_;
    std::vector<Item> written_;
    uint64_t address_ = 0;
    bool known_ = false;
};

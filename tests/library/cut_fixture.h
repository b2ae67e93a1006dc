// Cuts of a trace file, against what a reader of the source delivers: the choice is made again here, item by item.
#pragma once

#include "qtrace_jobs.h"
#include "trace_file_fixture.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>
#include <limits>

inline constexpr uint64_t ALL = std::numeric_limits<uint64_t>::max();

// An item with its numbers and the partition and process in force at it.
struct Numbered_Item {
    Item item;
    uint64_t record, header;
    uint64_t lpid = 0, pid = 0;
    bool operator==(const Numbered_Item &other) const
    {
        return item == other.item && record == other.record && header == other.header;
    }
};

struct Place {
    QTRACE_CAUSE cause;
    uint64_t record, records;
    bool operator==(const Place &) const = default;
};

struct Listing {
    std::vector<Numbered_Item> items;
    std::vector<Place> left_out; // places, without pauses
    QTRACE_Info info{};
};

class cut : public trace_file
{
protected:
    using Wanted = std::function<bool(const Numbered_Item &)>;

    Listing list(const std::string &bytes)
    {
        const std::string name = (folder_ / "listed").string();
        std::ofstream(name, std::ios::binary).write(bytes.data(), std::ssize(bytes));
        Listing listing;
        QTRACE_Reader *reader = qtrace_open(name.c_str(), nullptr);
        const QTRACE_Item *item;
        while (qtrace_next(reader, &item) != QTRACE_ITEM_END)
            add(listing, *item, qtrace_open_header(reader));
        EXPECT_EQ(qtrace_verify(reader, &listing.info), 0);
        qtrace_close(reader);
        return listing;
    }
    static void add(Listing &listing, const QTRACE_Item &item, const QTRACE_FILE_HDR *context)
    {
        if (item.kind == QTRACE_ITEM_DISCONTINUITY) {
            if (item.discontinuity.cause != QTRACE_CAUSE_PAUSE)
                listing.left_out.push_back(
                    {item.discontinuity.cause, item.record_number, item.discontinuity.records});
            return;
        }
        Numbered_Item own{item_of(item), item.record_number, item.header_number};
        if (context != nullptr) {
            std::memcpy(&own.lpid, context->lpid, 8);
            std::memcpy(&own.pid, context->pid, 4);
        }
        listing.items.push_back(own);
    }
    static QTRACE_Cut all()
    {
        QTRACE_Cut choice{};
        choice.most = ALL;
        return choice;
    }
    std::string cut_of(const std::string &source, QTRACE_Cut choice)
    {
        const std::string name = (folder_ / "source").string();
        std::ofstream(name, std::ios::binary).write(source.data(), std::ssize(source));
        std::string bytes, by_threads;
        choice.user = &bytes;
        choice.write = [](void *user, const void *from, size_t size) {
            static_cast<std::string *>(user)->append(static_cast<const char *>(from), size);
            return 0;
        };
        char *error = nullptr;
        EXPECT_EQ(qtrace_cut(name.c_str(), &choice, &result_, &error), 0) << error;
        choice.user = &by_threads;
        QTRACE_Cut_Result same;
        EXPECT_EQ(qtrace_cut_by(name.c_str(), &choice, 3, &same, &error), 0) << error;
        EXPECT_TRUE(by_threads == bytes);
        EXPECT_EQ(std::memcmp(&same, &result_, offsetof(QTRACE_Cut_Result, open_end) + sizeof same.open_end), 0);
        return bytes;
    }
    // The result has the items that are wanted and the first header, reads without damage, and stays what it is.
    Listing expect_cut(const std::string &source, const QTRACE_Cut &choice, const Wanted &wanted)
    {
        const Listing whole = list(source);
        std::vector<Numbered_Item> expected;
        bool last_wanted = true;
        for (const Numbered_Item &item : whole.items)
            if (last_wanted = wanted(item) || (item.item.is_header && item.header == 0); last_wanted)
                expected.push_back(item);
        const std::string once = cut_of(source, choice);
        const QTRACE_Cut_Result result = result_;
        Listing listing = list(once);
        EXPECT_TRUE(listing.items == expected) << listing.items.size() << " items, not " << expected.size();
        EXPECT_EQ(listing.info.damaged_places, 0u);
        EXPECT_EQ(listing.info.clean_end, 1);
        EXPECT_EQ(listing.info.blocks, result.blocks);
        EXPECT_EQ(listing.info.records, result.records);
        EXPECT_EQ(listing.info.headers, result.headers);
        EXPECT_EQ(listing.info.open_end, result.open_end);
        if (whole.info.damaged_places == 0) {
            EXPECT_EQ(result.open_end, whole.info.open_end || !last_wanted);
        }
        EXPECT_TRUE(cut_of(once, choice) == once);
        return listing;
    }
    Listing expect_range(const std::string &source, uint64_t from, uint64_t most)
    {
        QTRACE_Cut choice = all();
        choice.from = from;
        choice.most = most;
        uint64_t left = most;
        return expect_cut(source, choice, [=](const Numbered_Item &item) mutable {
            const bool is_wanted = item.record >= from && left > 0;
            left -= is_wanted && !item.item.is_header;
            return is_wanted;
        });
    }
    // Of everything, by one thread or several: that of the recovery. `same`: the new file, too. Returns whether there is one.
    bool expect_recovery(const std::filesystem::path &source, bool same)
    {
        SCOPED_TRACE(source);
        std::string saved[2];
        QTRACE_Recovery results[2];
        int failed[2];
        for (const unsigned several : {0, 1}) {
            const std::string to = (folder_ / ("saved" + std::to_string(several))).string();
            std::filesystem::remove(to);
            failed[several] =
                qtrace_recover_by(source.c_str(), to.c_str(), several ? 3 : 1, &results[several], nullptr);
            saved[several] = bytes_of(to);
        }
        EXPECT_EQ(failed[0], failed[1]);
        EXPECT_TRUE(saved[0] == saved[1]);
        if (failed[0] != 0)
            return false;
        EXPECT_EQ(image_of(results[0]), image_of(results[1]));
        EXPECT_EQ(cut_of(bytes_of(source), all()) == saved[0], same);
        EXPECT_EQ(result_.damaged_places, results[0].damaged_places);
        return true;
    }
    static std::string bytes_of(const std::filesystem::path &name)
    {
        std::ifstream in(name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // Records of partitions 0 and 1 and of processes 7 and 8, some hundred at a time.
    void write_partitions(size_t changes)
    {
        Random_Trace chance(5);
        const QTRACE_FDESCR file = open();
        write(file, chance.plausible_header(), "KelvoVer:3");
        for (size_t i = 0; i < changes; ++i) {
            QTRACE_FILE_HDR change{};
            change.sec_ext_controlword.control.fld.lpid_is_present = 1;
            change.sec_ext_controlword.control.fld.pid_is_present = 1;
            change.lpid[0] = i & 1;
            change.pid[0] = static_cast<uint8_t>(7 + (i >> 1 & 1));
            write(file, change);
            for (size_t records = chance.below(900); records > 0; --records)
                write(file, chance.plausible_record());
        }
        QTRACE_Fclose(file);
    }

    QTRACE_Cut_Result result_{};
};

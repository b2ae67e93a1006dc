// Every place where a trace does not simply go on is an item of its own: its cause, its loss, the context from there on.
#include "trace_file_fixture.h"

namespace
{

constexpr uint64_t BLOCK_HEADER = 56;

QTRACE_FILE_HDR full_header(uint8_t page)
{
    QTRACE_FILE_HDR header{};
    header.control.iar_is_present = 1;
    header.iar[1] = page; // times 256
    return header;
}

QTRACE_FILE_HDR partition_header(uint8_t lpid)
{
    QTRACE_FILE_HDR header{};
    header.sec_ext_controlword.control.fld.lpid_is_present = 1;
    header.lpid[0] = lpid;
    return header;
}

// An item by what matters here.
struct Seen {
    QTRACE_ITEM kind;
    uint64_t header_number, record_number;
    QTRACE_Discontinuity what{}; // its context is kept beside it
    std::optional<QTRACE_FILE_HDR> context{};
    uint64_t address = 0;
    bool address_known = false;
};

class discontinuity : public trace_file
{
protected:
    // Everything but records.
    std::vector<Seen> seen(const std::string &name) const
    {
        std::vector<Seen> all;
        QTRACE_Reader *reader = qtrace_open(name.c_str(), nullptr);
        EXPECT_NE(reader, nullptr);
        const QTRACE_Item *item;
        for (QTRACE_ITEM kind; (kind = qtrace_next(reader, &item)) != QTRACE_ITEM_END;)
            if (kind != QTRACE_ITEM_RECORD)
                all.push_back(seen_of(reader, *item));
        qtrace_close(reader);
        return all;
    }
    std::vector<Seen> seen() const { return seen(name_); }

    static Seen seen_of(QTRACE_Reader *reader, const QTRACE_Item &item)
    {
        Seen one{item.kind, item.header_number, item.record_number};
        if (item.kind != QTRACE_ITEM_DISCONTINUITY)
            return one;
        one.what = item.discontinuity;
        if (one.what.context != nullptr)
            one.context = *one.what.context;
        EXPECT_EQ(qtrace_open_header(reader), one.what.context);
        EXPECT_STREQ(qtrace_error(reader) + std::string(qtrace_error(reader)).rfind(": ") + 2, one.what.reason);
        one.address = item.address;
        one.address_known = item.address_known != 0;
        return one;
    }

    // One block for each: a full header with partition, then 20,000 records and more.
    void write_blocks()
    {
        Random_Trace chance(31);
        const QTRACE_FDESCR file = open();
        write(file, full_header(0x10));
        write(file, partition_header(7));
        for (int i = 0; i < 60'000; ++i)
            write(file, chance.plausible_record());
        QTRACE_Fclose(file);
    }
    void write_plain(QTRACE_FDESCR file, int records)
    {
        for (int i = 0; i < records; ++i)
            write(file, QTRACE_RECORD{});
    }
    uint64_t first_record_of(uint64_t block) const { return number_at(block + 24); }
    uint64_t number_at(uint64_t offset) const
    {
        uint64_t number;
        std::memcpy(&number, &bytes().at(offset), sizeof number);
        return number;
    }
    uint8_t flags_of_block(const std::string &file, uint64_t block) const
    {
        std::ifstream in(file, std::ios::binary);
        in.seekg(static_cast<std::streamoff>(block + 5));
        return static_cast<uint8_t>(in.get());
    }
};

TEST_F(discontinuity, api_of_the_library_is_the_one_that_was_compiled_against)
{
    EXPECT_EQ(qtrace_api_version(), QTRACE_API_VERSION);
    EXPECT_EQ(QTRACE_API_VERSION, 2);
}

TEST_F(discontinuity, causes_have_names)
{
    EXPECT_STREQ(qtrace_cause_name(QTRACE_CAUSE_PAUSE), "pause");
    EXPECT_STREQ(qtrace_cause_name(QTRACE_CAUSE_REFUSED), "refused");
    EXPECT_STREQ(qtrace_cause_name(QTRACE_CAUSE_LEFT_OUT), "left out");
    EXPECT_STREQ(qtrace_cause_name(QTRACE_CAUSE_DAMAGE), "damage");
    EXPECT_STREQ(qtrace_cause_name(QTRACE_CAUSE_CUT_END), "cut end");
    EXPECT_EQ(qtrace_cause_name(static_cast<QTRACE_CAUSE>(5)), nullptr);
}

TEST_F(discontinuity, pause_is_delivered_before_every_full_header_but_the_first)
{
    const QTRACE_FDESCR file = open();
    write(file, full_header(0x10));
    write_plain(file, 2);
    write(file, partition_header(5));
    write_plain(file, 1);
    write(file, full_header(0x20));
    write(file, full_header(0x30));
    write_plain(file, 1);
    QTRACE_Fclose(file);
    const std::vector<Seen> items = seen();
    ASSERT_EQ(items.size(), 6u);
    const QTRACE_ITEM kinds[] = {QTRACE_ITEM_HEADER, QTRACE_ITEM_HEADER,        QTRACE_ITEM_DISCONTINUITY,
                                 QTRACE_ITEM_HEADER, QTRACE_ITEM_DISCONTINUITY, QTRACE_ITEM_HEADER};
    for (size_t i = 0; i < items.size(); ++i)
        EXPECT_EQ(items[i].kind, kinds[i]) << i;
    for (const size_t i : {2, 4}) {
        const Seen &pause = items[i];
        EXPECT_EQ(pause.what.cause, QTRACE_CAUSE_PAUSE);
        EXPECT_EQ(pause.what.offset, 16u);
        EXPECT_EQ(pause.what.bytes, 0u);
        EXPECT_EQ(pause.what.records, 0u);
        EXPECT_EQ(pause.what.headers, 0u);
        EXPECT_TRUE(pause.what.records_known);
        EXPECT_EQ(pause.record_number, 3u);
        EXPECT_EQ(pause.header_number, items[i + 1].header_number);
        EXPECT_EQ(pause.address, i == 2 ? 0x2000u : 0x3000u);
        EXPECT_TRUE(pause.address_known);
        ASSERT_TRUE(pause.context);
        EXPECT_EQ(pause.context->iar[1], i == 2 ? 0x20 : 0x30);
        EXPECT_EQ(pause.context->lpid[0], 0); // a full header brings its own
    }
}

TEST_F(discontinuity, pause_comes_first_when_seeking_to_the_record_after_it)
{
    const QTRACE_FDESCR file = open();
    write(file, full_header(0x10));
    write_plain(file, 3);
    write(file, full_header(0x20));
    write_plain(file, 3);
    QTRACE_Fclose(file);
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    const QTRACE_Item *item;
    ASSERT_EQ(qtrace_seek(reader, 3), 0);
    EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_DISCONTINUITY);
    EXPECT_EQ(item->discontinuity.cause, QTRACE_CAUSE_PAUSE);
    EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_HEADER);
    ASSERT_EQ(qtrace_seek(reader, 3), 0); // also when the pause was delivered, and its header not
    EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_DISCONTINUITY);
    ASSERT_EQ(qtrace_seek(reader, 4), 0);
    EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_RECORD);
    EXPECT_EQ(item->record_number, 4u);
    qtrace_close(reader);
}

TEST_F(discontinuity, damage_restates_the_context_of_the_records_after_it)
{
    write_blocks();
    const std::vector<uint64_t> blocks = block_offsets();
    ASSERT_GT(blocks.size(), 4u);
    const uint64_t first = first_record_of(blocks[2]), next = first_record_of(blocks[3]);
    std::string damaged = bytes();
    damaged[blocks[2] + BLOCK_HEADER] ^= 1;
    put_bytes(damaged);
    const std::vector<Seen> items = seen();
    ASSERT_EQ(items.size(), 3u);
    const Seen &damage = items[2];
    EXPECT_EQ(damage.what.cause, QTRACE_CAUSE_DAMAGE);
    EXPECT_EQ(damage.what.offset, blocks[2]);
    EXPECT_EQ(damage.what.bytes, blocks[3] - blocks[2]);
    EXPECT_EQ(damage.record_number, first);
    EXPECT_EQ(damage.what.records, next - first);
    EXPECT_TRUE(damage.what.records_known);
    ASSERT_TRUE(damage.context);
    EXPECT_EQ(damage.context->iar[1], 0x10);
    EXPECT_EQ(damage.context->lpid[0], 7);
    EXPECT_TRUE(damage.address_known);
    EXPECT_EQ(damage.address, written_.at(next + 2).address);
}

TEST_F(discontinuity, damage_of_headers_counts_them_and_brings_the_context_that_they_set)
{
    Random_Trace chance(32);
    const QTRACE_FDESCR file = open();
    write(file, full_header(0x10));
    while (std::filesystem::file_size(name_) == 16) // until a block is written
        write(file, chance.plausible_record());
    write(file, partition_header(9));
    const uint64_t size = std::filesystem::file_size(name_);
    while (std::filesystem::file_size(name_) == size)
        write(file, chance.plausible_record());
    write_plain(file, 1);
    QTRACE_Fclose(file);
    const std::vector<uint64_t> blocks = block_offsets();
    ASSERT_EQ(blocks.size(), 3u);
    std::string damaged = bytes();
    damaged[blocks[1] + BLOCK_HEADER] ^= 1;
    put_bytes(damaged);
    const std::vector<Seen> items = seen();
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[1].what.headers, 1u);
    ASSERT_TRUE(items[1].context);
    EXPECT_EQ(items[1].context->lpid[0], 9);
}

TEST_F(discontinuity, cut_end_has_no_context)
{
    write_blocks();
    const std::vector<uint64_t> blocks = block_offsets();
    put_bytes(bytes().substr(0, blocks.back() + BLOCK_HEADER));
    const Seen end = seen().back();
    EXPECT_EQ(end.what.cause, QTRACE_CAUSE_CUT_END);
    EXPECT_EQ(end.what.offset, blocks.back());
    EXPECT_EQ(end.what.bytes, BLOCK_HEADER);
    EXPECT_EQ(end.record_number + end.what.records, 60'000u);
    EXPECT_FALSE(end.what.records_known);
    EXPECT_FALSE(end.context);
    EXPECT_FALSE(end.address_known);
}

TEST_F(discontinuity, refused_items_are_counted_and_stay_so_when_a_recovery_copies_the_file)
{
    Random_Trace chance(33);
    const QTRACE_FDESCR file = open();
    write(file, full_header(0x10));
    size_t refused = 0;
    {
        const Small_Disk disk(50'000);
        while (refused < 3) {
            QTRACE_RECORD record = chance.wild_record();
            refused += QTRACE_FwriteRecord(file, &record) != 0;
        }
        QTRACE_FILE_HDR partition = partition_header(4);
        ASSERT_NE(QTRACE_FwriteFileHeader(file, &partition), 0);
    }
    write_plain(file, 10);
    QTRACE_Fclose(file);
    const std::string copy = name_ + ".copy";
    QTRACE_Recovery result;
    ASSERT_EQ(qtrace_recover(name_.c_str(), copy.c_str(), &result, nullptr), 0);
    for (const std::string &name : {name_, copy}) {
        const std::vector<Seen> items = seen(name);
        ASSERT_EQ(items.size(), 2u);
        const Seen &refusal = items[1];
        EXPECT_EQ(refusal.what.cause, QTRACE_CAUSE_REFUSED);
        EXPECT_EQ(refusal.what.records, 3u);
        EXPECT_EQ(refusal.what.headers, 1u);
        EXPECT_TRUE(refusal.what.records_known);
        EXPECT_EQ(refusal.what.bytes, 0u);
        ASSERT_TRUE(refusal.context);
        EXPECT_EQ(refusal.context->lpid[0], 4);
        EXPECT_EQ(flags_of_block(name, refusal.what.offset) & (16 | 64), 16);
    }
}

TEST_F(discontinuity, refused_record_is_missing_before_the_header_that_follows)
{
    Random_Trace chance(34);
    const QTRACE_FDESCR file = open();
    write(file, full_header(0x10));
    uint64_t accepted = 0;
    {
        const Small_Disk disk(50'000);
        for (bool refused = false; !refused; accepted += !refused) {
            QTRACE_RECORD record = chance.wild_record();
            refused = QTRACE_FwriteRecord(file, &record) != 0;
        }
    }
    write(file, partition_header(4));
    write_plain(file, 10);
    QTRACE_Fclose(file);
    const std::vector<Seen> items = seen();
    ASSERT_EQ(items.size(), 3u); // the headers on either side
    EXPECT_EQ(items[1].what.cause, QTRACE_CAUSE_REFUSED);
    EXPECT_EQ(items[1].record_number, accepted);
    EXPECT_EQ(items[1].what.records, 1u);
    EXPECT_EQ(items[1].what.headers, 0u);
}

TEST_F(discontinuity, left_out_by_a_recovery_is_told_from_refused_by_the_writer)
{
    write_blocks();
    const std::vector<uint64_t> blocks = block_offsets();
    const std::string whole = bytes();
    std::string damaged = whole;
    damaged[blocks[2] + 3] ^= 1;
    const std::string saved = name_ + ".saved";
    for (const std::string &broken : {damaged, whole.substr(0, blocks[2]) + whole.substr(blocks[3])}) {
        put_bytes(broken);
        const Seen damage = seen().back();
        QTRACE_Recovery result;
        ASSERT_EQ(qtrace_recover(name_.c_str(), saved.c_str(), &result, nullptr), 0);
        const Seen loss = seen(saved).back();
        EXPECT_EQ(loss.what.cause, QTRACE_CAUSE_LEFT_OUT);
        EXPECT_EQ(loss.what.offset, blocks[2]);
        EXPECT_EQ(loss.what.bytes, 0u);
        EXPECT_EQ(loss.what.records, damage.what.records);
        EXPECT_EQ(loss.record_number, damage.record_number);
        ASSERT_TRUE(loss.context);
        EXPECT_EQ(loss.context->lpid[0], 7);
        EXPECT_EQ(flags_of_block(saved, blocks[2]) & (16 | 64), 16 | 64);
    }
}

TEST_F(discontinuity, comes_first_when_seeking_to_a_record_that_is_left_out)
{
    write_blocks();
    const std::vector<uint64_t> blocks = block_offsets();
    const uint64_t first = first_record_of(blocks[2]);
    const std::string whole = bytes(), saved = name_ + ".saved";
    put_bytes(whole.substr(0, blocks[2]) + whole.substr(blocks[3]));
    QTRACE_Recovery result;
    ASSERT_EQ(qtrace_recover(name_.c_str(), saved.c_str(), &result, nullptr), 0);
    QTRACE_Reader *reader = qtrace_open(saved.c_str(), nullptr);
    const QTRACE_Item *item;
    ASSERT_EQ(qtrace_seek(reader, first + 10), 0);
    EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_DISCONTINUITY);
    EXPECT_EQ(item->discontinuity.cause, QTRACE_CAUSE_LEFT_OUT);
    const uint64_t next = item->record_number + item->discontinuity.records;
    EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_RECORD);
    EXPECT_EQ(item->record_number, next);
    qtrace_close(reader);
}

} // namespace

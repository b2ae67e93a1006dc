// Where the stores of a trace went, as far as rules about memory ask: whether a place may have been stored to since
// something was seen there.
#pragma once

#include "bounded_table.h"
#include "translation.h"

#include <array>
#include <vector>

namespace qtrace_tool
{

// What an address of memory counts in. Addresses of different spaces share their lowest 12 bits when they are the same
// memory, for no offset between them is smaller than a page.
enum class Memory_Space : uint8_t {
    host,      // real addresses of the host
    real_mode, // addresses of the host's real mode: an offset that the trace does not tell may be added to them
    guest,     // guest real addresses
    unknown
};
inline constexpr size_t MEMORY_SPACES = 4;

struct Memory_Place {
    Memory_Space space = Memory_Space::unknown;
    uint64_t lpid = 0; // of a guest
    uint64_t address = 0;
    Memory_Place at(uint64_t other) const { return {space, lpid, other}; }
};

// The places of an access: none to two, for a guest in real mode has two addresses.
struct Memory_Places {
    std::array<Memory_Place, 2> place;
    size_t count = 0;
    void add(const Memory_Place &one) { place[count++] = one; }
};

// Where the byte at `effective` is.
Memory_Places places_of(Told told, const trace::Mode_Pair &modes, const Named_Translation &named,
                        uint64_t effective);

// A store or the clearing of a cache block by a record; the bytes that it may have reached, not fewer than it did.
struct Store {
    Memory_Places places; // of the first byte
    uint64_t size = 0;    // bytes; 0: the record stores nothing
    uint64_t room = 0;    // bytes up to the end of the page
    // What the following bytes of a store that leaves its page belong to is not known.
    template <class Visitor> void for_each(uint64_t step, Visitor visit) const
    {
        for (size_t i = 0; i < places.count; i++) {
            const Memory_Place &first = places.place[i];
            const uint64_t inside = std::min(size, room);
            for (uint64_t at = first.address & ~(step - 1); at < first.address + inside; at += step)
                visit(first.at(at));
        }
        for (uint64_t at = room; at < size; at += step)
            visit(Memory_Place{Memory_Space::unknown, 0, at - room});
    }
};
Store store_of(const QTRACE_RECORD &record, const Page_Sizes &sizes, const Partition_Key &partition);
// The record stores, and it is not known where.
bool stores_anywhere(const QTRACE_RECORD &record);

// Times are numbers of stores: what was seen at time t was stored to since when its time is above t.
class Stored_Memory
{
public:
    static constexpr uint64_t ENTRY = 8, LINE = 64; // bytes

    uint32_t now() const { return now_; }
    void store(const Store &store);
    void store_anywhere() { anywhere_ = last_entry_ = ++now_; }
    // From here on stores to the table entry, or to the line of code, are noticed.
    void watch_entry(const Memory_Place &place) { watch(entries_, place, ENTRY); }
    void watch_line(const Memory_Place &place) { watch(lines_, place, LINE); }
    // The last store to it since then; 0: none.
    uint32_t entry_time(const Memory_Place &place) const { return time_in(entries_, place, ENTRY); }
    uint32_t line_time(const Memory_Place &place) const { return time_in(lines_, place, LINE); }
    // The last store that may have hit the doubleword because its own address is of another space.
    uint32_t doubtful_time(const Memory_Place &place) const;
    // The last of all stores to watched entries and of the doubtful ones to entries.
    uint32_t last_entry_time() const { return last_entry_; }
    bool entries_full() const { return entries_.is_full(); }
    bool lines_full() const { return lines_.is_full(); }
    bool at_end_of_time() const { return now_ >= LAST_TIME; }
    void forget_entries() { entries_.clear(); }
    void forget_lines() { lines_.clear(); }
    void forget();

private:
    static constexpr uint32_t LAST_TIME = 0xFFFFFF00;
    static constexpr size_t OFFSETS = 512, FILTER = 65536; // doublewords of a page of 4 KiB; pages
    using Table = Bounded_Table<uint32_t>;
    static uint64_t key_of(const Memory_Place &place, uint64_t step);
    static size_t page_bit(const Memory_Place &place);
    static size_t offset_of(const Memory_Place &place) { return place.address >> 3 & (OFFSETS - 1); }
    void watch(Table &table, const Memory_Place &place, uint64_t step);
    static uint32_t time_in(const Table &table, const Memory_Place &place, uint64_t step);
    void store_to(const Memory_Place &place);

    uint32_t now_ = 0, anywhere_ = 0, last_entry_ = 0;
    Table entries_{1 << 19}, lines_{1 << 18};
    std::vector<bool> watched_ = std::vector<bool>(FILTER); // pages with something watched, by hash
    std::array<std::array<uint32_t, OFFSETS>, MEMORY_SPACES> by_offset_{};
};

// What each of several threads stored to at any time, for records carry no time that would order threads.
class Thread_Stores
{
public:
    // The stores of one more thread. Returns its number.
    size_t add_thread();
    void header(const QTRACE_FILE_HDR &header);
    void record(const QTRACE_RECORD &record, const Page_Sizes &sizes);
    // Some stores of the thread that was added last are not in the trace.
    void lose() { lost_[lost_.size() - 1] = true; }

    // Not everything that threads other than `thread` stored to is known.
    bool others_unknown(size_t thread) const;
    // Another thread may have stored to the line of 64 bytes.
    bool others_hit(size_t thread, const Memory_Place &place) const;

private:
    static constexpr uint32_t SEVERAL = 0xFFFFFFFF;
    struct Page_Lines {
        uint64_t lines = 0;
        uint32_t thread = 0; // or SEVERAL
    };
    struct Offsets {
        std::array<uint64_t, MEMORY_SPACES> lines{}; // lines of any page
    };
    static uint64_t key_of(const Memory_Place &place);
    static uint64_t line_bit(const Memory_Place &place) { return uint64_t{1} << (place.address >> 6 & 63); }
    void add(const Memory_Place &place);

    Partition_Key partition_;
    std::vector<bool> lost_;
    std::vector<Offsets> offsets_;
    Bounded_Table<Page_Lines> pages_{1 << 18};
    bool full_ = false;
};

} // namespace qtrace_tool

// How an address was translated, as a recorded stream, a text line and a trace record each tell it.
#pragma once

#include "qtrace_t.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// One thing said about a translation. Walk entries, host real addresses: `index` is the number of the host walk.
enum class Fact {
    vsid,
    page_number,
    page_size,
    guest_page_size,
    host_l1,
    host_l2,
    host_l3,
    host_pte,
    host_ra,
    guest_l1,
    guest_l2,
    guest_l3,
    guest_pte,
    guest_ra
};

struct Address_Fact {
    Fact fact;
    size_t index;
    uint64_t value;
    auto operator<=>(const Address_Fact &) const = default;
};

// What is said, in ascending order; walk entries and real addresses of 0 are not said (a record has no other way to
// leave them out).
class Address_Facts
{
public:
    void add(Fact fact, uint64_t value, size_t index = 0);
    // Forgets what is said under this name.
    void drop(Fact fact);
    const std::vector<Address_Fact> &all() const { return facts_; }
    bool operator==(const Address_Facts &) const = default;
    std::string text() const;

private:
    std::vector<Address_Fact> facts_;
};

// A header's instruction address, a record's next instruction, a record's data address. VSIDs are told without
// their lowest eight bits, which records drop.
Address_Facts facts_of_header(const QTRACE_FILE_HDR &header);
Address_Facts facts_of_next(const QTRACE_RECORD &record);
Address_Facts facts_of_data(const QTRACE_RECORD &record);

// Values of byte-array members.
uint64_t value_of_bytes(const uint8_t *bytes, size_t size);
template <size_t size> uint64_t value_of_bytes(const uint8_t (&bytes)[size])
{
    return value_of_bytes(bytes, size);
}

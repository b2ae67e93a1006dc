#include "check_pte.h"

#include "pte_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace qtrace_tool
{
namespace
{

constexpr size_t WALK_WORDS = 5, HASHED_WORDS = 3;

// Whether the words so far can be a row of accesses: of five addresses each, or of an address and two words.
class Plausibility
{
public:
    void take(uint64_t word)
    {
        addresses_ = is_real_address(word) ? addresses_ + 1 : 0;
        for (size_t i = WALK_WORDS; i > 0; i--)
            ends_[i] = ends_[i - 1];
        for (size_t i = HASHED_WORDS; i > 0; i--)
            address_[i] = address_[i - 1];
        address_[1] = is_real_address(word);
        ends_[0] =
            (ends_[WALK_WORDS] && addresses_ >= WALK_WORDS) || (ends_[HASHED_WORDS] && address_[HASHED_WORDS]);
    }
    bool ends_an_access() const { return ends_[0]; }

private:
    std::array<bool, WALK_WORDS + 1> ends_{true};  // whether an access can end so many words ago
    std::array<bool, HASHED_WORDS + 1> address_{}; // whether the word so many ago, the last being 1, is an address
    size_t addresses_ = 0;                         // in a row
};

bool agrees(const Radix_Walk &trace, const Radix_Walk &access)
{
    for (size_t level = 0; level < std::size(trace.directory); level++)
        if (trace.directory[level] != 0 && trace.directory[level] != access.directory[level])
            return false;
    return trace.entry == access.entry;
}

} // namespace

void Pte_Checker::add(const trace::Translated_Address &address, std::string_view of, const QTRACE_Item &item)
{
    using trace::number;
    if (!address.present)
        return;
    hashed_ += address.pair().walk == trace::Walk_Kind::none && (address.pieces & trace::PIECE_RPN) != 0;
    for (size_t i = 0; i < RDX_MAX_2LEVEL_DEPTH; i++) {
        const QTRACE_RTW &walk = address.walks[i];
        add(Radix_Walk{{number(walk.RTPDE_ra_l1), number(walk.RTPDE_ra_l2), number(walk.RTPDE_ra_l3)},
                       number(walk.RTPTE_ra)},
            of, item);
    }
}

void Pte_Checker::add(const Radix_Walk &walk, std::string_view of, const QTRACE_Item &item)
{
    if (walk.entry == 0) // a walk that came to no entry was not one access
        return;
    const auto [begin, end] = by_entry_.equal_range(walk.entry);
    for (auto known = begin; known != end; ++known)
        if (walks_[known->second].walk == walk)
            return;
    if (walks_.size() == MAX_WALKS) {
        beyond_limit_++;
        return;
    }
    by_entry_.emplace(walk.entry, walks_.size());
    walks_.push_back({walk, of, item.record_number, item.address, space_, item.kind == QTRACE_ITEM_HEADER, false});
}

void Pte_Checker::look_for(const Radix_Walk &access)
{
    const auto [begin, end] = by_entry_.equal_range(access.entry);
    for (auto known = begin; known != end; ++known)
        walks_[known->second].found |= agrees(walks_[known->second].walk, access);
}

bool Pte_Checker::search(const std::string &name, std::string &error)
{
    Pte_File file(name, error);
    if (!file.is_open())
        return false;
    Plausibility plausible;
    std::array<uint64_t, WALK_WORDS> last{}; // a walk and the address that it was made for
    uint64_t word, words = 0;
    while (file.next(word)) {
        std::shift_left(last.begin(), last.end(), 1);
        last.back() = word;
        plausible.take(word);
        if (++words >= WALK_WORDS)
            look_for({{last[0], last[1], last[2]}, last[3]});
    }
    if (file.failed())
        error = name + ": " + std::strerror(errno);
    else if (file.left_over() != 0 || !plausible.ends_an_access())
        error = name + ": no page-table-entry file: accesses of three or five words do not fill it";
    return error.empty();
}

std::vector<Traced_Walk> Pte_Checker::missing() const
{
    std::vector<Traced_Walk> missing;
    for (const Traced_Walk &walk : walks_)
        if (!walk.found)
            missing.push_back(walk);
    return missing;
}

} // namespace qtrace_tool

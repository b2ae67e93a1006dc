#include "check_pte.h"

#include "record_schema.h"

#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>

namespace qtrace_tool
{

using namespace trace;

bool Pte_Accesses::read(const std::string &name, std::string &error)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(name.c_str(), "rb"), &std::fclose);
    if (!file) {
        error = name + ": " + std::strerror(errno);
        return false;
    }
    std::deque<uint64_t> last; // five words in a row: a walk and the address that it was made for
    uint64_t word;
    while (std::fread(&word, sizeof(word), 1, file.get()) == 1) {
        last.push_back(__builtin_bswap64(word)); // the file is big-endian
        if (last.size() < 5)
            continue;
        by_entry_.emplace(last[3], Radix_Walk{{last[0], last[1], last[2]}, last[3]});
        last.pop_front();
    }
    if (std::ferror(file.get()) != 0) {
        error = name + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

static bool agrees(const Radix_Walk &trace, const Radix_Walk &access)
{
    for (size_t level = 0; level < std::size(trace.directory); level++)
        if (trace.directory[level] != 0 && trace.directory[level] != access.directory[level])
            return false;
    return trace.entry == access.entry;
}

bool Pte_Accesses::has(const Radix_Walk &walk) const
{
    const auto [begin, end] = by_entry_.equal_range(walk.entry);
    for (auto access = begin; access != end; ++access)
        if (agrees(walk, access->second))
            return true;
    return false;
}

size_t Pte_Checker::Hash::operator()(const Radix_Walk &walk) const
{
    uint64_t hash = walk.entry;
    for (const uint64_t word : walk.directory)
        hash = std::rotl(hash, 17) * 0x9E3779B97F4A7C15u ^ word;
    return hash;
}

std::vector<Radix_Walk> Pte_Checker::missing(const QTRACE_RTW *walks)
{
    std::vector<Radix_Walk> missing;
    for (size_t i = 0; i < RDX_MAX_2LEVEL_DEPTH; i++) {
        const Radix_Walk walk{
            {number(walks[i].RTPDE_ra_l1), number(walks[i].RTPDE_ra_l2), number(walks[i].RTPDE_ra_l3)},
            number(walks[i].RTPTE_ra)};
        // a walk that came to no entry was not one access
        if (walk.entry != 0 && seen_.insert(walk).second && !accesses_.has(walk))
            missing.push_back(walk);
    }
    return missing;
}

} // namespace qtrace_tool

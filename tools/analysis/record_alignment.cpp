#include "record_alignment.h"

#include <algorithm>
#include <utility>

namespace qtrace_tool
{
namespace
{

using Keys = std::span<const Record_Key>;
using View = uint64_t Record_Key::*;

// Records in a row that must agree before they count as belonging together.
constexpr size_t WHOLE_RUN = 8;
constexpr size_t PLACE_RUN = 32;
// Edits between two synchronised places up to which the fewest are looked for.
constexpr int MAX_EDITS = 400;
// How often the records between two anchors are searched for further ones.
constexpr unsigned MAX_DEPTH = 32;
// Records in a row that must agree where everything is repeated, so that nothing occurs once.
constexpr size_t REPEATED_RUN = 64;

struct Anchor {
    size_t a, b;
};

struct Run {
    uint64_t hash;
    size_t at;
};

// The runs that occur only once, in the order of their hashes.
std::vector<Run> unique_runs(Keys keys, View view, size_t length)
{
    std::vector<Run> runs;
    for (size_t at = 0; at + length <= keys.size(); at++) {
        uint64_t hash = 0;
        for (size_t i = at; i < at + length; i++)
            hash = (hash ^ keys[i].*view) * 0x9E3779B97F4A7C15u;
        runs.push_back({hash, at});
    }
    std::ranges::sort(runs, {}, &Run::hash);
    std::vector<Run> unique;
    for (auto run = runs.begin(); run != runs.end();) {
        const auto next = std::find_if(run, runs.end(), [&](const Run &other) { return other.hash != run->hash; });
        if (next - run == 1)
            unique.push_back(*run);
        run = next;
    }
    return unique;
}

// The longest chain of anchors that ascends on both sides, of anchors in ascending order of `a`.
std::vector<Anchor> longest_chain(const std::vector<Anchor> &anchors)
{
    std::vector<size_t> ends; // by length of chain: the anchor with the smallest `b` that ends one
    std::vector<size_t> before(anchors.size());
    for (size_t i = 0; i < anchors.size(); i++) {
        const auto place = std::ranges::lower_bound(ends, anchors[i].b, {}, [&](size_t k) { return anchors[k].b; });
        before[i] = place == ends.begin() ? i : *(place - 1);
        if (place == ends.end())
            ends.push_back(i);
        else
            *place = i;
    }
    std::vector<Anchor> chain(ends.size());
    for (size_t left = chain.size(), at = ends.empty() ? 0 : ends.back(); left > 0; at = before[at])
        chain[--left] = anchors[at];
    return chain;
}

std::vector<Anchor> find_anchors(Keys a, Keys b, View view, size_t length)
{
    const std::vector<Run> in_a = unique_runs(a, view, length), in_b = unique_runs(b, view, length);
    std::vector<Anchor> anchors;
    for (auto i = in_a.begin(), k = in_b.begin(); i != in_a.end() && k != in_b.end(); ++(i->hash < k->hash ? i : k))
        if (i->hash == k->hash)
            anchors.push_back({i->at, k->at});
    std::ranges::sort(anchors, {}, &Anchor::a);
    return longest_chain(anchors);
}

bool same_content(const Record_Key &a, const Record_Key &b)
{
    return a.content == b.content;
}

bool same_place(const Record_Key &a, const Record_Key &b)
{
    return a.place == b.place || a.content == b.content;
}

using Same = bool (*)(const Record_Key &, const Record_Key &);

size_t common_prefix(Keys a, Keys b, Same same)
{
    const size_t most = std::min(a.size(), b.size());
    size_t length = 0;
    while (length < most && same(a[length], b[length]))
        length++;
    return length;
}

size_t common_suffix(Keys a, Keys b, Same same)
{
    const size_t most = std::min(a.size(), b.size());
    size_t length = 0;
    while (length < most && same(a[a.size() - 1 - length], b[b.size() - 1 - length]))
        length++;
    return length;
}

// The fewest records to leave out on both sides so that the others agree in place; the first ones do not agree. By
// number of edits it keeps how far each diagonal was followed.
class Edit_Search
{
public:
    Edit_Search(Keys a, Keys b)
        : a_(a), b_(b), limit_(static_cast<int>(std::min<size_t>(MAX_EDITS, a.size() + b.size())))
    {
    }
    // False when there are more than MAX_EDITS.
    bool find();
    // The pairs that agree, in ascending order.
    std::vector<Anchor> pairs() const;

private:
    using Reach = std::vector<int>; // records of `a` passed, by diagonal + limit_ + 1

    int size_a() const { return static_cast<int>(a_.size()); }
    int size_b() const { return static_cast<int>(b_.size()); }
    // Whether the furthest way to the diagonal leaves out a record of `b`, and not one of `a`.
    bool leaves_out_b(const Reach &reach, int edits, int diagonal) const
    {
        return diagonal == -edits || (diagonal != edits && below(reach, diagonal) < above(reach, diagonal));
    }
    int below(const Reach &reach, int diagonal) const { return reach[place_of(diagonal - 1)]; }
    int above(const Reach &reach, int diagonal) const { return reach[place_of(diagonal + 1)]; }
    // There is a place on either side of those that are used.
    size_t place_of(int diagonal) const
    {
        const int place = diagonal + limit_ + 1;
        return static_cast<size_t>(place);
    }
    int begin_of(const Reach &reach, int edits, int diagonal) const;
    int follow(int x, int diagonal) const;

    Keys a_, b_;
    int limit_;
    std::vector<Reach> reached_;
};

int Edit_Search::begin_of(const Reach &reach, int edits, int diagonal) const
{
    if (edits == 0)
        return 0;
    return leaves_out_b(reach, edits, diagonal) ? above(reach, diagonal) : below(reach, diagonal) + 1;
}

int Edit_Search::follow(int x, int diagonal) const
{
    while (x < size_a() && x - diagonal < size_b() && same_place(a_[x], b_[x - diagonal]))
        x++;
    return x;
}

bool Edit_Search::find()
{
    Reach reach(2 * static_cast<size_t>(limit_) + 3, 0);
    for (int edits = 0; edits <= limit_; edits++) {
        reached_.push_back(reach);
        for (int diagonal = -edits; diagonal <= edits; diagonal += 2) {
            const int x = follow(begin_of(reach, edits, diagonal), diagonal);
            reach[place_of(diagonal)] = x;
            if (x >= size_a() && x - diagonal >= size_b())
                return true;
        }
    }
    return false;
}

std::vector<Anchor> Edit_Search::pairs() const
{
    std::vector<Anchor> pairs;
    int x = size_a(), y = size_b();
    for (int edits = static_cast<int>(reached_.size()) - 1; edits > 0; edits--) {
        const Reach &reach = reached_[static_cast<size_t>(edits)];
        const int diagonal = x - y, begin = begin_of(reach, edits, diagonal);
        for (; x > begin; x--, y--)
            pairs.push_back({static_cast<size_t>(x) - 1, static_cast<size_t>(y) - 1});
        const bool only_b = leaves_out_b(reach, edits, diagonal);
        x = only_b ? begin : begin - 1;
        y = x - (only_b ? diagonal + 1 : diagonal - 1);
    }
    std::ranges::reverse(pairs);
    return pairs;
}

// Builds the steps from the front of both sequences.
class Aligner
{
public:
    Aligner(Keys a, Keys b) : a_(a), b_(b) {}
    std::vector<Alignment_Step> align(bool complete);

private:
    Keys rest_a(size_t end) const { return a_.subspan(x_, end - x_); }
    Keys rest_b(size_t end) const { return b_.subspan(y_, end - y_); }
    void pair(size_t count);
    void leave_out(size_t only_a, size_t only_b);
    void differ(size_t end_a, size_t end_b);
    void trim(size_t end_a, size_t end_b, Same same, void (Aligner::*rest)(size_t, size_t));
    // Everything up to there; each finds what the one before left.
    // False when there was no anchor.
    template <class Between> bool follow(View view, size_t run, size_t end_a, size_t end_b, Between between);
    void align_wholes(size_t end_a, size_t end_b) { trim(end_a, end_b, same_content, &Aligner::align_inner); }
    void align_inner(size_t end_a, size_t end_b);
    void align_places(size_t end_a, size_t end_b);
    void align_edges(size_t end_a, size_t end_b) { trim(end_a, end_b, same_place, &Aligner::align_edits); }
    void align_edits(size_t end_a, size_t end_b);
    void align_repeated();

    Keys a_, b_;
    size_t x_ = 0, y_ = 0; // covered so far
    unsigned depth_ = 0;
    std::vector<Alignment_Step> steps_;
};

void Aligner::pair(size_t count)
{
    if (count == 0)
        return;
    if (steps_.empty() || steps_.back().only_a + steps_.back().only_b > 0)
        steps_.push_back({});
    steps_.back().pairs += count;
    x_ += count;
    y_ += count;
}

void Aligner::leave_out(size_t only_a, size_t only_b)
{
    if (only_a + only_b == 0)
        return;
    if (steps_.empty())
        steps_.push_back({});
    steps_.back().only_a += only_a;
    steps_.back().only_b += only_b;
    x_ += only_a;
    y_ += only_b;
}

// Records of which none agree: as many on both sides are compared one by one.
void Aligner::differ(size_t end_a, size_t end_b)
{
    if (end_a - x_ == end_b - y_)
        pair(end_a - x_);
    else
        leave_out(end_a - x_, end_b - y_);
}

void Aligner::trim(size_t end_a, size_t end_b, Same same, void (Aligner::*rest)(size_t, size_t))
{
    pair(common_prefix(rest_a(end_a), rest_b(end_b), same));
    const size_t suffix = common_suffix(rest_a(end_a), rest_b(end_b), same);
    if (end_a - suffix == x_ || end_b - suffix == y_)
        leave_out(end_a - suffix - x_, end_b - suffix - y_);
    else
        (this->*rest)(end_a - suffix, end_b - suffix);
    pair(suffix);
}

template <class Between> bool Aligner::follow(View view, size_t run, size_t end_a, size_t end_b, Between between)
{
    const size_t from_a = x_, from_b = y_;
    const std::vector<Anchor> anchors = find_anchors(rest_a(end_a), rest_b(end_b), view, run);
    for (const Anchor &anchor : anchors) {
        const size_t a = from_a + anchor.a, b = from_b + anchor.b;
        if (a >= x_ && b >= y_)
            between(a, b);
        if (a - x_ == b - y_) // also where the one before reaches into it
            pair(a + run - x_);
    }
    return !anchors.empty();
}

// What occurs twice in all of it may occur once between two anchors.
void Aligner::align_inner(size_t end_a, size_t end_b)
{
    const auto inner = [this](size_t a, size_t b) { align_wholes(a, b); };
    depth_++;
    if (depth_ <= MAX_DEPTH && follow(&Record_Key::whole, WHOLE_RUN, end_a, end_b, inner))
        align_wholes(end_a, end_b);
    else
        align_places(end_a, end_b);
    depth_--;
}

void Aligner::align_places(size_t end_a, size_t end_b)
{
    follow(&Record_Key::place, PLACE_RUN, end_a, end_b, [this](size_t a, size_t b) { align_edges(a, b); });
    align_edges(end_a, end_b);
}

void Aligner::align_edits(size_t end_a, size_t end_b)
{
    Edit_Search search(rest_a(end_a), rest_b(end_b));
    if (search.find()) {
        const size_t from_a = x_, from_b = y_;
        for (const Anchor &anchor : search.pairs()) {
            differ(from_a + anchor.a, from_b + anchor.b);
            pair(1);
        }
    }
    differ(end_a, end_b);
}

// The fewest records to leave out at the front of `a` so that many in a row agree; none: it is no fewer than `limit`.
size_t shift_to(Keys a, Keys b, size_t limit)
{
    for (size_t shift = 0; shift < limit && shift + REPEATED_RUN <= a.size(); shift++)
        if (common_prefix(a.subspan(shift, REPEATED_RUN), b, same_content) == REPEATED_RUN)
            return shift;
    return limit;
}

// Everything that follows is repeated: only one side's records can be missing.
void Aligner::align_repeated()
{
    const Keys a = rest_a(a_.size()), b = rest_b(b_.size());
    const size_t most = std::max(a.size(), b.size());
    const size_t only_a = shift_to(a, b, most), only_b = shift_to(b, a, only_a);
    if (only_b < only_a)
        leave_out(0, only_b);
    else if (only_a < most)
        leave_out(only_a, 0);
    pair(common_prefix(rest_a(a_.size()), rest_b(b_.size()), same_content));
}

std::vector<Alignment_Step> Aligner::align(bool complete)
{
    const auto between = [this](size_t a, size_t b) { align_wholes(a, b); };
    if (complete) {
        align_wholes(a_.size(), b_.size());
        return std::move(steps_);
    }
    if (!follow(&Record_Key::whole, WHOLE_RUN, a_.size(), b_.size(), between))
        align_repeated();
    follow(&Record_Key::place, PLACE_RUN, a_.size(), b_.size(), between);
    if (steps_.empty())
        pair(std::min(a_.size(), b_.size()));
    return std::move(steps_);
}

} // namespace

std::vector<Alignment_Step> align_records(std::span<const Record_Key> a, std::span<const Record_Key> b,
                                          bool complete)
{
    return Aligner(a, b).align(complete);
}

} // namespace qtrace_tool

#include "record_equality.h"

#include "processor.h"

#include <cstdint>
#include <cstring>
#if defined(QT_AVX2)
#include <immintrin.h>
#endif

namespace trace
{
namespace
{

constexpr size_t COMPARED = offsetof(QTRACE_RECORD, offset);

bool compare_anywhere(const QTRACE_RECORD &a, const QTRACE_RECORD &b)
{
    return std::memcmp(&a, &b, COMPARED) == 0;
}

#if defined(QT_AVX2)
constexpr size_t WIDE = sizeof(__m256i);

[[gnu::target("avx2")]] inline __m256i difference_at(const uint8_t *a, const uint8_t *b, size_t offset)
{
    return _mm256_xor_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(a + offset)),
                            _mm256_loadu_si256(reinterpret_cast<const __m256i *>(b + offset)));
}

// Records that are compared are mostly the same: only at the end it is asked whether they are. The last vector
// overlaps the one before.
[[gnu::target("avx2")]] bool compare_with_avx2(const QTRACE_RECORD &a, const QTRACE_RECORD &b)
{
    const auto *one = reinterpret_cast<const uint8_t *>(&a), *other = reinterpret_cast<const uint8_t *>(&b);
    __m256i any = difference_at(one, other, COMPARED - WIDE);
#pragma GCC unroll 128
    for (size_t offset = 0; offset + WIDE <= COMPARED; offset += WIDE)
        any = _mm256_or_si256(any, difference_at(one, other, offset));
    return _mm256_testz_si256(any, any) != 0;
}
#else
constexpr auto compare_with_avx2 = compare_anywhere;
#endif

bool (*const compare)(const QTRACE_RECORD &, const QTRACE_RECORD &) = for_processor(compare_with_avx2,
                                                                                    compare_anywhere);

} // namespace

bool have_same_members(const QTRACE_RECORD &a, const QTRACE_RECORD &b)
{
    return compare(a, b);
}

} // namespace trace

// Functions that exist twice, for any processor and for AVX2.
#pragma once

// Without it there are only those for any processor, which tests try that way.
#if defined(__x86_64__) && !defined(QT_WITHOUT_AVX2)
#define QT_AVX2
#endif

namespace trace
{

// The one for AVX2 where the processor has it. Both give the same results.
template <class Function> Function *for_processor([[maybe_unused]] Function *with_avx2, Function *anywhere)
{
#if defined(QT_AVX2)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2"))
        return with_avx2;
#endif
    return anywhere;
}

} // namespace trace

// Functions that exist twice, for any processor and for AVX2.
#pragma once

namespace trace
{

// The one for AVX2 where the processor has it. Both give the same results.
template <class Function> Function *for_processor([[maybe_unused]] Function *with_avx2, Function *anywhere)
{
#if defined(__x86_64__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2"))
        return with_avx2;
#endif
    return anywhere;
}

} // namespace trace

// The grey-level helpers of the SSE2 kernels, for *_sse2.cpp files only.
#ifndef TAVK05_GREY_LEVEL_SSE2_H
#define TAVK05_GREY_LEVEL_SSE2_H

#include <emmintrin.h>  // SSE2: part of both the x86_64 and the i386 (-msse2) ABI

namespace greylevel {

// |a - b| of unsigned bytes, lane by lane.
inline __m128i AbsDiff(__m128i a, __m128i b) { return _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a)); }

}  // namespace greylevel

#endif

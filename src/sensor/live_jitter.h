// Internal to the sensor driver: the per-pixel jitter of the live preview,
// random() % 9 for every pixel after the preview's srandom(seed), drawn from
// a private copy of the C library generator's state instead of random()
// itself, which would take the generator's lock for every pixel.
//
// The generator (the C library's additive feedback generator of degree 31
// and separation 3) is the sequence r: r[0] = seed (1 for 0), r[i] = 16807 x
// r[i - 1] mod (2^31 - 1) for i up to 30, r[i] = r[i - 31] for i from 31 to
// 33, and r[i] = r[i - 31] + r[i - 3] mod 2^32 beyond; the k-th random()
// after srandom is r[k + 344] >> 1.
#ifndef TAVK05_SRC_SENSOR_LIVE_JITTER_H
#define TAVK05_SRC_SENSOR_LIVE_JITTER_H

#include <cstddef>
#include <cstdint>

namespace oberin {

const int kJitterSpan = 9;  // random() % 9 - 4: jitter of -4..+4
const int kJitterOffset = 4;

class CLiveJitter {
public:
    enum : size_t {
        kHistory = 34,  // values of r a new value may depend on
        kBlock = 1024   // most values one call to Next gives
    };

    explicit CLiveJitter(unsigned int nSeed);

    // The next n (at most kBlock) values of random() % 9, in order.
    void Next(unsigned char* pOut, size_t n);

    // The values r[j] for j from kHistory to kHistory + n - 1 of the block
    // a, whose first kHistory values are given, and pOut[j - kHistory] =
    // (r[j] >> 1) % 9, from the first not yet done (nFrom) on.
    static void Extend(uint32_t* a, unsigned char* pOut, size_t nFrom, size_t n);
#if defined(__SSE2__)
    // The same from the start of the block; returns how many it did.
    static size_t ExtendSse2(uint32_t* a, unsigned char* pOut, size_t n);
#endif

private:
    uint32_t m_anHistory[kHistory];  // the last kHistory values of r given out
};

// For i from nFrom to n - 1: with the darkening d = pBg[i] - pIn[i], or 0
// where negative, pOut[i] = pShown[d x 9 + pJitter[i]], the jittered
// mapping's table; pDark[i] = d unless pDark is null (pDark may be pIn).
void MapDarkened(const unsigned char* pBg, const unsigned char* pIn, const unsigned char* pJitter,
                 const unsigned char* pShown, unsigned char* pDark, unsigned char* pOut, size_t nFrom, size_t n);
#if defined(__SSE2__)
// The same from the start, 16 pixels at a time; returns how many it did.
size_t MapDarkenedSse2(const unsigned char* pBg, const unsigned char* pIn, const unsigned char* pJitter,
                       const unsigned char* pShown, unsigned char* pDark, unsigned char* pOut, size_t n);
#endif

// The jittered mapping of n pixels: with d = background - frame, or 0 where
// negative, pOutput[i] = abyShown[d x 9 + the i-th jitter draw after
// srandom(nSeed)]; with bKeepPrint the frame receives d.
void MapJittered(unsigned int nSeed, const unsigned char* pBackground, unsigned char* pFrame, unsigned char* pOutput,
                 size_t n, bool bKeepPrint, const unsigned char (&abyShown)[256 * kJitterSpan]);

}  // namespace oberin

#endif

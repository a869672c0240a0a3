// The live preview's jitter from a private copy of the C library
// generator's state; the sequence is described in live_jitter.h.
#include "live_jitter.h"

#include <cstring>

namespace oberin {

namespace {

const size_t kDegree = 31;
const size_t kSeparation = 3;
const size_t kDiscarded = 310;  // values srandom draws and drops

}  // namespace

CLiveJitter::CLiveJitter(unsigned int nSeed)
{
    uint32_t r[kDiscarded + kHistory];
    // 16807 x r mod (2^31 - 1) without overflow, on the seed taken as a
    // signed 32-bit value, as the C library computes it.
    int32_t nWord = static_cast<int32_t>(nSeed == 0 ? 1u : nSeed);
    r[0] = static_cast<uint32_t>(nWord);
    for (size_t i = 1; i < kDegree; ++i) {
        const int64_t nHi = nWord / 127773;
        const int64_t nLo = nWord % 127773;
        int64_t nNext = 16807 * nLo - 2836 * nHi;
        if (nNext < 0) nNext += 2147483647;
        nWord = static_cast<int32_t>(nNext);
        r[i] = static_cast<uint32_t>(nWord);
    }
    for (size_t i = kDegree; i < kDegree + kSeparation; ++i) r[i] = r[i - kDegree];
    for (size_t i = kDegree + kSeparation; i < kDiscarded + kHistory; ++i) r[i] = r[i - kDegree] + r[i - kSeparation];
    std::memcpy(m_anHistory, r + kDiscarded, sizeof m_anHistory);
}

void CLiveJitter::Extend(uint32_t* a, unsigned char* pOut, size_t nFrom, size_t n)
{
    for (size_t k = nFrom; k < n; ++k) {
        const size_t j = kHistory + k;
        a[j] = a[j - kDegree] + a[j - kSeparation];
        pOut[k] = static_cast<unsigned char>((a[j] >> 1) % kJitterSpan);
    }
}

void CLiveJitter::Next(unsigned char* pOut, size_t n)
{
    if (n > kBlock) n = kBlock;
    uint32_t a[kHistory + kBlock];
    std::memcpy(a, m_anHistory, sizeof m_anHistory);
    size_t nDone = 0;
#if defined(__SSE2__)
    nDone = ExtendSse2(a, pOut, n);
#endif
    Extend(a, pOut, nDone, n);
    std::memcpy(m_anHistory, a + n, sizeof m_anHistory);
}

void MapDarkened(const unsigned char* pBg, const unsigned char* pIn, const unsigned char* pJitter,
                 const unsigned char* pShown, unsigned char* pDark, unsigned char* pOut, size_t nFrom, size_t n)
{
    for (size_t i = nFrom; i < n; ++i) {
        const unsigned char d = static_cast<unsigned char>(pBg[i] > pIn[i] ? pBg[i] - pIn[i] : 0);
        if (pDark != nullptr) pDark[i] = d;
        pOut[i] = pShown[d * kJitterSpan + pJitter[i]];
    }
}

void MapJittered(unsigned int nSeed, const unsigned char* pBackground, unsigned char* pFrame, unsigned char* pOutput,
                 size_t n, bool bKeepPrint, const unsigned char (&abyShown)[256 * kJitterSpan])
{
    CLiveJitter jitter(nSeed);
    unsigned char abyJitter[CLiveJitter::kBlock];
    for (size_t nStart = 0; nStart < n; nStart += CLiveJitter::kBlock) {
        const size_t nCount = n - nStart < CLiveJitter::kBlock ? n - nStart : CLiveJitter::kBlock;
        jitter.Next(abyJitter, nCount);
        const unsigned char* pBg = pBackground + nStart;
        unsigned char* pIn = pFrame + nStart;
        unsigned char* pDark = bKeepPrint ? pIn : nullptr;  // the frame receives d in place
        unsigned char* pOut = pOutput + nStart;
        size_t nDone = 0;
#if defined(__SSE2__)
        nDone = MapDarkenedSse2(pBg, pIn, abyJitter, abyShown, pDark, pOut, nCount);
#endif
        MapDarkened(pBg, pIn, abyJitter, abyShown, pDark, pOut, nDone, nCount);
    }
}

}  // namespace oberin

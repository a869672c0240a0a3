// Corner marks. Each corner pixel is overwritten with a value chosen by two
// selector pixels next to it: s = (a + b) mod 10 picks position s (1..9,
// left to right, top to bottom) of a 3 x 3 block set one pixel in from the
// corner, or, for s = 0, a half-sum default. A verifier recomputes the same
// choice to tell whether the corner still carries its mark.
//
// Width and height define the addressing only; the buffer may be larger.
// Images narrower or lower than 4 pixels, and null images, are left alone
// (Get answers 0): the block of such an image would reach outside it.
#include "tavk05/mark.h"

namespace {

struct CornerRule {
    long nMarked;     // index of the corner pixel
    long nSelectorA;  // the two selector pixels
    long nSelectorB;
    long nDefaultA;  // the two bytes whose half-sum is the value for s = 0
    long nDefaultB;
    long nBlockRow;  // top-left pixel of the 3 x 3 source block
    long nBlockCol;
};

enum Corner { LEFT_TOP, RIGHT_TOP, LEFT_BOTTOM, RIGHT_BOTTOM };

bool Usable(const unsigned char* pImage, int nWidth, int nHeight)
{
    return pImage != nullptr && nWidth >= 4 && nHeight >= 4;
}

CornerRule RuleOf(Corner corner, long w, long h)
{
    CornerRule rule = {};
    switch (corner) {
        case LEFT_TOP:
            rule.nMarked = 0;
            rule.nSelectorA = 1;  // (0, 1)
            rule.nSelectorB = w;  // (1, 0)
            rule.nDefaultA = rule.nSelectorA;
            rule.nDefaultB = rule.nSelectorB;
            rule.nBlockRow = 1;
            rule.nBlockCol = 1;
            break;
        case RIGHT_TOP:
            rule.nMarked = w - 1;
            rule.nSelectorA = w - 2;      // (0, w - 2)
            rule.nSelectorB = w + w - 1;  // (1, w - 1)
            rule.nDefaultA = rule.nSelectorA;
            rule.nDefaultB = rule.nSelectorB;
            rule.nBlockRow = 1;
            rule.nBlockCol = w - 4;
            break;
        case LEFT_BOTTOM:
            rule.nMarked = (h - 1) * w;
            rule.nSelectorA = (h - 2) * w;      // (h - 2, 0)
            rule.nSelectorB = (h - 1) * w + 1;  // (h - 1, 1)
            // This corner's default reads the bytes at linear indexes 1 and h,
            // not neighbours of the corner; marks are recognised only this way.
            rule.nDefaultA = 1;
            rule.nDefaultB = h;
            rule.nBlockRow = h - 4;
            rule.nBlockCol = 1;
            break;
        case RIGHT_BOTTOM:
            rule.nMarked = (h - 1) * w + w - 1;
            rule.nSelectorA = (h - 1) * w + w - 2;  // (h - 1, w - 2)
            rule.nSelectorB = (h - 2) * w + w - 1;  // (h - 2, w - 1)
            rule.nDefaultA = rule.nSelectorA;
            rule.nDefaultB = rule.nSelectorB;
            rule.nBlockRow = h - 4;
            rule.nBlockCol = w - 4;
            break;
    }
    return rule;
}

// The value the corner must hold, as the image stands now.
unsigned char MarkValue(const unsigned char* pImage, long w, const CornerRule& rule)
{
    const int s = (pImage[rule.nSelectorA] + pImage[rule.nSelectorB]) % 10;
    if (s == 0) return static_cast<unsigned char>((pImage[rule.nDefaultA] + pImage[rule.nDefaultB]) / 2);
    const long nRow = rule.nBlockRow + (s - 1) / 3;
    const long nCol = rule.nBlockCol + (s - 1) % 3;
    return pImage[nRow * w + nCol];
}

void SetMark(Corner corner, unsigned char* pImage, int nWidth, int nHeight)
{
    if (!Usable(pImage, nWidth, nHeight)) return;
    const CornerRule rule = RuleOf(corner, nWidth, nHeight);
    pImage[rule.nMarked] = MarkValue(pImage, nWidth, rule);
}

int GetMark(Corner corner, const unsigned char* pImage, int nWidth, int nHeight)
{
    if (!Usable(pImage, nWidth, nHeight)) return 0;
    const CornerRule rule = RuleOf(corner, nWidth, nHeight);
    return pImage[rule.nMarked] == MarkValue(pImage, nWidth, rule) ? 1 : 0;
}

}  // namespace

extern "C" {

void SetLTWaterM(unsigned char* pImage, int nWidth, int nHeight) { SetMark(LEFT_TOP, pImage, nWidth, nHeight); }

void SetRTWaterM(unsigned char* pImage, int nWidth, int nHeight) { SetMark(RIGHT_TOP, pImage, nWidth, nHeight); }

void SetLBWaterM(unsigned char* pImage, int nWidth, int nHeight) { SetMark(LEFT_BOTTOM, pImage, nWidth, nHeight); }

void SetRBWaterM(unsigned char* pImage, int nWidth, int nHeight) { SetMark(RIGHT_BOTTOM, pImage, nWidth, nHeight); }

int GetLTWaterM(unsigned char* pImage, int nWidth, int nHeight) { return GetMark(LEFT_TOP, pImage, nWidth, nHeight); }

int GetRTWaterM(unsigned char* pImage, int nWidth, int nHeight) { return GetMark(RIGHT_TOP, pImage, nWidth, nHeight); }

int GetLBWaterM(unsigned char* pImage, int nWidth, int nHeight)
{
    return GetMark(LEFT_BOTTOM, pImage, nWidth, nHeight);
}

int GetRBWaterM(unsigned char* pImage, int nWidth, int nHeight)
{
    return GetMark(RIGHT_BOTTOM, pImage, nWidth, nHeight);
}

}  // extern "C"

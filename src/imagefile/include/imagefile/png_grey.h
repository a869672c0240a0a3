// Grey PNG files: reading any PNG as 8-bit grey from a regular file, and
// writing an 8-bit grey image at 500 ppi without following a link or
// replacing a file of another kind or owner.
#ifndef TAVK05_PNG_GREY_H
#define TAVK05_PNG_GREY_H

#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace tavk05png {

enum { kMaxSide = 4096 };

struct GreyImage {
    std::vector<unsigned char> vecPixels;  // nWidth x nHeight, row by row
    unsigned nWidth = 0;
    unsigned nHeight = 0;
    bool bStoredGrey8 = false;  // the file holds 8-bit grey: nothing was converted
    double fPpiX = 0.0;         // resolution the file states; 0 when it states none
    double fPpiY = 0.0;
    int nBitDepth = 0;    // as stored: 1, 2, 4, 8 or 16 bits a sample
    int nColourType = 0;  // as stored: PNG colour type (0 grey, 2 RGB, 3 palette, 4 and 6 with alpha)
};

// Reads a PNG of any colour type and bit depth as 8-bit grey (colour
// converted, alpha dropped), at most kMaxSide on either side. Only a regular
// file is read: a FIFO or device is refused at once, never waited on. False
// with a message naming the file for a missing, damaged, truncated or
// oversized file; nothing but the one image is allocated.
bool ReadGrey(const std::string& strPath, GreyImage* pImage, std::string* pError);

// Whether strPath may receive an image: "-" (standard output, not a
// terminal), a new file in an existing directory, or a regular file of the
// user's own. A link, a device, a FIFO or another user's file is refused, so
// that a privileged user cannot be led to overwrite something else. False
// with a message; leaves no file behind.
bool CheckTarget(const std::string& strPath, std::string* pError);

// Writes an 8-bit grey image, 500 ppi recorded. A file is written beside
// the target under a temporary name and renamed over it only when complete,
// so a failed write leaves the old file whole; the target is checked as by
// CheckTarget. "-" is standard output.
bool WriteGrey(const std::string& strPath, const unsigned char* pPixels, unsigned nWidth, unsigned nHeight,
               std::string* pError);

// The safe write every format of the command shares: checked as by
// CheckTarget, fnWrite fills a new file beside the target (created with
// O_EXCL | O_NOFOLLOW), which is synced and renamed over the target only
// when complete; a failed write removes it and leaves the old file whole.
// pszWhat words a failure fnWrite reports without errno. "-" is refused.
bool WriteSafely(const std::string& strPath, const std::function<bool(std::FILE*)>& fnWrite, const char* pszWhat,
                 std::string* pError);
// Writes nSize bytes to strPath through WriteSafely.
bool WriteBytes(const std::string& strPath, const unsigned char* pData, size_t nSize, std::string* pError);

// An 8-bit grey image as a PNG stream in memory (500 ppi recorded), and a
// PNG stream in memory read as by ReadGrey. False when libpng fails or is
// absent, or the stream is not a PNG of at most kMaxSide a side.
bool EncodeGrey(const unsigned char* pPixels, unsigned nWidth, unsigned nHeight, std::vector<unsigned char>* pOut);
bool DecodeGrey(const unsigned char* pData, size_t nSize, GreyImage* pImage, std::string* pError);

}  // namespace tavk05png

#endif

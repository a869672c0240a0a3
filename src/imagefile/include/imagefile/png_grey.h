// Grey PNG files: reading any PNG as 8-bit grey from a regular file, and
// writing an 8-bit grey image at 500 ppi without following a link or
// replacing a file of another kind or owner.
#ifndef TAVK05_PNG_GREY_H
#define TAVK05_PNG_GREY_H

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

}  // namespace tavk05png

#endif

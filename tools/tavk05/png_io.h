// 8-bit grey PNG files with their resolution recorded (500 ppi).
#ifndef TAVK05_PNG_IO_H
#define TAVK05_PNG_IO_H

#include <string>
#include <vector>

namespace cli {

// Writes a grey image; false with a message in *pError on failure.
bool WritePng(const std::string& strPath, const unsigned char* pPixels, unsigned nWidth, unsigned nHeight,
              std::string* pError);

// Reads a 600 x 600 8-bit grey image from a regular file; anything else
// (another size or format, a corrupt or truncated file) gives false with a
// message in *pError. Never allocates more than the one image.
bool ReadPng(const std::string& strPath, std::vector<unsigned char>* pPixels, unsigned* pWidth, unsigned* pHeight,
             std::string* pError);

}  // namespace cli

#endif

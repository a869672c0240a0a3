// 8-bit grey PNG files with their resolution recorded (500 ppi).
#ifndef TAVK05_PNG_IO_H
#define TAVK05_PNG_IO_H

#include <string>
#include <vector>

namespace cli {

// Writes a grey image; false with a message in *pError on failure.
bool WritePng(const std::string& strPath, const unsigned char* pPixels, unsigned nWidth, unsigned nHeight,
              std::string* pError);

// Reads an 8-bit grey image (other formats are converted to 8-bit grey);
// false with a message in *pError on failure.
bool ReadPng(const std::string& strPath, std::vector<unsigned char>* pPixels, unsigned* pWidth, unsigned* pHeight,
             std::string* pError);

}  // namespace cli

#endif

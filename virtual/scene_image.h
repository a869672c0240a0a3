// Prints given as images: with image=FILE.png (or images=DIR, one file per
// acquisition in name order, cycled) the virtual scanner shows the host's
// own 500 ppi grey print instead of a synthetic finger. The print is laid
// on the 600 x 600 finished image centred (cropped when larger, surrounded
// by empty glass when smaller) as the grey the finished image should show,
// and the renderer runs it backwards through the model's geometry and
// sensor response, so that the driver's correction gives it back.
#ifndef TAVK05_SCENE_IMAGE_H
#define TAVK05_SCENE_IMAGE_H

#include <memory>
#include <string>
#include <vector>

namespace tavk05virt {

// Reads a PNG file of any colour type and bit depth as 8-bit grey (colour
// converted, alpha dropped), at most 4096 x 4096; a file that states its
// resolution must state 500 ppi (within 2 %). False with a message naming
// the file for anything else.
bool ReadGreyPng(const std::string& strPath, std::vector<unsigned char>* pPixels, unsigned* pnWidth, unsigned* pnHeight,
                 std::string* pError);

// The prints of an image= or images= key, laid on the glass.
class CPrintImages {
public:
    enum { kSide = 600, kMaxFiles = 64 };

    // Loads one file, or the *.png files of a directory (at most kMaxFiles);
    // null with a message when a file cannot be used.
    static std::shared_ptr<const CPrintImages> Load(const std::string& strPath, bool bDirectory, std::string* pError);

    unsigned long Count() const { return m_vecGlass.size(); }
    // Finished-image grey (600 x 600) of print n modulo Count().
    const unsigned char* Glass(unsigned long n) const { return m_vecGlass[n % m_vecGlass.size()].data(); }

private:
    std::vector<std::vector<unsigned char>> m_vecGlass;
};

// Lays a print of nWidth x nHeight on the 600 x 600 glass, centred; the
// rest is empty glass.
void PlacePrint(const unsigned char* pPrint, unsigned nWidth, unsigned nHeight, unsigned char* pGlass);

}  // namespace tavk05virt

#endif

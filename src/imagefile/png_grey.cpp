// Grey PNG files through libpng (see png_grey.h).
#include "imagefile/png_grey.h"
#include "guardedpath/guarded_path.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>

#ifdef TAVK05_HAVE_PNG
#include <png.h>
#endif

namespace tavk05png {

namespace {

struct FileCloser {
    void operator()(std::FILE* p) const { std::fclose(p); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

std::string Problem(const std::string& strPath, const char* pszWhat) { return strPath + ": " + pszWhat; }

// Reaches the directory that is to hold strPath, following no link on the way
// that belongs to another user (root's own links excepted) and leaving a link
// in the last component for the caller to refuse. False with a message.
bool Reach(const std::string& strPath, tavk05path::CResolved* pTarget, std::string* pError)
{
    const int nResult = tavk05path::Resolve(strPath.c_str(), tavk05path::kOwnOrRoot, false, pTarget);
    if (nResult == tavk05path::kLinkRefused) {
        *pError = Problem(
            strPath,
            ("reached through " + pTarget->m_strRefused + ", a symbolic link of another user; not followed").c_str());
    } else if (nResult != 0) {
        *pError = Problem(strPath, std::strerror(nResult));
    }
    return nResult == 0;
}

// Whether the last component may be written: absent, or a regular file of
// the user's own (never a link). Fills *pStat when it exists.
bool CheckLast(const std::string& strPath, const tavk05path::CResolved& target, struct stat* pStat, bool* pExists,
               std::string* pError)
{
    *pExists = false;
    if (fstatat(target.m_nDirFd, target.m_strName.c_str(), pStat, AT_SYMLINK_NOFOLLOW) == 0) {
        *pExists = true;
        const char* pszWhy = S_ISLNK(pStat->st_mode)      ? "is a symbolic link; not followed"
                             : !S_ISREG(pStat->st_mode)   ? "not a regular file"
                             : pStat->st_uid != geteuid() ? "belongs to another user; not replaced"
                                                          : nullptr;
        if (pszWhy != nullptr) {
            *pError = Problem(strPath, pszWhy);
            return false;
        }
    } else if (errno != ENOENT) {
        *pError = Problem(strPath, std::strerror(errno));
        return false;
    }
    // The new file is made beside the target and renamed over it.
    if (faccessat(target.m_nDirFd, ".", W_OK | X_OK, AT_EACCESS) != 0) {
        *pError = Problem(strPath, std::strerror(errno));
        return false;
    }
    return true;
}

}  // namespace

bool CheckTarget(const std::string& strPath, std::string* pError)
{
    if (strPath == "-") {
        if (isatty(STDOUT_FILENO)) {
            *pError = "will not write a PNG to a terminal: redirect standard output";
            return false;
        }
        return true;
    }
    tavk05path::CResolved target;
    struct stat st;
    bool bExists = false;
    return Reach(strPath, &target, pError) && CheckLast(strPath, target, &st, &bExists, pError);
}

bool WriteSafely(const std::string& strPath, const std::function<bool(std::FILE*)>& fnWrite, const char* pszWhat,
                 std::string* pError)
{
    if (strPath == "-") {
        *pError = "standard output: only PNG is written there";
        return false;
    }
    // The directory is held by a descriptor from here on, so every name below
    // is looked up in the directory that was checked. A new file is made
    // beside the target, never an existing one: O_EXCL and O_NOFOLLOW make a
    // name someone planted fail instead of being used.
    tavk05path::CResolved target;
    struct stat st;
    bool bReplacing = false;
    if (!Reach(strPath, &target, pError) || !CheckLast(strPath, target, &st, &bReplacing, pError)) return false;
    const int nDir = target.m_nDirFd;
    std::string strTemp;
    int fd = -1;
    for (int nTry = 0; fd < 0 && nTry < 100; ++nTry) {
        strTemp = ".tavk05-" + std::to_string(getpid()) + "-" + std::to_string(nTry) + ".tmp";
        fd = openat(nDir, strTemp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd < 0 && errno != EEXIST) break;
    }
    if (fd < 0) {
        *pError = Problem(strPath, std::strerror(errno));
        return false;
    }
    if (bReplacing) fchmod(fd, st.st_mode & 07777);  // a replaced file keeps its permissions
    FilePtr pOut(fdopen(fd, "wb"));
    if (!pOut) close(fd);
    errno = 0;
    const bool bWritten = pOut && fnWrite(pOut.get()) && std::fflush(pOut.get()) == 0 && fsync(fileno(pOut.get())) == 0;
    const int nError = errno;
    const bool bClosed = pOut && std::fclose(pOut.release()) == 0;
    if (bWritten && bClosed && renameat(nDir, strTemp.c_str(), nDir, target.m_strName.c_str()) == 0) return true;
    const int nLast = errno != 0 ? errno : nError;
    unlinkat(nDir, strTemp.c_str(), 0);
    *pError = Problem(strPath, nLast != 0 ? std::strerror(nLast) : pszWhat);
    return false;
}

bool WriteBytes(const std::string& strPath, const unsigned char* pData, size_t nSize, std::string* pError)
{
    return WriteSafely(
        strPath, [&](std::FILE* pOut) { return std::fwrite(pData, 1, nSize, pOut) == nSize; }, "write failed", pError);
}

#ifdef TAVK05_HAVE_PNG

namespace {

const double kMetresPerInch = 0.0254;
const png_uint_32 kPixelsPerMetre = 19685;  // 500 pixels per inch
const png_alloc_size_t kChunkLimit = 1u << 20;

void SilentWarning(png_structp, png_const_charp) {}

// libpng's own handler prints to standard error, which is the host's in the
// virtual scanner; the caller words the message instead.
void JumpOnError(png_structp pPng, png_const_charp) { png_longjmp(pPng, 1); }

enum EResult { kOk, kCorrupt, kNoMemory, kLayout };

bool Allocate(std::vector<unsigned char>* pPixels, size_t nBytes)
{
    try {
        pPixels->assign(nBytes, 0);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// Decodes into *pImage. libpng reports errors by a long jump back into this
// function, so nothing with a destructor is made between the jump target
// and the jumps; the pixel buffer is sized before its rows are read.
EResult Decode(std::FILE* pFile, GreyImage* pImage)
{
    png_structp pPng = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, JumpOnError, SilentWarning);
    png_infop pInfo = pPng != nullptr ? png_create_info_struct(pPng) : nullptr;
    if (pInfo == nullptr) {
        png_destroy_read_struct(&pPng, nullptr, nullptr);
        return kNoMemory;
    }
    volatile EResult eResult = kCorrupt;
    if (setjmp(png_jmpbuf(pPng)) == 0) {
        png_set_user_limits(pPng, kMaxSide, kMaxSide);
        png_set_chunk_cache_max(pPng, 64);
        png_set_chunk_malloc_max(pPng, kChunkLimit);
        png_init_io(pPng, pFile);
        png_set_sig_bytes(pPng, 8);
        png_read_info(pPng, pInfo);
        const png_uint_32 nWidth = png_get_image_width(pPng, pInfo);
        const png_uint_32 nHeight = png_get_image_height(pPng, pInfo);
        const int nColour = png_get_color_type(pPng, pInfo);
        pImage->nBitDepth = png_get_bit_depth(pPng, pInfo);
        pImage->nColourType = nColour;
        pImage->bStoredGrey8 = pImage->nBitDepth == 8 && nColour == PNG_COLOR_TYPE_GRAY;
        png_uint_32 nResX = 0, nResY = 0;
        int nUnit = 0;
        if (png_get_pHYs(pPng, pInfo, &nResX, &nResY, &nUnit) && nUnit == PNG_RESOLUTION_METER) {
            pImage->fPpiX = nResX * kMetresPerInch;
            pImage->fPpiY = nResY * kMetresPerInch;
        }
        // Whatever the file holds, 8-bit grey comes out.
        png_set_strip_16(pPng);
        png_set_expand(pPng);
        if (nColour & PNG_COLOR_MASK_COLOR) png_set_rgb_to_gray_fixed(pPng, 1, -1, -1);
        png_set_strip_alpha(pPng);
        const int nPasses = png_set_interlace_handling(pPng);
        png_read_update_info(pPng, pInfo);
        if (png_get_rowbytes(pPng, pInfo) != nWidth || png_get_channels(pPng, pInfo) != 1) {
            eResult = kLayout;
        } else if (!Allocate(&pImage->vecPixels, static_cast<size_t>(nWidth) * nHeight)) {
            eResult = kNoMemory;
        } else {
            for (int nPass = 0; nPass < nPasses; ++nPass) {
                for (png_uint_32 y = 0; y < nHeight; ++y) {
                    png_read_row(pPng, pImage->vecPixels.data() + static_cast<size_t>(y) * nWidth, nullptr);
                }
            }
            png_read_end(pPng, nullptr);
            pImage->nWidth = nWidth;
            pImage->nHeight = nHeight;
            eResult = kOk;
        }
    }
    png_destroy_read_struct(&pPng, &pInfo, nullptr);
    return eResult;
}

// Encodes an image into pFile; false when libpng fails.
bool Encode(std::FILE* pFile, const unsigned char* pPixels, unsigned nWidth, unsigned nHeight)
{
    png_structp pPng = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, JumpOnError, SilentWarning);
    png_infop pInfo = pPng != nullptr ? png_create_info_struct(pPng) : nullptr;
    if (pInfo == nullptr) {
        png_destroy_write_struct(&pPng, nullptr);
        return false;
    }
    volatile bool bDone = false;
    if (setjmp(png_jmpbuf(pPng)) == 0) {
        png_init_io(pPng, pFile);
        png_set_IHDR(pPng, pInfo, nWidth, nHeight, 8, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
                     PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        png_set_pHYs(pPng, pInfo, kPixelsPerMetre, kPixelsPerMetre, PNG_RESOLUTION_METER);
        png_write_info(pPng, pInfo);
        for (unsigned y = 0; y < nHeight; ++y) {
            png_write_row(pPng, const_cast<png_bytep>(pPixels + static_cast<size_t>(y) * nWidth));
        }
        png_write_end(pPng, nullptr);
        bDone = true;
    }
    png_destroy_write_struct(&pPng, &pInfo);
    return bDone;
}

}  // namespace

bool ReadGrey(const std::string& strPath, GreyImage* pImage, std::string* pError)
{
    const int fd = open(strPath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        *pError = Problem(strPath, std::strerror(errno));
        return false;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        *pError = Problem(strPath, "not a regular file");
        return false;
    }
    FilePtr pFile(fdopen(fd, "rb"));
    if (!pFile) {
        close(fd);
        *pError = Problem(strPath, std::strerror(errno));
        return false;
    }
    unsigned char abySignature[8] = {};
    if (std::fread(abySignature, 1, sizeof abySignature, pFile.get()) != sizeof abySignature ||
        png_sig_cmp(abySignature, 0, sizeof abySignature) != 0) {
        *pError = Problem(strPath, "not a PNG file");
        return false;
    }
    GreyImage image;
    switch (Decode(pFile.get(), &image)) {
        case kOk:
            *pImage = std::move(image);
            return true;
        case kNoMemory:
            *pError = Problem(strPath, "out of memory");
            return false;
        case kLayout:
            *pError = Problem(strPath, "unsupported pixel layout");
            return false;
        default:
            *pError = Problem(strPath, "corrupt, truncated or larger than 4096 x 4096");
            return false;
    }
}

bool WriteGrey(const std::string& strPath, const unsigned char* pPixels, unsigned nWidth, unsigned nHeight,
               std::string* pError)
{
    if (strPath == "-") {
        if (!CheckTarget(strPath, pError)) return false;
        FilePtr pOut(fdopen(dup(STDOUT_FILENO), "wb"));
        if (!pOut || !Encode(pOut.get(), pPixels, nWidth, nHeight) || std::fflush(pOut.get()) != 0) {
            *pError = Problem("standard output", errno != 0 ? std::strerror(errno) : "PNG encoding failed");
            return false;
        }
        return true;
    }
    return WriteSafely(
        strPath, [&](std::FILE* pOut) { return Encode(pOut, pPixels, nWidth, nHeight); }, "PNG encoding failed",
        pError);
}

bool EncodeGrey(const unsigned char* pPixels, unsigned nWidth, unsigned nHeight, std::vector<unsigned char>* pOut)
{
    char* pBuf = nullptr;
    size_t nSize = 0;
    std::FILE* pMem = open_memstream(&pBuf, &nSize);
    if (pMem == nullptr) return false;
    const bool bEncoded = Encode(pMem, pPixels, nWidth, nHeight);
    const bool bClosed = std::fclose(pMem) == 0;
    if (bEncoded && bClosed) pOut->assign(pBuf, pBuf + nSize);
    std::free(pBuf);
    return bEncoded && bClosed;
}

bool DecodeGrey(const unsigned char* pData, size_t nSize, GreyImage* pImage, std::string* pError)
{
    unsigned char abySignature[8] = {};
    if (nSize < sizeof abySignature || png_sig_cmp(pData, 0, sizeof abySignature) != 0) {
        *pError = "not a PNG stream";
        return false;
    }
    FilePtr pFile(fmemopen(const_cast<unsigned char*>(pData), nSize, "rb"));
    if (!pFile || std::fread(abySignature, 1, sizeof abySignature, pFile.get()) != sizeof abySignature) {
        *pError = "out of memory";
        return false;
    }
    GreyImage image;
    const EResult eResult = Decode(pFile.get(), &image);
    if (eResult == kOk) {
        *pImage = std::move(image);
        return true;
    }
    *pError = eResult == kNoMemory ? "out of memory"
              : eResult == kLayout ? "unsupported pixel layout"
                                   : "corrupt PNG stream";
    return false;
}

#else

bool ReadGrey(const std::string& strPath, GreyImage*, std::string* pError)
{
    *pError = Problem(strPath, "this build has no PNG support (libpng was not found)");
    return false;
}

bool WriteGrey(const std::string& strPath, const unsigned char*, unsigned, unsigned, std::string* pError)
{
    *pError = Problem(strPath, "this build has no PNG support (libpng was not found)");
    return false;
}

bool EncodeGrey(const unsigned char*, unsigned, unsigned, std::vector<unsigned char>*) { return false; }

bool DecodeGrey(const unsigned char*, size_t, GreyImage*, std::string* pError)
{
    *pError = "this build has no PNG support (libpng was not found)";
    return false;
}

#endif

}  // namespace tavk05png

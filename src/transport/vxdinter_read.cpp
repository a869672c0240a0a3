// CVxdInterface: frame and latent reads from the scanner's device node.
#include "tavk05/vxdinter.h"

#include <sys/ioctl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "profile/model_profile.h"

namespace {

const char kAllocMessage[] = "buffer allocation for iso read failed:";

// Types 5 to 8 deliver a clean frame per read; the older sensors are noisy
// enough that a single capture averages four consecutive frames.
int FramesAveraged(int nDevType, int nFirmware)
{
    return tavk05profile::ProfileOf(nDevType, tavk05profile::IsNewFirmware(nFirmware), tavk05profile::LibraryModels())
        .nReadsAveraged;
}

void ReportAllocFailure()
{
    errno = ENOMEM;
    std::perror(kAllocMessage);
}

// One read of nTransfer bytes into pStage. Whatever the read did not fill is
// zeroed, so a short or failed transfer never hands on stale memory; the
// count itself is not reported, as the kernel driver delivers whole frames.
void ReadFrame(int hDevice, unsigned char* pStage, unsigned long nTransfer)
{
    const ssize_t nRead = read(hDevice, pStage, nTransfer);
    const unsigned long nFilled = nRead > 0 ? static_cast<unsigned long>(nRead) : 0;
    if (nFilled < nTransfer) {
        std::memset(pStage + nFilled, 0, nTransfer - nFilled);
    }
}

bool SendRequest(int hDevice, unsigned long nRequest) { return ioctl(hDevice, nRequest, 0UL) >= 0; }

// The checks every read makes before it touches the device: a buffer, an
// open node and a length that can be rounded to whole transfer blocks.
int CheckRead(const unsigned char* pBuf, int hDevice, unsigned long nBytes, unsigned long* pTransfer)
{
    if (pBuf == nullptr) {
        return VXD_E_INVALID;
    }
    if (hDevice < 0) {
        return VXD_E_NOT_OPEN;
    }
    *pTransfer = CVxdInterface::TransferLength(nBytes);
    return *pTransfer < nBytes ? VXD_E_INVALID : VXD_OK;
}

}  // namespace

unsigned long CVxdInterface::TransferLength(unsigned long nBytes)
{
    // Up to a multiple of 512, then an odd multiple of 512 grows by 512 more:
    // in effect, up to the next multiple of 1024. A length so close to the
    // top of the range that it cannot be rounded gives 0.
    if (nBytes > ULONG_MAX - 1023UL) {
        return 0;
    }
    unsigned long nTransfer = (nBytes + 511UL) & ~511UL;
    if ((nTransfer / 512UL) % 2UL != 0) {
        nTransfer += 512UL;
    }
    return nTransfer;
}

int CVxdInterface::ReadData(unsigned char* pBuf, unsigned long nBytes, unsigned long /*nTimeout*/)
{
    unsigned long nTransfer = 0;
    if (const int nCheck = CheckRead(pBuf, m_hDevice, nBytes, &nTransfer)) {
        return nCheck;
    }
    std::memset(pBuf, 0, nTransfer);
    if (!SendRequest(m_hDevice, VXD_REQ_START_ACQUISITION)) {
        return VXD_E_REQUEST;
    }

    std::unique_ptr<unsigned char[]> pStage(new (std::nothrow) unsigned char[nTransfer]);
    if (!pStage) {
        ReportAllocFailure();
        return VXD_E_ALLOC;
    }
    const int nFrames = FramesAveraged(m_nDevType, m_nFirmwareVersion);
    if (nFrames == 1) {
        ReadFrame(m_hDevice, pStage.get(), nTransfer);
        std::memcpy(pBuf, pStage.get(), nBytes);
    } else {
        // Four byte values sum to at most 1020, so 16 bits per position hold
        // the sum without overflow.
        static_assert(tavk05profile::ProfileOf(0, false).nReadsAveraged * 255 <= 0xFFFF, "sum fits 16 bits");
        std::unique_ptr<unsigned short[]> pSum(new (std::nothrow) unsigned short[nTransfer]);
        if (!pSum) {
            ReportAllocFailure();
            return VXD_E_ALLOC;
        }
        ReadFrame(m_hDevice, pStage.get(), nTransfer);
        const unsigned char* pSrc = pStage.get();
        unsigned short* pAcc = pSum.get();
        for (unsigned long i = 0; i < nTransfer; ++i) {
            pAcc[i] = pSrc[i];
        }
        for (int nFrame = 1; nFrame < nFrames; ++nFrame) {
            ReadFrame(m_hDevice, pStage.get(), nTransfer);
            for (unsigned long i = 0; i < nTransfer; ++i) {
                pAcc[i] = static_cast<unsigned short>(pAcc[i] + pSrc[i]);
            }
        }
        for (unsigned long i = 0; i < nBytes; ++i) {
            pBuf[i] = static_cast<unsigned char>(pAcc[i] / nFrames);
        }
    }

    if (!SendRequest(m_hDevice, VXD_REQ_STOP_ACQUISITION)) {
        return VXD_E_REQUEST;
    }
    return VXD_OK;
}

int CVxdInterface::ReadDataEx(unsigned char* pBuf, unsigned long nBytes, unsigned long /*nTimeout*/)
{
    unsigned long nTransfer = 0;
    if (const int nCheck = CheckRead(pBuf, m_hDevice, nBytes, &nTransfer)) {
        return nCheck;
    }
    std::memset(pBuf, 0, nTransfer);
    std::unique_ptr<unsigned char[]> pStage(new (std::nothrow) unsigned char[nTransfer]);
    if (!pStage) {
        return VXD_E_ALLOC;
    }
    ReadFrame(m_hDevice, pStage.get(), nTransfer);
    std::memcpy(pBuf, pStage.get(), nBytes);
    return VXD_OK;
}

int CVxdInterface::ReadLatent(unsigned char* pBuf, unsigned long nBytes)
{
    unsigned long nTransfer = 0;
    if (const int nCheck = CheckRead(pBuf, m_hDevice, nBytes, &nTransfer)) {
        return nCheck;
    }
    if (!SendRequest(m_hDevice, VXD_REQ_START_ACQUISITION)) {
        return VXD_E_REQUEST;
    }
    std::unique_ptr<unsigned char[]> pStage(new (std::nothrow) unsigned char[nTransfer]);
    if (!pStage) {
        ReportAllocFailure();
        return VXD_E_ALLOC;
    }
    ReadFrame(m_hDevice, pStage.get(), nTransfer);
    std::memcpy(pBuf, pStage.get(), nBytes);
    if (!SendRequest(m_hDevice, VXD_REQ_STOP_ACQUISITION)) {
        return VXD_E_REQUEST;
    }
    return VXD_OK;
}

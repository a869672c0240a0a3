// Prints one line "NAME DIGEST" for every table and processing path of the
// driver, computed from deterministic inputs. Both ABIs must print the same.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "profile/model_profile.h"
#include "tavk05/isproc.h"
#include "tavk05/mark.h"
#include "tavk05/oberin.h"
#include "tavk05/virtual.h"

namespace {

uint64_t Fnv(const void* pData, size_t nBytes, uint64_t nHash = 1469598103934665603ULL)
{
    const unsigned char* p = static_cast<const unsigned char*>(pData);
    for (size_t i = 0; i < nBytes; ++i) {
        nHash = (nHash ^ p[i]) * 1099511628211ULL;
    }
    return nHash;
}

void Print(const char* pszName, uint64_t nHash)
{
    std::printf("%-28s %016llx\n", pszName, static_cast<unsigned long long>(nHash));
}

// Deterministic pseudo-random bytes (no dependence on the C library's rand).
void Fill(std::vector<unsigned char>& vec, uint32_t nSeed)
{
    for (unsigned char& by : vec) {
        nSeed = nSeed * 1664525u + 1013904223u;
        by = static_cast<unsigned char>(nSeed >> 24);
    }
}

uint64_t TableDigest(tagModifyEntry** ppRows, int nRows, int nEntries)
{
    uint64_t nHash = 1469598103934665603ULL;
    for (int r = 0; r < nRows; ++r) {
        for (int e = 0; e < nEntries; ++e) {
            const tagModifyEntry& m = ppRows[r][e];
            nHash = Fnv(&m.fSrcRow, sizeof m.fSrcRow, nHash);
            nHash = Fnv(&m.fSrcCol, sizeof m.fSrcCol, nHash);
            nHash = Fnv(&m.nSrcRow, sizeof m.nSrcRow, nHash);
            nHash = Fnv(&m.nSrcCol, sizeof m.nSrcCol, nHash);
            nHash = Fnv(&m.nDstRight, sizeof m.nDstRight, nHash);
            nHash = Fnv(&m.nDstLeft, sizeof m.nDstLeft, nHash);
            nHash = Fnv(m.nSrcIndex, sizeof m.nSrcIndex, nHash);
            nHash = Fnv(m.fWeight, sizeof m.fWeight, nHash);
        }
    }
    return nHash;
}

}  // namespace

// Prints every digest; the exit status.
int PrintDigests()
{
    Print("usXtable", Fnv(usXtable, sizeof usXtable));
    Print("usYtable", Fnv(usYtable, sizeof usYtable));
    Print("usXtable1103", Fnv(usXtable1103, sizeof usXtable1103));
    Print("usYtable1103", Fnv(usYtable1103, sizeof usYtable1103));
    Print("pModBuf", Fnv(pModBuf, sizeof pModBuf));

    std::unique_ptr<CImageProc> pProc(new CImageProc);
    Print("modify-table", TableDigest(pProc->m_ppModifyTable, MODIFY_SIZE, MODIFY_SIZE / 2));
    Print("modify-table-ex", TableDigest(pProc->m_ppModifyTableEx, MODIFY_SIZE_EX, MODIFY_SIZE_EX / 2));

    // One correction path per model profile row that has its own.
    struct Path {
        const char* pszName;
        const tavk05profile::ModelProfile& profile;
    };
    const Path aPaths[] = {
        {"correct-1280x676", tavk05profile::ProfileOf(4, false)},
        {"correct-1103-1288x876", tavk05profile::ProfileOf(6, false)},
        {"correct-1103-1800x1280", tavk05profile::ProfileOf(5, true)},
        {"calc-1288x876", tavk05profile::ProfileOf(7, false)},
        {"calc-ex-1800x1280", tavk05profile::ProfileOf(8, true)},
    };
    std::vector<unsigned char> vecOut(IMG_PIXELS);
    for (const Path& entry : aPaths) {
        const tavk05profile::ModelProfile& path = entry.profile;
        std::vector<unsigned char> vecRaw(path.nRawWidth * path.nRawHeight);
        std::vector<unsigned char> vecGrey(vecRaw.size());
        Fill(vecRaw, static_cast<uint32_t>(path.nRawWidth * 31 + path.nRawHeight));
        pProc->RGBtoGRAY2(vecRaw.data(), vecGrey.data(), static_cast<int>(path.nRawWidth),
                          static_cast<int>(path.nRawHeight));
        char szName[64];
        std::snprintf(szName, sizeof szName, "grey-%lux%lu", path.nRawWidth, path.nRawHeight);
        Print(szName, Fnv(vecGrey.data(), vecGrey.size()));

        pProc->m_nDeviceType = path.nDeviceType;
        std::memset(vecOut.data(), 0, vecOut.size());
        if (path.eCorrection == tavk05profile::kCorrectTables) {
            pProc->CorrectImage(vecGrey.data(), path.nRawWidth, path.nRawHeight, vecOut.data(), 600, 600, 0, 0);
        } else if (path.eCorrection == tavk05profile::kCorrectCalc) {
            pProc->CorrectImageCalc(vecGrey.data(), path.nRawWidth, path.nRawHeight, vecOut.data(), 600, 600, 0, 0);
        } else {
            pProc->CorrectImageCalcEx(vecGrey.data(), path.nRawWidth, path.nRawHeight, vecOut.data(), 600, 600, 0, 0);
        }
        SetLTWaterM(vecOut.data(), 600, 600);
        SetRTWaterM(vecOut.data(), 600, 600);
        SetLBWaterM(vecOut.data(), 600, 600);
        SetRBWaterM(vecOut.data(), 600, 600);
        Print(entry.pszName, Fnv(vecOut.data(), vecOut.size()));
    }
    pProc.reset();

    // Whole captures through the sensor on virtual units of every model: the
    // frames the virtual scanner renders and the driver's processing.
    const char* const apszUnits[] = {"model=3",           "model=4",           "model=5",       "model=6",
                                     "model=7,fw=0x2000", "model=8,fw=0x3000", "product=0x0630"};
    for (const char* pszUnit : apszUnits) {
        if (!tavk05virt::Attach(std::string("0:scene=flat,seed=4,") + pszUnit)) return 1;
        ISensor* pSensor = nullptr;
        if (CreateISensor(nullptr, &pSensor) != 0 || pSensor->OpenDevice(0, 0) != 0) return 1;
        pSensor->SetContrast(35);
        std::memset(vecOut.data(), 0, vecOut.size());
        char szName[64];
        std::snprintf(szName, sizeof szName, "capture-%s", pszUnit);
        Print(szName, pSensor->GetImage(vecOut.data()) == 0 ? Fnv(vecOut.data(), vecOut.size()) : 0);
        DestroyISensor(pSensor);
        tavk05virt::DetachAll();
    }
    return 0;
}

int main()
{
    // The sensors made below write their settings when destroyed: to a file
    // of this run, never to /etc/tavk05rf.conf.
    char szDir[] = "/tmp/tavk05-digest-XXXXXX";
    if (mkdtemp(szDir) == nullptr) return 1;
    const std::string strConf = std::string(szDir) + "/tavk05rf.conf";
    setenv("TAVK05_CONF", strConf.c_str(), 1);
    const int nExit = PrintDigests();
    unlink(strConf.c_str());
    rmdir(szDir);
    return nExit;
}

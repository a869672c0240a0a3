// Writes seed records for the fuzz harnesses into the folder given: small
// uncompressed finger images in ISO/IEC 19794-4 (2005, 2011) records and in
// ANSI/NIST-ITL transactions with Type-14 and Type-4 records.
#include <cstdio>
#include <string>
#include <vector>

#include "ansi_nist.h"
#include "iso19794.h"

using namespace tavk05rec;

namespace {

bool Save(const std::string& strPath, const std::vector<unsigned char>& bytes)
{
    FILE* pFile = std::fopen(strPath.c_str(), "wb");
    if (pFile == nullptr) {
        return false;
    }
    const bool bOk = std::fwrite(bytes.data(), 1, bytes.size(), pFile) == bytes.size();
    return std::fclose(pFile) == 0 && bOk;
}

}  // namespace

int main(int nArgs, char** ppArgs)
{
    if (nArgs != 3) {
        std::fprintf(stderr, "usage: fuzz_seeds ISO-DIR NIST-DIR\n");
        return 2;
    }
    FingerImage finger;
    finger.nFingerPosition = 2;
    finger.nImpression = 1;
    finger.nQuality = 80;
    finger.nWidth = 12;
    finger.nHeight = 9;
    for (int i = 0; i < finger.nWidth * finger.nHeight; ++i) {
        finger.data.push_back(static_cast<unsigned char>(i * 7));
    }
    const std::string strIso = ppArgs[1];
    const std::string strNist = ppArgs[2];
    std::vector<unsigned char> bytes;
    bool bOk = IsoWrite(2005, finger, IsoCapture(), bytes) == kRecOk && Save(strIso + "/iso2005", bytes);
    IsoCapture capture;
    capture.nYear = 2026;
    capture.nMonth = 11;
    capture.nDay = 26;
    bOk = bOk && IsoWrite(2011, finger, capture, bytes) == kRecOk && Save(strIso + "/iso2011", bytes);

    NistHeader header;
    header.strTot = "CAR";
    header.strDate = "20261126";
    header.nPriority = 4;
    header.strDai = "DAI000000";
    header.strOri = "ORI000000";
    header.strTcn = "TCN1";
    header.strDomName = "NORAM";
    header.strDomVersion = "1";
    std::vector<NistFinger> fingers(2);
    fingers[0].image = finger;
    fingers[1].nRecordType = 4;
    fingers[1].image = finger;
    bOk = bOk && NistWrite(header, fingers, bytes) == kRecOk && Save(strNist + "/type14-type4", bytes);
    fingers.resize(1);
    bOk = bOk && NistWrite(header, fingers, bytes) == kRecOk && Save(strNist + "/type14", bytes);
    return bOk ? 0 : 1;
}

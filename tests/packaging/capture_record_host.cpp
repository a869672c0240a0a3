// From the scanner to an ANSI/NIST-ITL transaction: one capture through
// ISensor, compressed to WSQ, sent as a Type-1 and a Type-14 record.
// The README quotes this host; the packaging check builds it against the
// installed packages and runs it on the virtual scanner.
#include <cstdio>
#include <memory>
#include <vector>

#include <tavk05/isensor.h>
#include <tavk05/records.h>

using RecBuffer = std::unique_ptr<unsigned char, void (*)(void*)>;

int main(int argc, char** argv)
{
    const char* pszOut = argc > 1 ? argv[1] : "finger.an2";

    // One finished 600 x 600 image, 500 ppi, from /dev/tavk050.
    std::vector<unsigned char> vecImage(600 * 600);
    ISensor* pSensor = nullptr;
    if (CreateISensor(nullptr, &pSensor) != 0) return 1;
    unsigned long nStatus = pSensor->OpenDevice(0, 0);
    if (nStatus == 0) nStatus = pSensor->GetImage(vecImage.data());
    DestroyISensor(pSensor);
    if (nStatus != 0) {
        std::fprintf(stderr, "capture: %s\n", Tavk05StatusText(nStatus));
        return 2;
    }

    // WSQ at 0.75 bit per pixel.
    unsigned char* pData = nullptr;
    size_t nWsq = 0;
    int nRec = Tavk05WsqEncode(vecImage.data(), 600, 600, 500, 0.75, &pData, &nWsq);
    RecBuffer wsq(pData, Tavk05RecordsFree);
    if (nRec != TAVK05_REC_OK) {
        std::fprintf(stderr, "WSQ: %s\n", Tavk05RecordsStatusText(nRec));
        return 3;
    }

    // Type-1 with the receiving domain's fields (the date, left empty, is
    // today's), then a Type-14 record carrying the WSQ stream as it is.
    Tavk05NistHeader header = {};
    std::snprintf(header.szTot, sizeof header.szTot, "CAR");
    std::snprintf(header.szDai, sizeof header.szDai, "DAI000000");
    std::snprintf(header.szOri, sizeof header.szOri, "ORI000000");
    std::snprintf(header.szTcn, sizeof header.szTcn, "STATION1-000001");
    Tavk05NistFinger record = {};
    record.nRecordType = 14;
    record.finger.nFingerPosition = 2;  // right index
    record.finger.nImpression = TAVK05_REC_LIVE_PLAIN;
    record.finger.nQuality = TAVK05_REC_QUALITY_NONE;
    record.finger.nCompression = TAVK05_REC_COMP_WSQ;
    record.finger.nPpi = 500;
    record.finger.nWidth = 600;
    record.finger.nHeight = 600;
    record.finger.pData = wsq.get();
    record.finger.nDataSize = nWsq;
    size_t nSize = 0;
    nRec = Tavk05NistWrite(&header, &record, 1, &pData, &nSize);
    RecBuffer transaction(pData, Tavk05RecordsFree);
    if (nRec != TAVK05_REC_OK) {
        std::fprintf(stderr, "ANSI/NIST-ITL: %s\n", Tavk05RecordsStatusText(nRec));
        return 4;
    }

    std::FILE* pFile = std::fopen(pszOut, "wb");
    const bool bWritten = pFile != nullptr && std::fwrite(transaction.get(), 1, nSize, pFile) == nSize;
    if (pFile != nullptr && std::fclose(pFile) != 0) return 5;
    if (!bWritten) return 5;
    std::printf("capture record host: %s, %zu bytes (WSQ %zu bytes)\n", pszOut, nSize, nWsq);
    return 0;
}

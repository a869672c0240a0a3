// ANSI/NIST-ITL 1-2011 transactions: a Type-1 transaction record followed
// by finger image records, variable-resolution Type-14 (tagged fields) or
// binary Type-4. Written as version 0500; 0500, 0501 and 0502 are read.
#ifndef TAVK05_RECORDS_ANSI_NIST_H
#define TAVK05_RECORDS_ANSI_NIST_H

#include <cstddef>
#include <string>
#include <vector>

#include "records_common.h"

namespace tavk05rec {

struct NistHeader {
    std::string strVersion;  // read only: written as "0500"
    std::string strTot;      // 1.004
    std::string strDate;     // 1.005 YYYYMMDD
    int nPriority = 0;       // 1.006, 0 when absent
    std::string strDai;      // 1.007
    std::string strOri;      // 1.008
    std::string strTcn;      // 1.009
    std::string strDomName;  // 1.013, empty when absent
    std::string strDomVersion;
};

struct NistFinger {
    int nRecordType = 14;  // 14 or 4
    FingerImage image;
};

struct NistTransaction {
    NistHeader header;
    std::vector<int> recordTypes;  // every record after Type-1, in order
    std::vector<NistFinger> fingers;
};

RecStatus NistWrite(const NistHeader& header, const std::vector<NistFinger>& fingers, std::vector<unsigned char>& out);
RecStatus NistRead(const unsigned char* pData, size_t nSize, NistTransaction& transaction);

}  // namespace tavk05rec

#endif

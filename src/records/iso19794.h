// ISO/IEC 19794-4 finger image records: the 2005 edition (version "010") and
// the 2011 edition (version "020"), one finger view per record written, every
// view of every finger read.
#ifndef TAVK05_RECORDS_ISO19794_H
#define TAVK05_RECORDS_ISO19794_H

#include <cstddef>
#include <vector>

#include "records_common.h"

namespace tavk05rec {

// The fields of the 2011 representation header that 2005 records lack.
struct IsoCapture {
    int nYear = 0;  // 0: capture date and time unknown
    int nMonth = 0;
    int nDay = 0;
    int nHour = 0;
    int nMinute = 0;
    int nSecond = 0;
    int nMillisecond = 0;
    int nDeviceTechnology = 0;
    int nVendorId = 0;
    int nDeviceType = 0;
};

// nVersion is 2005 or 2011.
RecStatus IsoWrite(int nVersion, const FingerImage& finger, const IsoCapture& capture, std::vector<unsigned char>& out);

// Every finger view of a record, in record order; nVersion becomes 2005 or 2011.
RecStatus IsoRead(const unsigned char* pData, size_t nSize, int& nVersion, std::vector<FingerImage>& fingers);

}  // namespace tavk05rec

#endif

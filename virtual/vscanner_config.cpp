// Parser of the virtual scanner's unit configuration.
#include "vscanner_config.h"

#include "scene_source.h"

#include <cctype>
#include <climits>

#include "profile/model_profile.h"
#include "vscanner_registry.h"
#include "vscanner_render.h"
#include "vscanner_requests.h"

namespace tavk05virt {

namespace {

const std::size_t kMaxSerial = 32;
const std::size_t kMaxLevels = 64;

std::string Trim(const std::string& str)
{
    std::size_t nBegin = 0;
    std::size_t nEnd = str.size();
    while (nBegin < nEnd && std::isspace(static_cast<unsigned char>(str[nBegin]))) ++nBegin;
    while (nEnd > nBegin && std::isspace(static_cast<unsigned char>(str[nEnd - 1]))) --nEnd;
    return str.substr(nBegin, nEnd - nBegin);
}

std::vector<std::string> Split(const std::string& str, char cSep)
{
    std::vector<std::string> vec;
    std::size_t nStart = 0;
    for (;;) {
        const std::size_t nPos = str.find(cSep, nStart);
        if (nPos == std::string::npos) {
            vec.push_back(str.substr(nStart));
            return vec;
        }
        vec.push_back(str.substr(nStart, nPos - nStart));
        nStart = nPos + 1;
    }
}

// Unsigned number, decimal or with a 0x prefix in hex; no sign, no blanks.
bool ParseNumber(const std::string& str, unsigned long* pValue)
{
    unsigned long nBase = 10;
    std::size_t i = 0;
    if (str.size() > 2 && str[0] == '0' && (str[1] == 'x' || str[1] == 'X')) {
        nBase = 16;
        i = 2;
    }
    if (i >= str.size()) {
        return false;
    }
    unsigned long nValue = 0;
    for (; i < str.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(str[i]);
        unsigned long nDigit;
        if (c >= '0' && c <= '9') {
            nDigit = c - '0';
        } else if (nBase == 16 && std::isxdigit(c)) {
            nDigit = static_cast<unsigned long>(std::tolower(c) - 'a' + 10);
        } else {
            return false;
        }
        if (nValue > (ULONG_MAX - nDigit) / nBase) {
            return false;
        }
        nValue = nValue * nBase + nDigit;
    }
    *pValue = nValue;
    return true;
}

bool NumberIn(const std::string& strKey, const std::string& strValue, unsigned long nMin, unsigned long nMax,
              unsigned long* pValue, std::string* pError)
{
    unsigned long nValue = 0;
    if (!ParseNumber(strValue, &nValue)) {
        *pError = strKey + ": '" + strValue + "' is not a number (decimal or 0x hex)";
        return false;
    }
    if (nValue < nMin || nValue > nMax) {
        *pError = strKey + ": " + strValue + " is outside " + std::to_string(nMin) + ".." + std::to_string(nMax);
        return false;
    }
    *pValue = nValue;
    return true;
}

// "A" or "A@N" into two numbers; N defaults to 1.
bool ParseWithFrom(const std::string& strKey, const std::string& strValue, unsigned long nMin, unsigned long nMax,
                   unsigned long* pValue, unsigned long* pFrom, std::string* pError)
{
    const std::size_t nAt = strValue.find('@');
    *pFrom = 1;
    if (nAt != std::string::npos &&
        !NumberIn(strKey + " (call number after @)", strValue.substr(nAt + 1), 1, ULONG_MAX, pFrom, pError)) {
        return false;
    }
    return NumberIn(strKey, strValue.substr(0, nAt), nMin, nMax, pValue, pError);
}

// record=FILE and replay=FILE: not one of the nodes the virtual scanner
// answers for.
bool ParseSessionFile(const std::string& strKey, const std::string& strValue, UnitKeys* pKeys, std::string* pError)
{
    if (DeviceIndexOfPath(strValue.c_str()) >= 0) {
        *pError = strKey + ": '" + strValue + "' is a scanner node, not a recording file";
        return false;
    }
    (strKey == "record" ? pKeys->strRecord : pKeys->strReplay) = strValue;
    return true;
}

// clearfaults, replug and virtual.
bool ParseFlag(const std::string& strKey, const std::string&, UnitKeys* pKeys, std::string*)
{
    (strKey == "clearfaults" ? pKeys->bClearFaults
     : strKey == "replug"    ? pKeys->bReplug
                             : pKeys->bRecordVirtual) = true;
    return true;
}

// openfail[=N] and readfail[=N]: from the Nth call on, 1 without a value.
bool ParseFaultFrom(const std::string& strKey, const std::string& strValue, UnitKeys* pKeys, std::string* pError)
{
    unsigned long n = 1;
    if (!strValue.empty() && !NumberIn(strKey, strValue, 1, ULONG_MAX, &n, pError)) return false;
    (strKey == "openfail" ? pKeys->nOpenFailFrom : pKeys->nReadFailFrom) = n;
    return true;
}

// fw=, product= and vendor=: 16-bit fields of the device descriptor.
bool ParseDescriptorWord(const std::string& strKey, const std::string& strValue, UnitKeys* pKeys, std::string* pError)
{
    unsigned long n = 0;
    if (!NumberIn(strKey, strValue, 0, 0xFFFF, &n, pError)) return false;
    (strKey == "fw"        ? pKeys->wFirmware
     : strKey == "product" ? pKeys->wProduct
                           : pKeys->wVendor) = static_cast<unsigned short>(n);
    return true;
}

enum ValueUse { kNoValue, kOptionalValue, kNeedsValue };

// One configuration key: its name, whether it takes a value, and the one
// place where that value is parsed into the key set.
struct KeyDef {
    const char* pszName;
    ValueUse eValue;
    bool (*pfnParse)(const std::string& strKey, const std::string& strValue, UnitKeys* pKeys, std::string* pError);
};

const KeyDef kKeys[] = {
    {"model", kNeedsValue,
     [](const std::string& strKey, const std::string& strValue, UnitKeys* pKeys, std::string* pError) {
         unsigned long n = 0;
         if (!NumberIn(strKey, strValue, tavk05profile::FirstModel(), tavk05profile::LastModel(), &n, pError))
             return false;
         pKeys->nModel = static_cast<int>(n);
         return true;
     }},
    {"fw", kNeedsValue, ParseDescriptorWord},
    {"product", kNeedsValue, ParseDescriptorWord},
    {"vendor", kNeedsValue, ParseDescriptorWord},
    {"serial", kNeedsValue,
     [](const std::string&, const std::string& strValue, UnitKeys* pKeys, std::string* pError) {
         if (strValue.size() > kMaxSerial) {
             *pError = "serial: longer than " + std::to_string(kMaxSerial) + " characters";
             return false;
         }
         for (const char c : strValue) {
             if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.') {
                 *pError = "serial: '" + strValue + "' may hold only letters, digits, '-', '_' and '.'";
                 return false;
             }
         }
         pKeys->strSerial = strValue;
         return true;
     }},
    {"scene", kNeedsValue,
     [](const std::string&, const std::string& strValue, UnitKeys* pKeys, std::string* pError) {
         if (!IsKnownScene(strValue)) {
             *pError = "scene: unknown scene '" + strValue + "' (known: pattern, levels, " + SceneKindList() + ")";
             return false;
         }
         pKeys->strScene = strValue;
         return true;
     }},
    {"levels", kNeedsValue,
     [](const std::string&, const std::string& strValue, UnitKeys* pKeys, std::string* pError) {
         std::vector<unsigned char> vec;
         for (const std::string& strLevel : Split(strValue, '/')) {
             unsigned long n = 0;
             if (!NumberIn("levels", strLevel, 0, 255, &n, pError)) return false;
             vec.push_back(static_cast<unsigned char>(n));
         }
         if (vec.size() > kMaxLevels) {
             *pError = "levels: more than " + std::to_string(kMaxLevels) + " values";
             return false;
         }
         pKeys->vecLevels = vec;
         if (!pKeys->strScene) pKeys->strScene = "levels";
         return true;
     }},
    {"delay", kNeedsValue,
     [](const std::string& strKey, const std::string& strValue, UnitKeys* pKeys, std::string* pError) {
         unsigned long n = 0;
         if (!NumberIn(strKey, strValue, 0, 60000, &n, pError)) return false;
         pKeys->nDelayMs = static_cast<unsigned>(n);
         return true;
     }},
    {"fps", kNeedsValue,
     [](const std::string& strKey, const std::string& strValue, UnitKeys* pKeys, std::string* pError) {
         unsigned long n = 0;
         if (!NumberIn(strKey, strValue, 0, 1000, &n, pError)) return false;
         pKeys->nFps = static_cast<unsigned>(n);
         return true;
     }},
    {"fail", kNeedsValue,
     [](const std::string& strKey, const std::string& strValue, UnitKeys* pKeys, std::string* pError) {
         unsigned long n = 0;
         unsigned long nFrom = 0;
         if (!ParseWithFrom(strKey, strValue, 0, ULONG_MAX, &n, &nFrom, pError)) return false;
         if (FindRequest(n) == nullptr) {
             *pError = "fail: request " + std::to_string(n) + " is none the unit answers (" + RequestList() + ")";
             return false;
         }
         pKeys->vecFail.push_back(FailRule{n, nFrom});
         return true;
     }},
    {"openfail", kOptionalValue, ParseFaultFrom},
    {"readfail", kOptionalValue, ParseFaultFrom},
    {"shortread", kNeedsValue,
     [](const std::string& strKey, const std::string& strValue, UnitKeys* pKeys, std::string* pError) {
         unsigned long n = 0;
         unsigned long nFrom = 0;
         if (!ParseWithFrom(strKey, strValue, 0, ULONG_MAX, &n, &nFrom, pError)) return false;
         pKeys->shortRead = ShortRead{n, nFrom};
         return true;
     }},
    {"unplug", kNeedsValue,
     [](const std::string& strKey, const std::string& strValue, UnitKeys* pKeys, std::string* pError) {
         unsigned long n = 0;
         if (!NumberIn(strKey, strValue, 0, ULONG_MAX, &n, pError)) return false;
         pKeys->nUnplugAfter = n;
         return true;
     }},
    {"clearfaults", kNoValue, ParseFlag},
    {"replug", kNoValue, ParseFlag},
    {"record", kNeedsValue, ParseSessionFile},
    {"virtual", kNoValue, ParseFlag},
    {"replay", kNeedsValue, ParseSessionFile},
};

bool ParseOneKey(const std::string& strKey, bool bHasValue, const std::string& strValue, UnitKeys* pKeys,
                 std::string* pError)
{
    for (const KeyDef& def : kKeys) {
        if (strKey != def.pszName) continue;
        if (def.eValue == kNoValue && bHasValue) {
            *pError = strKey + " takes no value";
            return false;
        }
        if (def.eValue != kNoValue && strValue.empty() && (bHasValue || def.eValue == kNeedsValue)) {
            *pError = "key '" + strKey + "' needs a value";
            return false;
        }
        return def.pfnParse(strKey, strValue, pKeys, pError);
    }
    // The finger scenes parse their own keys.
    if (IsFingerSceneKey(strKey)) {
        if (strValue.empty()) {
            *pError = "key '" + strKey + "' needs a value";
            return false;
        }
        if (!CheckFingerSceneKey(strKey, strValue, pError)) return false;
        pKeys->vecSceneKeys.emplace_back(strKey, strValue);
        return true;
    }
    *pError = "unknown key '" + strKey + "'";
    return false;
}

}  // namespace

bool ParseKeys(const std::string& strKeys, UnitKeys* pKeys, std::string* pError)
{
    const std::string strTrimmed = Trim(strKeys);
    if (strTrimmed.empty()) {
        return true;
    }
    for (const std::string& strItem : Split(strTrimmed, ',')) {
        const std::string strPair = Trim(strItem);
        if (strPair.empty()) {
            *pError = "empty key in '" + strTrimmed + "'";
            return false;
        }
        const std::size_t nEq = strPair.find('=');
        const bool bHasValue = nEq != std::string::npos;
        const std::string strKey = Trim(strPair.substr(0, nEq));
        const std::string strValue = bHasValue ? Trim(strPair.substr(nEq + 1)) : std::string();
        if (strKey.empty()) {
            *pError = "missing key name in '" + strPair + "'";
            return false;
        }
        if (!ParseOneKey(strKey, bHasValue, strValue, pKeys, pError)) {
            return false;
        }
    }
    if (pKeys->strScene && *pKeys->strScene == "levels" && !pKeys->vecLevels) {
        *pError = "scene=levels needs levels=V1/V2/...";
        return false;
    }
    bool abPrints[2] = {};
    for (const auto& key : pKeys->vecSceneKeys)
        abPrints[key.first == "images"] |= key.first.compare(0, 5, "image") == 0;
    if (abPrints[0] && abPrints[1]) {
        *pError = "image= and images= contradict each other (give one print or one folder)";
        return false;
    }
    if (pKeys->bRecordVirtual && !pKeys->strRecord) {
        *pError = "virtual goes with record=FILE";
        return false;
    }
    return true;
}

bool ParseUnit(const std::string& strSegment, int* pIndex, UnitKeys* pKeys, std::string* pError)
{
    const std::string str = Trim(strSegment);
    const std::size_t nColon = str.find(':');
    if (nColon == std::string::npos) {
        *pError = "'" + str + "': expected INDEX:key=value,...";
        return false;
    }
    const std::string strIndex = Trim(str.substr(0, nColon));
    if (strIndex.size() != 1 || strIndex[0] < '0' || strIndex[0] > '7') {
        *pError = "'" + str + "': unit index must be 0..7";
        return false;
    }
    *pIndex = strIndex[0] - '0';
    std::string strError;
    if (!ParseKeys(str.substr(nColon + 1), pKeys, &strError)) {
        *pError = "unit " + strIndex + ": " + strError;
        return false;
    }
    return true;
}

std::vector<std::string> SplitUnits(const std::string& strUnits)
{
    std::vector<std::string> vec;
    for (const std::string& strSegment : Split(strUnits, ';')) {
        std::string str = Trim(strSegment);
        if (!str.empty()) vec.push_back(str);
    }
    return vec;
}

bool ParseUnits(const std::string& strUnits, std::vector<std::pair<int, UnitKeys>>* pUnits, std::string* pError)
{
    std::vector<std::pair<int, UnitKeys>> vecUnits;
    bool abSeen[8] = {};
    for (const std::string& strSegment : SplitUnits(strUnits)) {
        int nIndex = 0;
        UnitKeys keys;
        if (!ParseUnit(strSegment, &nIndex, &keys, pError)) {
            return false;
        }
        if (abSeen[nIndex]) {
            *pError = "unit " + std::to_string(nIndex) + " is given twice";
            return false;
        }
        abSeen[nIndex] = true;
        vecUnits.emplace_back(nIndex, std::move(keys));
    }
    *pUnits = std::move(vecUnits);
    return true;
}

const char* SyntaxText()
{
    return "Virtual TAVK05 units: INDEX:key=value,key=value;INDEX:...\n"
           "INDEX is 0..7 (the N of /dev/tavk05N). Numbers are decimal or 0x hex.\n"
           "Device:\n"
           "  model=3..8        product 0x0610 (3, 5, 7) or 0x0620 (4, 6, 8) with the model's\n"
           "                    firmware: 3/4 0x1004, 5/6 0x1103, 7/8 0x3000 (default model 4)\n"
           "  fw=V              bcdDevice (firmware version), 0..0xFFFF\n"
           "  product=V         idProduct, e.g. 0x0630 for a product the driver does not know\n"
           "  vendor=V          idVendor (default 0x1209)\n"
           "  serial=S          serial number (letters, digits, - _ .; at most 32); the device\n"
           "                    ID block reads \"TAVK05-<model>-<serial>\"\n"
           "Frames (one frame per read; a read returns min(requested, frame size) bytes):\n"
           "  scene=pattern     byte (x, y) of frame k is (x + y + k) mod 256, tail zero\n"
           "  scene=levels      every byte of frame k is levels[k mod n]\n"
           "  levels=V1/V2/...  grey levels 0..255 of the levels scene (selects it)\n"
           "  (without scene= and levels= a unit shows scene=person)\n"
           "  delay=MS          every read takes at least MS milliseconds more\n"
           "  fps=N             at most N frames a second (0: no pacing)\n" TAVK05_FINGER_SCENE_SYNTAX
           "Faults (counted from when the key is given):\n"
           "  fail=REQ[@N]      request REQ (4, 5, 8, 9, 17, 18, 21, 22) fails with EIO from\n"
           "                    its Nth call on (default: every call)\n"
           "  openfail[=N]      opens fail with ENODEV from the Nth on (default: every open)\n"
           "  readfail[=N]      reads fail with EIO from the Nth on (default: every read)\n"
           "  shortread=B[@N]   reads from the Nth on return at most B bytes\n"
           "  unplug=N          after N more requests and reads the unit vanishes: requests\n"
           "                    and reads fail with ENODEV, opens with ENOENT\n"
           "  clearfaults       removes all faults given so far (and a pending unplug)\n"
           "  replug            brings a vanished unit back\n"
           "Sessions (FILE may not hold ',' or ';'):\n"
           "  record=FILE       passes everything through to the real /dev/tavk05N and writes\n"
           "                    every open, close, request (with its block and result) and\n"
           "                    read (with its frame) to FILE\n"
           "  virtual           with record=: the unit answers itself (as configured) and\n"
           "                    its session is recorded\n"
           "  replay=FILE       plays a recorded session back: the host must send the same\n"
           "                    requests; the first divergence is reported on standard error\n"
           "                    and every call after it fails with EIO\n"
           "Examples: 0:model=7,fw=0x3000  1:model=4,fail=22@2;2:model=6,unplug=10\n";
}

}  // namespace tavk05virt

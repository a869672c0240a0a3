// Unit configuration of the virtual scanner: the text syntax
//     INDEX:key=value,key=value;INDEX:...
// parsed into key sets that are applied to units (see SyntaxText for keys).
#ifndef TAVK05_VSCANNER_CONFIG_H
#define TAVK05_VSCANNER_CONFIG_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavk05virt {

// "fail=REQ@N": request REQ fails from its Nth call (counted from when the
// rule was set) on.
struct FailRule {
    unsigned long nRequest;
    unsigned long nFrom;
};

// "shortread=BYTES@N": reads from the Nth on return at most BYTES bytes.
struct ShortRead {
    unsigned long nBytes;
    unsigned long nFrom;
};

// The keys of one unit as given; only what was given is changed when the set
// is applied to a unit.
struct UnitKeys {
    std::optional<int> nModel;
    std::optional<unsigned short> wFirmware;
    std::optional<unsigned short> wProduct;
    std::optional<unsigned short> wVendor;
    std::optional<std::string> strSerial;
    std::optional<std::string> strScene;
    std::optional<std::vector<unsigned char>> vecLevels;
    std::vector<std::pair<std::string, std::string>> vecSceneKeys;  // finger scene keys
    std::vector<FailRule> vecFail;
    std::optional<unsigned long> nOpenFailFrom;
    std::optional<unsigned long> nUnplugAfter;
    std::optional<unsigned long> nReadFailFrom;
    std::optional<ShortRead> shortRead;
    std::optional<unsigned> nDelayMs;
    std::optional<unsigned> nFps;
    bool bClearFaults = false;
    bool bReplug = false;
    std::optional<std::string> strRecord;  // session recording file
    bool bRecordVirtual = false;           // record the unit's own answers, not the real node
    std::optional<std::string> strReplay;  // session to play back
};

// Parses "key=value,..." (may be empty). False with a message on error.
bool ParseKeys(const std::string& strKeys, UnitKeys* pKeys, std::string* pError);

// Parses one "INDEX:keys" segment.
bool ParseUnit(const std::string& strSegment, int* pIndex, UnitKeys* pKeys, std::string* pError);

// Splits a unit list at ';', trimming blanks and dropping empty segments.
std::vector<std::string> SplitUnits(const std::string& strUnits);

// Parses a whole unit list; all or nothing. An index may appear only once.
bool ParseUnits(const std::string& strUnits, std::vector<std::pair<int, UnitKeys>>* pUnits, std::string* pError);

// The syntax help text.
const char* SyntaxText();

}  // namespace tavk05virt

#endif

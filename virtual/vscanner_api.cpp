// Scripting API of the virtual scanner and its configuration from the
// environment variable TAVK05_VIRTUAL at load.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tavk05/virtual.h"
#include "vscanner_registry.h"

namespace tavk05virt {

namespace {

void SetError(std::string* pError, const std::string& str)
{
    if (pError != nullptr) *pError = str;
}

bool ValidIndex(int nIndex) { return nIndex >= 0 && nIndex < kUnitCount; }

// Runs fn on unit nIndex under the registry lock; false when there is none.
template <typename Fn>
bool WithUnit(int nIndex, Fn fn)
{
    if (!ValidIndex(nIndex)) {
        return false;
    }
    Registry& reg = TheRegistry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    CVirtualUnit* pUnit = reg.apUnits[nIndex].get();
    if (pUnit == nullptr) {
        return false;
    }
    fn(*pUnit);
    return true;
}

// Reads TAVK05_VIRTUAL once the library is loaded. A unit with a syntax error
// is reported on one line and left out; the others are attached.
__attribute__((constructor)) void LoadFromEnvironment()
{
    const char* pszUnits = std::getenv("TAVK05_VIRTUAL");
    if (pszUnits == nullptr || *pszUnits == '\0') {
        return;
    }
    try {
        Registry& reg = TheRegistry();
        bool abSeen[kUnitCount] = {};
        for (const std::string& strSegment : SplitUnits(pszUnits)) {
            int nIndex = 0;
            UnitKeys keys;
            std::string strError;
            std::unique_ptr<CVirtualUnit> pUnit;
            if (ParseUnit(strSegment, &nIndex, &keys, &strError)) {
                if (abSeen[nIndex]) {
                    strError = "unit " + std::to_string(nIndex) + " is given twice";
                } else {
                    pUnit.reset(new CVirtualUnit(nIndex));
                    if (!pUnit->Apply(keys, &strError)) pUnit.reset();
                }
            }
            if (!pUnit) {
                std::fprintf(stderr, "tavk05-virtual: %s; unit ignored\n", strError.c_str());
                continue;
            }
            abSeen[nIndex] = true;
            std::lock_guard<std::mutex> lock(reg.mutex);
            InstallUnit(reg, nIndex, std::move(pUnit));
        }
    } catch (...) {
        std::fprintf(stderr, "tavk05-virtual: out of memory reading TAVK05_VIRTUAL\n");
    }
}

}  // namespace

bool Attach(const std::string& strUnits, std::string* pError)
{
    try {
        std::vector<std::pair<int, UnitKeys>> vecUnits;
        std::string strError;
        if (!ParseUnits(strUnits, &vecUnits, &strError)) {
            SetError(pError, strError);
            return false;
        }
        std::vector<std::unique_ptr<CVirtualUnit>> vecNew;
        for (const auto& unit : vecUnits) {
            std::unique_ptr<CVirtualUnit> pUnit(new CVirtualUnit(unit.first));
            if (!pUnit->Apply(unit.second, &strError)) {
                SetError(pError, "unit " + std::to_string(unit.first) + ": " + strError);
                return false;
            }
            vecNew.push_back(std::move(pUnit));
        }
        Registry& reg = TheRegistry();
        std::lock_guard<std::mutex> lock(reg.mutex);
        for (std::size_t i = 0; i < vecNew.size(); ++i) {
            InstallUnit(reg, vecUnits[i].first, std::move(vecNew[i]));
        }
        return true;
    } catch (...) {
        SetError(pError, "out of memory");
        return false;
    }
}

void DetachAll()
{
    Registry& reg = TheRegistry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    for (int i = 0; i < kUnitCount; ++i) {
        InstallUnit(reg, i, nullptr);
    }
}

bool Inject(int nIndex, const std::string& strKeys, std::string* pError)
{
    try {
        if (!ValidIndex(nIndex)) {
            SetError(pError, "unit index must be 0..7");
            return false;
        }
        UnitKeys keys;
        std::string strError;
        if (!ParseKeys(strKeys, &keys, &strError)) {
            SetError(pError, "unit " + std::to_string(nIndex) + ": " + strError);
            return false;
        }
        Registry& reg = TheRegistry();
        std::lock_guard<std::mutex> lock(reg.mutex);
        CVirtualUnit* pUnit = reg.apUnits[nIndex].get();
        if (pUnit == nullptr) {
            SetError(pError, "no unit " + std::to_string(nIndex) + " is attached");
            return false;
        }
        if (!pUnit->Apply(keys, &strError)) {
            SetError(pError, "unit " + std::to_string(nIndex) + ": " + strError);
            return false;
        }
        return true;
    } catch (...) {
        SetError(pError, "out of memory");
        return false;
    }
}

bool GetState(int nIndex, UnitState* pState)
{
    return pState != nullptr && WithUnit(nIndex, [&](CVirtualUnit& unit) { unit.GetState(pState); });
}

std::vector<Request> RequestLog(int nIndex)
{
    std::vector<Request> vec;
    WithUnit(nIndex, [&](CVirtualUnit& unit) { vec = unit.Log(); });
    return vec;
}

void ClearLog(int nIndex)
{
    WithUnit(nIndex, [](CVirtualUnit& unit) { unit.ClearLog(); });
}

bool GetSession(int nIndex, SessionStatus* pStatus)
{
    return pStatus != nullptr && WithUnit(nIndex, [&](CVirtualUnit& unit) { unit.GetSession(pStatus); });
}

const char* Syntax() { return SyntaxText(); }

namespace {

bool PersonAt(int nIndex, PersonAction eAction)
{
    bool bDone = false;
    WithUnit(nIndex, [&](CVirtualUnit& unit) { bDone = unit.Person(eAction); });
    return bDone;
}

}  // namespace

bool Lift(int nIndex) { return PersonAt(nIndex, kPersonLift); }

bool Place(int nIndex) { return PersonAt(nIndex, kPersonPlace); }

bool Roll(int nIndex) { return PersonAt(nIndex, kPersonRoll); }

}  // namespace tavk05virt

const tavk05virt::Api* Tavk05VirtualApi()
{
    static const tavk05virt::Api kApi = {1, tavk05virt::Attach, tavk05virt::Lift, tavk05virt::Place, tavk05virt::Roll};
    return &kApi;
}

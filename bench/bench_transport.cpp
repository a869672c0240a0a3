// Frame reads through the transport against the virtual scanner: the bare
// read of a live stream (largest frame) and the four-frame single capture of
// the older models.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "tavk05/virtual.h"
#include "tavk05/vxdinter.h"

namespace {

void ReadFrames(benchmark::State& state, const char* pszUnit, unsigned long nBytes, bool bSingleCapture)
{
    tavk05virt::DetachAll();
    std::string strError;
    if (!tavk05virt::Attach(pszUnit, &strError)) {
        state.SkipWithError(strError.c_str());
        return;
    }
    CVxdInterface vxd;
    if (vxd.OpenUSB(0) != VXD_OK) {
        state.SkipWithError("open failed");
        return;
    }
    std::vector<unsigned char> vec(CVxdInterface::TransferLength(nBytes));
    for (auto _ : state) {
        const int nResult =
            bSingleCapture ? vxd.ReadData(vec.data(), nBytes, 3000) : vxd.ReadDataEx(vec.data(), nBytes, 3000);
        benchmark::DoNotOptimize(nResult);
        benchmark::DoNotOptimize(vec.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(nBytes));
    vxd.CloseUSB();
    tavk05virt::DetachAll();
}

void BM_ReadDataExNewFirmware(benchmark::State& state)
{
    ReadFrames(state, "0:model=8,fw=0x3000,scene=pattern", 2304000, false);
}
BENCHMARK(BM_ReadDataExNewFirmware)->Unit(benchmark::kMillisecond);

void BM_ReadDataModel4Averaged(benchmark::State& state) { ReadFrames(state, "0:model=4,scene=pattern", 926720, true); }
BENCHMARK(BM_ReadDataModel4Averaged)->Unit(benchmark::kMillisecond);

void BM_ReadDataModel6Single(benchmark::State& state) { ReadFrames(state, "0:model=6,scene=pattern", 1128448, true); }
BENCHMARK(BM_ReadDataModel6Single)->Unit(benchmark::kMillisecond);

}  // namespace

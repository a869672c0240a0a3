// The benchmark program's entry: every benchmark on the console as usual,
// then, for the stages measured side by side with OpenCV (the benchmarks
// named Stage/<stage>/ours and Stage/<stage>/opencv), one table of the two
// medians and their ratio. Without OpenCV the table shows ours alone.
//
// The product ABI has no OpenCV of its own: `make bench` runs the x86_64
// program with TAVK05_BENCH_TABLE naming a file, where it leaves its table
// (stage, ours, OpenCV, tab-separated), and then the i386 program with
// TAVK05_BENCH_BESIDE naming that file, which prints its own medians beside
// the x86_64 ones and their ratios to x86_64 OpenCV.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

class CRatioReporter : public benchmark::ConsoleReporter {
public:
    CRatioReporter() : benchmark::ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override
    {
        benchmark::ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const std::string strName = run.run_name.function_name;
            // With repetitions only the median counts; a single run counts as such.
            if (strName.rfind("Stage/", 0) != 0 ||
                (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median"))
                continue;
            const size_t nSide = strName.rfind('/');
            const std::string strStage = strName.substr(6, nSide - 6);
            const double dMicros = run.GetAdjustedCPUTime() *
                                   benchmark::GetTimeUnitMultiplier(benchmark::kMicrosecond) /
                                   benchmark::GetTimeUnitMultiplier(run.time_unit);
            if (m_stages.find(strStage) == m_stages.end()) m_order.push_back(strStage);
            (strName.compare(nSide + 1, std::string::npos, "ours") == 0 ? m_stages[strStage].first
                                                                        : m_stages[strStage].second) = dMicros;
        }
    }

    void PrintRatios() const
    {
        if (m_order.empty()) return;
        std::printf("\n%-28s %12s %12s %8s\n", "stage (median, us)", "ours", "opencv", "ratio");
        for (const std::string& strStage : m_order) {
            const std::pair<double, double>& t = m_stages.at(strStage);
            if (t.second > 0.0)
                std::printf("%-28s %12.1f %12.1f %8.2f\n", strStage.c_str(), t.first, t.second, t.first / t.second);
            else
                std::printf("%-28s %12.1f %12s %8s\n", strStage.c_str(), t.first, "-", "-");
        }
    }

    // The table as stage, ours and OpenCV (0 when absent), one line each.
    bool WriteTable(const char* pszPath) const
    {
        std::ofstream out(pszPath);
        for (const std::string& strStage : m_order)
            out << strStage << '\t' << m_stages.at(strStage).first << '\t' << m_stages.at(strStage).second << '\n';
        return static_cast<bool>(out);
    }

    // This program's medians beside those of the table another ABI's
    // program wrote, and each against the OpenCV medians of that table.
    bool PrintBeside(const char* pszPath) const
    {
        std::ifstream in(pszPath);
        if (!in) return false;
        std::map<std::string, std::pair<double, double>> other;
        std::string strLine;
        while (std::getline(in, strLine)) {
            std::istringstream fields(strLine);
            std::string strStage;
            std::pair<double, double> t;
            if (std::getline(fields, strStage, '\t') && fields >> t.first >> t.second) other[strStage] = t;
        }
        std::printf("\n%-28s %10s %10s %10s %8s %8s\n", "stage (median, us)", "x86_64",
                    sizeof(void*) == 4 ? "i386" : "this ABI", "opencv", "x86_64", sizeof(void*) == 4 ? "i386" : "this");
        for (const std::string& strStage : m_order) {
            const auto it = other.find(strStage);
            const double dOurs = m_stages.at(strStage).first;
            if (it == other.end() || it->second.second <= 0.0) {
                std::printf("%-28s %10s %10.1f %10s %8s %8s\n", strStage.c_str(), "-", dOurs, "-", "-", "-");
                continue;
            }
            const double dOpenCv = it->second.second;
            std::printf("%-28s %10.1f %10.1f %10.1f %8.2f %8.2f\n", strStage.c_str(), it->second.first, dOurs, dOpenCv,
                        it->second.first / dOpenCv, dOurs / dOpenCv);
        }
        return true;
    }

private:
    std::vector<std::string> m_order;
    std::map<std::string, std::pair<double, double>> m_stages;  // ours, opencv (0 when absent)
};

// Every sensor a benchmark makes writes its settings when it is destroyed,
// the shared ones at exit. They write to a file of this run, in a private
// directory removed at exit, never to /etc/tavk05rf.conf (nor to a file
// TAVK05_CONF named for other work). Called before any sensor exists, the
// removal runs after the last one is destroyed.
std::string& PrivateSettingsDir()
{
    static std::string s_strDir;
    return s_strDir;
}

bool UsePrivateSettings()
{
    char szDir[] = "/tmp/tavk05-bench-XXXXXX";
    if (mkdtemp(szDir) == nullptr) return false;
    PrivateSettingsDir() = szDir;
    setenv("TAVK05_CONF", (PrivateSettingsDir() + "/tavk05rf.conf").c_str(), 1);
    std::atexit([] {
        if (DIR* pDir = opendir(PrivateSettingsDir().c_str())) {
            while (const dirent* pEntry = readdir(pDir))
                if (pEntry->d_name[0] != '.') unlink((PrivateSettingsDir() + "/" + pEntry->d_name).c_str());
            closedir(pDir);
        }
        rmdir(PrivateSettingsDir().c_str());
    });
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (!UsePrivateSettings()) {
        std::perror("bench_tavk05: no private directory for the settings file");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    CRatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    int nStatus = 0;
    const char* pszTable = std::getenv("TAVK05_BENCH_TABLE");
    if (pszTable != nullptr && *pszTable != '\0' && !reporter.WriteTable(pszTable)) {
        std::fprintf(stderr, "bench: cannot write %s\n", pszTable);
        nStatus = 1;
    }
    const char* pszBeside = std::getenv("TAVK05_BENCH_BESIDE");
    if (pszBeside != nullptr && *pszBeside != '\0' && !reporter.PrintBeside(pszBeside)) {
        std::fprintf(stderr, "bench: cannot read %s\n", pszBeside);
        nStatus = 1;
    }
    benchmark::Shutdown();
    return nStatus;
}

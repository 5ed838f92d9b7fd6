#ifndef TOOLS_SOAK_SOAKREPORT_H
#define TOOLS_SOAK_SOAKREPORT_H

// Collects what a soak run measured and prints the report with its verdict.

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "tools/soak/SoakAnalysis.h"
#include "tools/soak/SoakRun.h"

namespace ReplaySoak {

struct MemoryGrowth {
    long startKb = 0;  // first sample after the warm-up
    long middleKb = 0;
    long endKb = 0;
    long growthKb = 0;
    double slopeKbPerMinute = 0;
};

// Memory figures of one process over a recording of `durationMinutes`:
// samples before the warm-up (a quarter of the run, at most a minute) show
// start-up allocation, not growth, and are left out.
MemoryGrowth MeasureGrowth(const std::vector<MemorySample>& samples, double durationMinutes);

class SoakReport {
  public:
    void AddMemorySample(const std::string& process, const MemorySample& sample, bool recording);
    void SetServerStatus(const std::string& text) { m_serverStatus = text; }
    void SetReplayPlan(const std::string& text) { m_replayPlan = text; }
    void SetReplayResult(const std::string& text) { m_replayResult = text; }
    void SetClientExit(const std::string& name, int status) { m_exits[name] = status; }
    void SetLog(const LogContents& log);
    void AddClient(const ClientProfile& profile, const ClientResult& result);

    // Prints everything; true when the run passed.
    bool Print(const SoakSettings& settings, FILE* out) const;

  private:
    struct ClientEntry {
        ClientProfile profile;
        ClientResult result;
    };

    std::vector<std::string> m_processOrder;
    std::map<std::string, std::vector<MemorySample>> m_recordingSamples;
    std::map<std::string, long> m_replayPeakKb;
    std::string m_serverStatus;
    std::string m_replayPlan;
    std::string m_replayResult;
    std::map<std::string, int> m_exits;
    size_t m_checksumFailures = 0;
    size_t m_unparsable = 0;
    uint64_t m_skippedRegions = 0;
    std::string m_logError;
    std::vector<ClientEntry> m_clients;
};

}  // namespace ReplaySoak

#endif

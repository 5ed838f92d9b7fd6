#ifndef TOOLS_SOAK_SOAKRUN_H
#define TOOLS_SOAK_SOAKRUN_H

// One soak run: the logger service, the replay server and a set of demo
// clients under a private target root on a loopback address of their own;
// a recording of the given length, then its replay, then the report.

#include <atomic>
#include <string>
#include <vector>

#include "tools/soak/SoakAnalysis.h"

namespace ReplaySoak {

// What one demo client sends; a rate of 0 leaves the stream out.
struct ClientProfile {
    std::string name;
    double positionHz = 0;
    double frameHz = 0;
    int frameBytes = 48;
    double statusHz = 0;
};

// The usual mix of navigation inputs, cycled for `count` clients.
std::vector<ClientProfile> DefaultProfiles(size_t count);

struct SoakSettings {
    std::string binaryDirectory;  // the build tree holding server/, logger/, examples/
    double durationSeconds = 120;
    size_t clients = 20;
    double sampleSeconds = 10;
    // Memory growth of one process over the recording (after warm-up) that
    // fails the run.
    long maxGrowthKb = 4096;
    LossLimits loss;
    // Whether records dropped as late by the server's write queue fail the
    // run; they are always counted and reported.
    bool failOnLate = true;
    bool keepRoot = false;
};

// Set from a signal handler: the run stops, cleans up and reports.
extern std::atomic<bool> g_soakInterrupted;

// 0: nothing lost and memory steady; 1: losses or growth; 3: the run could
// not be carried out (processes did not start or answer), or was interrupted.
int RunSoak(const SoakSettings& settings);

}  // namespace ReplaySoak

#endif

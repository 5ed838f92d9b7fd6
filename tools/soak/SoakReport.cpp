#include "tools/soak/SoakReport.h"

#include <algorithm>
#include <cmath>

namespace ReplaySoak {

MemoryGrowth MeasureGrowth(const std::vector<MemorySample>& samples, double durationMinutes) {
    MemoryGrowth growth;
    const double warmUp = std::min(1.0, durationMinutes / 4);
    std::vector<MemorySample> steady;
    for (const MemorySample& sample : samples) {
        if (sample.minutes >= warmUp) {
            steady.push_back(sample);
        }
    }
    if (steady.empty() && !samples.empty()) {
        steady.push_back(samples.back());
    }
    if (steady.empty()) {
        return growth;
    }
    const double middle = (steady.front().minutes + steady.back().minutes) / 2;
    const MemorySample* nearest = &steady.front();
    for (const MemorySample& sample : steady) {
        if (std::fabs(sample.minutes - middle) < std::fabs(nearest->minutes - middle)) {
            nearest = &sample;
        }
    }
    growth.startKb = steady.front().rssKb;
    growth.middleKb = nearest->rssKb;
    growth.endKb = steady.back().rssKb;
    growth.growthKb = growth.endKb - growth.startKb;
    growth.slopeKbPerMinute = SlopeKbPerMinute(steady);
    return growth;
}

namespace {

void PrintRow(FILE* out, const std::string& name, const char* rates, const ClientResult& r,
              const Distribution& timing) {
    std::fprintf(
        out, "%-8s %-14s %7zu %7zu %10zu %7zu %6zu %5zu %5zu %8zu %7zu %5zu %6.2f %4lld %4lld\n",
        name.c_str(), rates, r.sent, r.logged, r.afterStop, r.lostAtStop, r.late, r.lost,
        r.unexpected, r.replayed, r.replayLost, r.replayWrong, timing.mean,
        static_cast<long long>(timing.p99), static_cast<long long>(timing.max));
}

}  // namespace

void SoakReport::AddMemorySample(const std::string& process, const MemorySample& sample,
                                 bool recording) {
    if (std::find(m_processOrder.begin(), m_processOrder.end(), process) == m_processOrder.end()) {
        m_processOrder.push_back(process);
    }
    if (recording) {
        m_recordingSamples[process].push_back(sample);
    } else {
        long& peak = m_replayPeakKb[process];
        peak = std::max(peak, sample.rssKb);
    }
}

void SoakReport::SetLog(const LogContents& log) {
    m_checksumFailures = log.checksumFailures;
    m_unparsable = log.unparsable;
    m_skippedRegions = log.skippedRegions;
    m_logError = log.opened ? log.error : "cannot read the log: " + log.error;
}

void SoakReport::AddClient(const ClientProfile& profile, const ClientResult& result) {
    m_clients.push_back({profile, result});
}

bool SoakReport::Print(const SoakSettings& settings, FILE* out) const {
    std::vector<std::string> failures;
    const double minutes = settings.durationSeconds / 60;

    std::fprintf(out, "\nServer after recording:\n%s", m_serverStatus.c_str());
    std::fprintf(out, "\nReplay: %s%s", m_replayPlan.c_str(), m_replayResult.c_str());
    std::fprintf(out,
                 "\nItems per client. after stop: handed over after the stop moment, not "
                 "stored; lost at stop: handed over before the stop moment and missing (must be "
                 "0); late: in blocks sent a second or more after their first item, which "
                 "the server's write queue drops when it has written records over a second "
                 "newer; lost: missing otherwise; extra: in the log but never sent; missing, "
                 "wrong: stored items not replayed, or replayed out of order; timing error in "
                 "ms.\n");
    std::fprintf(out, "%-8s %-14s %7s %7s %10s %7s %6s %5s %5s %8s %7s %5s %6s %4s %4s\n", "client",
                 "pos/frame/sts", "sent", "logged", "after stop", "at stop", "late", "lost",
                 "extra", "replayed", "missing", "wrong", "mean", "p99", "max");
    ClientResult total;
    std::vector<int64_t> allErrors;
    for (const ClientEntry& entry : m_clients) {
        const ClientResult& r = entry.result;
        const Distribution timing = Summarise(r.timingErrorsMs);
        char rates[80];
        std::snprintf(rates, sizeof rates, "%g/%g x%d/%g", entry.profile.positionHz,
                      entry.profile.frameHz, entry.profile.frameBytes, entry.profile.statusHz);
        PrintRow(out, entry.profile.name, rates, r, timing);
        total.sent += r.sent;
        total.logged += r.logged;
        total.afterStop += r.afterStop;
        total.lostAtStop += r.lostAtStop;
        total.late += r.late;
        total.lost += r.lost;
        total.unexpected += r.unexpected;
        total.replayed += r.replayed;
        total.replayLost += r.replayLost;
        total.replayWrong += r.replayWrong;
        allErrors.insert(allErrors.end(), r.timingErrorsMs.begin(), r.timingErrorsMs.end());
        const std::string& name = entry.profile.name;
        if (r.sent == 0) {
            failures.push_back(name + " recorded nothing");
        }
        if (r.lost > 0 || r.lostAtStop > 0 || r.unexpected > 0) {
            failures.push_back(name + ": " + std::to_string(r.lost) + " lost, " +
                               std::to_string(r.lostAtStop) + " lost at the stop, " +
                               std::to_string(r.unexpected) + " unexpected in the log");
        }
        if (r.replayLost > 0 || r.replayWrong > 0) {
            failures.push_back(name + ": " + std::to_string(r.replayLost) + " not replayed, " +
                               std::to_string(r.replayWrong) + " replayed wrongly");
        }
        if (r.late > 0 && settings.failOnLate) {
            failures.push_back(name + ": " + std::to_string(r.late) + " dropped as late");
        }
        // Status 1 is the client's own verdict on gaps in its replay, which
        // late drops cause; anything above is a crash or a kill.
        const auto exit = m_exits.find(name);
        if (exit != m_exits.end() && exit->second > 1) {
            failures.push_back(name + " exited with status " + std::to_string(exit->second));
        }
    }
    const Distribution timing = Summarise(allErrors);
    PrintRow(out, "all", "", total, timing);
    std::fprintf(out,
                 "\nReplay timing error over %zu items (ms, callback moment against the item's "
                 "log time, from each client's median offset): mean %.2f, p99 %lld, max %lld\n",
                 timing.count, timing.mean, static_cast<long long>(timing.p99),
                 static_cast<long long>(timing.max));
    std::fprintf(
        out, "Log: %zu checksum failures, %zu unparsable records, %llu skipped regions%s\n",
        m_checksumFailures, m_unparsable, static_cast<unsigned long long>(m_skippedRegions),
        m_logError.empty() ? "" : ("; " + m_logError).c_str());
    if (m_checksumFailures > 0 || m_unparsable > 0 || m_skippedRegions > 0 || !m_logError.empty()) {
        failures.push_back("the log holds damaged records");
    }

    std::fprintf(out,
                 "\nMemory (RSS KB while recording, from the end of the warm-up; growth allowed: "
                 "%ld KB):\n",
                 settings.maxGrowthKb);
    std::fprintf(out, "%-8s %8s %8s %8s %8s %9s %11s\n", "process", "start", "middle", "end",
                 "growth", "KB/min", "replay peak");
    for (const std::string& process : m_processOrder) {
        const auto samples = m_recordingSamples.find(process);
        if (samples == m_recordingSamples.end()) {
            continue;
        }
        const MemoryGrowth growth = MeasureGrowth(samples->second, minutes);
        const auto peak = m_replayPeakKb.find(process);
        std::fprintf(out, "%-8s %8ld %8ld %8ld %8ld %9.1f %11ld\n", process.c_str(), growth.startKb,
                     growth.middleKb, growth.endKb, growth.growthKb, growth.slopeKbPerMinute,
                     peak != m_replayPeakKb.end() ? peak->second : 0L);
        if (growth.growthKb > settings.maxGrowthKb) {
            failures.push_back(process + " grew by " + std::to_string(growth.growthKb) + " KB");
        }
    }

    if (total.late > 0) {
        std::fprintf(out,
                     "\nWarning: the server's write queue dropped %zu of %zu items (%.1f%%) as "
                     "late: blocks sent by age reach it over a second behind the records it has "
                     "already written.\n",
                     total.late, total.sent,
                     total.sent > 0
                         ? 100.0 * static_cast<double>(total.late) / static_cast<double>(total.sent)
                         : 0.0);
    }
    if (failures.empty()) {
        std::fprintf(out, "\nResult: PASS\n");
    } else {
        std::fprintf(out, "\nResult: FAIL\n");
        for (const std::string& failure : failures) {
            std::fprintf(out, "  %s\n", failure.c_str());
        }
    }
    std::fflush(out);
    return failures.empty();
}

}  // namespace ReplaySoak

#include "tools/soak/SoakProcess.h"

#include <cstdlib>
#include <fstream>
#include <string>

namespace ReplaySoak {

long ResidentKb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

}  // namespace ReplaySoak

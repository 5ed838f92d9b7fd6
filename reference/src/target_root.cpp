#include "libreplay/server/TargetRoot.h"

#include <cstdlib>
#include <mutex>

namespace ReplayPlatform {
namespace {

struct RootState {
    std::mutex mutex;
    bool initialised = false;
    std::string root;
};

RootState& State() {
    static RootState* state = new RootState;  // never destroyed: used until exit
    return *state;
}

std::string Normalised(std::string root) {
    while (root.size() > 1 && root.back() == '/') {
        root.pop_back();
    }
    return root == "/" ? std::string() : root;
}

}  // namespace

void SetTargetRoot(const std::string& root) {
    RootState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.root = Normalised(root);
    state.initialised = true;
}

std::string GetTargetRoot() {
    RootState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.initialised) {
        const char* fromEnvironment = std::getenv("REPLAY_TARGET_ROOT");
        state.root = Normalised(fromEnvironment ? fromEnvironment : "");
        state.initialised = true;
    }
    return state.root;
}

std::string TargetPath(const std::string& absolutePath) {
    const std::string root = GetTargetRoot();
    if (root.empty() || absolutePath.empty() || absolutePath[0] != '/') {
        return absolutePath;
    }
    if (absolutePath.compare(0, root.size(), root) == 0 &&
        (absolutePath.size() == root.size() || absolutePath[root.size()] == '/')) {
        return absolutePath;
    }
    return root + absolutePath;
}

}  // namespace ReplayPlatform

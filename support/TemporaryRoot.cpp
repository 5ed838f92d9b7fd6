#include "support/TemporaryRoot.h"

#include <cstdlib>
#include <filesystem>
#include <vector>

namespace ReplaySupport {

TemporaryRoot::TemporaryRoot(const std::string& prefix,
                             std::initializer_list<const char*> subdirectories) {
    const char* base = std::getenv("TMPDIR");
    const std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    std::vector<char> path(pattern.begin(), pattern.end());
    path.push_back('\0');
    if (mkdtemp(path.data()) == nullptr) {
        return;
    }
    m_path = path.data();
    std::error_code ignored;
    for (const char* subdirectory : subdirectories) {
        std::filesystem::create_directories(m_path + "/" + subdirectory, ignored);
    }
}

TemporaryRoot::~TemporaryRoot() {
    if (!m_path.empty() && !m_keep) {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
}

}  // namespace ReplaySupport

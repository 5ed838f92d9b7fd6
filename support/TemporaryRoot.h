#ifndef SUPPORT_TEMPORARYROOT_H
#define SUPPORT_TEMPORARYROOT_H

#include <initializer_list>
#include <string>

namespace ReplaySupport {

// A fresh directory under $TMPDIR (or /tmp), named <prefix>-XXXXXX, with
// the given subdirectories; removed with everything in it when this goes
// out of scope, unless kept.
class TemporaryRoot {
  public:
    explicit TemporaryRoot(const std::string& prefix,
                           std::initializer_list<const char*> subdirectories = {});
    ~TemporaryRoot();
    TemporaryRoot(const TemporaryRoot&) = delete;
    TemporaryRoot& operator=(const TemporaryRoot&) = delete;

    // False when the directory could not be made; Path() is then empty.
    bool Valid() const { return !m_path.empty(); }
    // Without trailing separator.
    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& relative) const { return m_path + "/" + relative; }
    // Leaves the directory on disk, for a look after the run.
    void Keep() { m_keep = true; }

  private:
    std::string m_path;
    bool m_keep = false;
};

}  // namespace ReplaySupport

#endif

#ifndef LIBREPLAY_SERVER_TARGETROOT_H
#define LIBREPLAY_SERVER_TARGETROOT_H

#include <string>

#include "libreplay/ReplayExport.h"

// Every absolute path that the library opens on the target ("/tmp/...",
// "/fs/usb0", "/kfsystem/multicore/...") is resolved here. With no root set the
// path is returned unchanged; with a root (environment variable
// REPLAY_TARGET_ROOT, or SetTargetRoot) the root is put in front of it, so a
// test or a Linux installation can keep the whole target tree in one directory.
namespace ReplayPlatform {

// Replaces the root for the whole process; an empty root restores the plain
// target paths. Overrides the environment variable.
REPLAY_API void SetTargetRoot(const std::string& root);

// The root in force, without a trailing separator; empty when none is set.
REPLAY_API std::string GetTargetRoot();

// Relative paths and paths already under the root are returned unchanged.
REPLAY_API std::string TargetPath(const std::string& absolutePath);

}  // namespace ReplayPlatform

#endif

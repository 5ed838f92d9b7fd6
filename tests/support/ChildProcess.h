#ifndef TESTS_SUPPORT_CHILDPROCESS_H
#define TESTS_SUPPORT_CHILDPROCESS_H

// Parts of a test run in a child process of their own: for tests that need
// several replay clients (one per process) or that must survive a call that
// might hang.

#include "support/ChildProcess.h"

namespace ReplayTest {

using ReplaySupport::ChildProcess;
using ReplaySupport::RunInChildProcess;

}  // namespace ReplayTest

#endif

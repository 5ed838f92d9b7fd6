#ifndef TESTS_SUPPORT_CHILDPROCESS_H
#define TESTS_SUPPORT_CHILDPROCESS_H

// For tests that need several replay clients (one per process) or must
// survive a call that might hang.

#include "support/ChildProcess.h"

namespace ReplayTest {

using ReplaySupport::ChildProcess;
using ReplaySupport::RunInChildProcess;

}  // namespace ReplayTest

#endif

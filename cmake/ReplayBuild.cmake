# Compiler settings shared by every target of the project.

# Warnings for our own code only; third-party headers come in as SYSTEM.
add_library(replay_warnings INTERFACE)
target_compile_options(replay_warnings INTERFACE -Wall -Wextra -Werror -pedantic -Wshadow)

if(REPLAY_SANITIZE)
  if(NOT REPLAY_SANITIZE MATCHES "^(address,undefined|address|undefined|thread)$")
    message(FATAL_ERROR "REPLAY_SANITIZE must be 'address,undefined' or 'thread', got '${REPLAY_SANITIZE}'")
  endif()
  add_compile_options(-fsanitize=${REPLAY_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${REPLAY_SANITIZE})
endif()

# Repository root on the include path: project headers are included by their
# path from the root ("reference/src/operating_system.h"), so no project header
# can shadow a system header of the same name.
set(REPLAY_ROOT_INCLUDE ${PROJECT_SOURCE_DIR})
set(REPLAY_PUBLIC_INCLUDE ${PROJECT_SOURCE_DIR}/include)
# Headers generated at configure time (the version).
set(REPLAY_GENERATED_INCLUDE ${PROJECT_BINARY_DIR}/generated/include)
include_directories(${REPLAY_GENERATED_INCLUDE})
include(GNUInstallDirs)

# Fuzz builds instrument every object for coverage; the targets themselves add
# the libFuzzer driver.
if(REPLAY_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

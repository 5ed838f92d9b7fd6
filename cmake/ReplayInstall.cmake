# What `cmake --install` puts in place: the client library and its loading
# proxy (versioned), the public headers, the executables, a CMake package
# (find_package(libreplay) -> libreplay::replay, libreplay::proxy,
# libreplay::server) and pkg-config files. `cpack -G DEB` packs the same tree.
#
# Install components: `client` (libraries, client headers, CMake package,
# .pc files), `server` (the server-side headers, libreplay-server.pc; it
# needs `client`), `tools` (executables, manuals, completion).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(REPLAY_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/libreplay)

# The headers a client application includes, relative to include/.
set(REPLAY_CLIENT_HEADERS
  libreplay/ReplayClient.h
  libreplay/ReplayClientC.h
  libreplay/ReplayClientInterface.h
  libreplay/ReplayCore.h
  libreplay/ReplayExport.h
  libreplay/multicore.h)
# The server-side classes a server application builds on. Their symbols are
# exported from libreplay.so as well; everything else is the library's own.
set(REPLAY_SERVER_HEADERS
  libreplay/server/ClientDataList.h
  libreplay/server/ClientRecord.h
  libreplay/server/FileLogger.h
  libreplay/server/ReplayDebug.h
  libreplay/server/ReplayError.h
  libreplay/server/ReplayLogManager.h
  libreplay/server/ReplayLogReader.h
  libreplay/server/ReplayLogRecord.h
  libreplay/server/ReplayLogStatistics.h
  libreplay/server/ReplayLogger.h
  libreplay/server/ReplayRuntimeOptions.h
  libreplay/server/TargetRoot.h
  libreplay/server/UDPSocketServer.h
  libreplay/server/UDPSockets.h)
list(TRANSFORM REPLAY_CLIENT_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/include/
     OUTPUT_VARIABLE client_header_files)
list(TRANSFORM REPLAY_SERVER_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/include/
     OUTPUT_VARIABLE server_header_files)
install(FILES ${client_header_files} ${REPLAY_GENERATED_INCLUDE}/libreplay/ReplayVersion.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/libreplay COMPONENT client)
install(FILES ${server_header_files}
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/libreplay/server COMPONENT server)

# libreplay::server: the server headers on top of the client library.
add_library(replay_server_api INTERFACE)
add_library(libreplay::server ALIAS replay_server_api)
target_link_libraries(replay_server_api INTERFACE replay)
set_target_properties(replay_server_api PROPERTIES EXPORT_NAME server)

install(TARGETS replay replayproxy replay_server_api EXPORT libreplayTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT client
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT libreplayTargets NAMESPACE libreplay:: DESTINATION ${REPLAY_CMAKE_PACKAGE_DIR}
        COMPONENT client)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/libreplayConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/libreplayConfig.cmake
  INSTALL_DESTINATION ${REPLAY_CMAKE_PACKAGE_DIR})
# The library promises a stable interface within one major version.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/libreplayConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/package/libreplayConfig.cmake
              ${PROJECT_BINARY_DIR}/package/libreplayConfigVersion.cmake
        DESTINATION ${REPLAY_CMAKE_PACKAGE_DIR} COMPONENT client)

# The .pc files find the prefix relative to themselves, so that an install
# with `cmake --install --prefix DIR` works without reconfiguring.
file(RELATIVE_PATH REPLAY_PC_PREFIX_FROM_PCDIR
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
foreach(pc IN ITEMS libreplay libreplayproxy libreplay-server)
  if(pc STREQUAL "libreplay-server")
    set(component server)
  else()
    set(component client)
  endif()
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${PROJECT_BINARY_DIR}/package/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/package/${pc}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT ${component})
endforeach()

# The tools load libreplay.so; installed, they find it beside them in the
# prefix they are installed into, whichever that is.
foreach(program IN ITEMS ReplayManager replaylog replay-logger)
  if(TARGET ${program})
    set_target_properties(${program} PROPERTIES INSTALL_RPATH "\$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  endif()
endforeach()

# Manual pages made from each program's --help and --version, when
# help2man is there (scripts/install-deps.sh installs it). Sanitizer and
# fuzz builds skip them: their programs are not for installing.
find_program(REPLAY_HELP2MAN help2man)
set(REPLAY_MANUAL_SUMMARY_ReplayManager "the replay server: records clients' data and replays it")
set(REPLAY_MANUAL_SUMMARY_replaylog "inspect, verify and export stored replay logs")
set(REPLAY_MANUAL_SUMMARY_replay-logger "the logger service storing replay records and console text")
if(REPLAY_HELP2MAN AND NOT REPLAY_SANITIZE AND NOT REPLAY_BUILD_FUZZ)
  set(manuals)
  foreach(program IN ITEMS ReplayManager replaylog replay-logger)
    if(TARGET ${program})
      set(manual ${PROJECT_BINARY_DIR}/man/${program}.1)
      add_custom_command(OUTPUT ${manual}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
        COMMAND ${REPLAY_HELP2MAN} --no-info --no-discard-stderr
                --name "${REPLAY_MANUAL_SUMMARY_${program}}"
                --output ${manual} $<TARGET_FILE:${program}>
        DEPENDS ${program}
        COMMENT "Manual page ${program}.1"
        VERBATIM)
      list(APPEND manuals ${manual})
    endif()
  endforeach()
  add_custom_target(replay_manuals ALL DEPENDS ${manuals})
  install(FILES ${manuals} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
else()
  message(STATUS "help2man not found or not a plain build: no manual pages")
endif()

install(FILES ${PROJECT_SOURCE_DIR}/tools/completion/ReplayManager
              ${PROJECT_SOURCE_DIR}/tools/completion/replaylog
              ${PROJECT_SOURCE_DIR}/tools/completion/replay-logger
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)

# cpack -G DEB: one package with the library, headers and tools.
set(CPACK_PACKAGE_NAME libreplay)
set(CPACK_PACKAGE_VENDOR "libreplay developers")
set(CPACK_PACKAGE_CONTACT "libreplay developers <libreplay@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Record and replay of a component's input: client library, server and tools")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
# Dependencies (libc, libstdc++) come from the binaries themselves; the
# shlibs file and the ldconfig trigger come with the shared libraries.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# The package carries no debug information.
set(CPACK_STRIP_FILES ON)
include(CPack)

# Installation: the manager library and its public headers, the host
# platform layer, the plugin SDK, lumokitd and the lumokit client, a CMake
# package (find_package(Lumokit)), pkg-config files and an example systemd
# unit.
include(CMakePackageConfigHelpers)

set(LUMOKIT_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Lumokit)
set(LUMOKIT_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/lumokit)

# ---- libraries --------------------------------------------------------------
set(LUMOKIT_EXPORTED_LIBS lumokit_manager lumokit_platform)
if(TARGET lumokit_plugin)
  # The SDK installs its library and headers itself; listing it here again
  # only adds it to the exported package.
  list(APPEND LUMOKIT_EXPORTED_LIBS lumokit_plugin)
endif()
install(TARGETS ${LUMOKIT_EXPORTED_LIBS}
  EXPORT LumokitTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# ---- public headers ---------------------------------------------------------
# The manager's include directory once installed is include/lumokit, the
# platform layer's include/lumokit/platform (see the targets' interfaces).
install(FILES
    ${CMAKE_SOURCE_DIR}/manager/LumoManager.h
    ${CMAKE_SOURCE_DIR}/session/LumokitSessionManager.h
  DESTINATION ${LUMOKIT_INSTALL_INCLUDEDIR})
install(FILES ${CMAKE_SOURCE_DIR}/access/host/lumo_sys_host.h
  DESTINATION ${LUMOKIT_INSTALL_INCLUDEDIR}/host)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/platform/include/
  DESTINATION ${LUMOKIT_INSTALL_INCLUDEDIR}/platform
  FILES_MATCHING PATTERN "*.h")

# ---- programs ---------------------------------------------------------------
set(LUMOKIT_PROGRAMS)
foreach(program lumokitd lumokit)
  if(TARGET ${program})
    list(APPEND LUMOKIT_PROGRAMS ${program})
    # Found next to their libraries whatever the prefix.
    set_target_properties(${program} PROPERTIES
      INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  endif()
endforeach()
if(LUMOKIT_PROGRAMS)
  install(TARGETS ${LUMOKIT_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# ---- CMake package ------------------------------------------------------------
install(EXPORT LumokitTargets
  NAMESPACE Lumokit::
  DESTINATION ${LUMOKIT_INSTALL_CMAKEDIR})
configure_package_config_file(
  ${CMAKE_SOURCE_DIR}/packaging/LumokitConfig.cmake.in
  ${CMAKE_BINARY_DIR}/packaging/LumokitConfig.cmake
  INSTALL_DESTINATION ${LUMOKIT_INSTALL_CMAKEDIR})
write_basic_package_version_file(
  ${CMAKE_BINARY_DIR}/packaging/LumokitConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_BINARY_DIR}/packaging/LumokitConfig.cmake
    ${CMAKE_BINARY_DIR}/packaging/LumokitConfigVersion.cmake
  DESTINATION ${LUMOKIT_INSTALL_CMAKEDIR})

# ---- pkg-config -------------------------------------------------------------
configure_file(${CMAKE_SOURCE_DIR}/packaging/lumokit.pc.in
  ${CMAKE_BINARY_DIR}/packaging/lumokit.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/lumokit.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(TARGET lumokit_plugin)
  configure_file(${CMAKE_SOURCE_DIR}/packaging/lumokit-plugin.pc.in
    ${CMAKE_BINARY_DIR}/packaging/lumokit-plugin.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/lumokit-plugin.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()

# ---- service unit, example policy, documentation -------------------------------
configure_file(${CMAKE_SOURCE_DIR}/packaging/lumokitd.service.in
  ${CMAKE_BINARY_DIR}/packaging/lumokitd.service @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/lumokitd.service
  DESTINATION ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)
install(FILES ${CMAKE_SOURCE_DIR}/docs/examples/demo-policy.json
  DESTINATION ${CMAKE_INSTALL_DATADIR}/lumokit/examples)
install(FILES
    ${CMAKE_SOURCE_DIR}/docs/daemon.md
    ${CMAKE_SOURCE_DIR}/docs/client-protocol.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR})

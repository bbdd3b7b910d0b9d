# Installation, in three components that are also the Debian packages
# (cmake/Package.cmake):
#   runtime  the shared libraries                               liblumokit1
#   dev      headers, CMake package, pkg-config files, .so links liblumokit-dev
#   daemon   lumokitd, the lumokit tools, the example plugin,   lumokit
#            systemd units, example policy, documentation
# Every path written into an installed file is worked out at install time,
# so `cmake --install build --prefix DIR` gives a tree that names DIR.
include(CMakePackageConfigHelpers)

set(LUMOKIT_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Lumokit)
set(LUMOKIT_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/lumokit)

# Writes `template` at install time with the paths of the prefix being
# installed to (cmake/InstallConfigured.cmake) and installs the result.
function(lumokit_install_configured template destination component)
  get_filename_component(name "${template}" NAME_WLE)
  set(output "${CMAKE_BINARY_DIR}/packaging/${name}")
  install(CODE "
    set(LUMOKIT_TEMPLATE \"${template}\")
    set(LUMOKIT_OUTPUT \"${output}\")
    set(PROJECT_VERSION \"${PROJECT_VERSION}\")
    set(LUMOKIT_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
    set(LUMOKIT_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
    set(LUMOKIT_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
    set(LUMOKIT_DATADIR \"${CMAKE_INSTALL_DATADIR}\")
    set(LUMOKIT_DOCDIR \"${CMAKE_INSTALL_DOCDIR}\")
    set(LUMOKIT_SYSCONFDIR \"${CMAKE_INSTALL_SYSCONFDIR}\")
    include(\"${CMAKE_SOURCE_DIR}/cmake/InstallConfigured.cmake\")
  " COMPONENT ${component})
  install(FILES "${output}" DESTINATION "${destination}" COMPONENT ${component})
endfunction()

# ---- libraries --------------------------------------------------------------
# Exported as Lumokit::manager, Lumokit::platform and Lumokit::plugin (the
# targets' EXPORT_NAME); the package config adds the older names as aliases.
set(LUMOKIT_EXPORTED_LIBS lumokit_manager lumokit_platform)
if(TARGET lumokit_plugin)
  list(APPEND LUMOKIT_EXPORTED_LIBS lumokit_plugin)
endif()
# The manager library finds the platform layer beside it whatever the prefix
# (a program's run path does not reach the libraries' own dependencies).
set_target_properties(${LUMOKIT_EXPORTED_LIBS} PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS ${LUMOKIT_EXPORTED_LIBS}
  EXPORT LumokitTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)

# ---- public headers ---------------------------------------------------------
# The manager's include directory once installed is include/lumokit, the
# platform layer's include/lumokit/platform, the SDK's include (for
# "lumokit/plugin.h"); see the targets' interfaces.
install(FILES
    ${CMAKE_SOURCE_DIR}/manager/LumoManager.h
    ${CMAKE_SOURCE_DIR}/manager/message_tap.h
    ${CMAKE_SOURCE_DIR}/session/LumokitSessionManager.h
  DESTINATION ${LUMOKIT_INSTALL_INCLUDEDIR} COMPONENT dev)
install(FILES ${CMAKE_SOURCE_DIR}/access/host/lumo_sys_host.h
  DESTINATION ${LUMOKIT_INSTALL_INCLUDEDIR}/host COMPONENT dev)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/platform/include/
  DESTINATION ${LUMOKIT_INSTALL_INCLUDEDIR}/platform COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
if(TARGET lumokit_plugin)
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/sdk/include/lumokit
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
endif()

# ---- CMake package ------------------------------------------------------------
install(EXPORT LumokitTargets
  NAMESPACE Lumokit::
  DESTINATION ${LUMOKIT_INSTALL_CMAKEDIR} COMPONENT dev)
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
  DESTINATION ${LUMOKIT_INSTALL_CMAKEDIR} COMPONENT dev)

# ---- pkg-config -------------------------------------------------------------
lumokit_install_configured(${CMAKE_SOURCE_DIR}/packaging/lumokit.pc.in
  ${CMAKE_INSTALL_LIBDIR}/pkgconfig dev)
if(TARGET lumokit_plugin)
  lumokit_install_configured(${CMAKE_SOURCE_DIR}/packaging/lumokit-plugin.pc.in
    ${CMAKE_INSTALL_LIBDIR}/pkgconfig dev)
endif()

# ---- programs ---------------------------------------------------------------
set(LUMOKIT_PROGRAMS)
foreach(program lumokitd lumokit lumokit-token lumokit-example-plugin)
  if(TARGET ${program})
    list(APPEND LUMOKIT_PROGRAMS ${program})
    # Found next to their libraries whatever the prefix.
    set_target_properties(${program} PROPERTIES
      INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  endif()
endforeach()
if(LUMOKIT_PROGRAMS)
  install(TARGETS ${LUMOKIT_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT daemon)
endif()

# ---- service and socket units, examples, documentation --------------------------
lumokit_install_configured(${CMAKE_SOURCE_DIR}/packaging/lumokitd.service.in
  lib/systemd/system daemon)
lumokit_install_configured(${CMAKE_SOURCE_DIR}/packaging/lumokitd.socket.in
  lib/systemd/system daemon)
install(FILES ${CMAKE_SOURCE_DIR}/docs/examples/demo-policy.json
  DESTINATION ${CMAKE_INSTALL_DATADIR}/lumokit/examples COMPONENT daemon)
if(TARGET lumokit-example-plugin)
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/api/
    DESTINATION ${CMAKE_INSTALL_DATADIR}/lumokit/examples/api COMPONENT daemon)
endif()
install(FILES
    ${CMAKE_SOURCE_DIR}/docs/daemon.md
    ${CMAKE_SOURCE_DIR}/docs/client-protocol.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT daemon)
install(FILES ${CMAKE_SOURCE_DIR}/docs/plugin-guide.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)

# Runs at install time (see lumokit_install_configured in Install.cmake):
# writes LUMOKIT_TEMPLATE to LUMOKIT_OUTPUT with the paths of the prefix
# being installed to. CMAKE_INSTALL_PREFIX here is that prefix, which
# `cmake --install --prefix` may set long after configuration; the folders
# below it (LUMOKIT_BINDIR ...) are the configured, relative ones.
#
# Templates may use @LUMOKIT_PREFIX@, @PROJECT_VERSION@, the relative
# @LUMOKIT_LIBDIR@ and @LUMOKIT_INCLUDEDIR@, and the absolute
# @LUMOKIT_FULL_BINDIR@, @LUMOKIT_FULL_DATADIR@, @LUMOKIT_FULL_DOCDIR@ and
# @LUMOKIT_FULL_SYSCONFDIR@.
set(LUMOKIT_PREFIX "${CMAKE_INSTALL_PREFIX}")
foreach(dir BINDIR DATADIR DOCDIR SYSCONFDIR)
  if(IS_ABSOLUTE "${LUMOKIT_${dir}}")
    set(LUMOKIT_FULL_${dir} "${LUMOKIT_${dir}}")
  else()
    set(LUMOKIT_FULL_${dir} "${LUMOKIT_PREFIX}/${LUMOKIT_${dir}}")
  endif()
endforeach()
# As GNUInstallDirs has it: a system prefix keeps its configuration in /etc.
if(LUMOKIT_PREFIX MATCHES "^/(usr/?)?$" AND LUMOKIT_SYSCONFDIR STREQUAL "etc")
  set(LUMOKIT_FULL_SYSCONFDIR "/etc")
endif()
configure_file("${LUMOKIT_TEMPLATE}" "${LUMOKIT_OUTPUT}" @ONLY)

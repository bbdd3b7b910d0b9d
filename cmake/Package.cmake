# Debian packages of the install components (cmake/Install.cmake), made by
# `cpack -G DEB` in a build configured with CMAKE_INSTALL_PREFIX=/usr;
# scripts/package does both. Dependencies on other packages come from
# dpkg-shlibdeps, as Debian's own packages get them, plus the ones between
# these packages and the development files' own needs.
set(CPACK_PACKAGE_NAME lumokit)
set(CPACK_PACKAGE_VENDOR "lumokit")
set(CPACK_PACKAGE_CONTACT "lumokit developers <lumokit@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_COMPONENTS_ALL runtime dev daemon)
# Install-time paths (pkg-config files, units) must name the package's
# prefix, not the staging folder: stage through DESTDIR.
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})

set(CPACK_DEB_COMPONENT_INSTALL ON)
# As Debian ships binaries: without their symbols.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# A shlibs file for the package that holds the libraries, so that packages
# built against them depend on it through dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://example.org/lumokit")
set(lumokit_exact "(= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME liblumokit1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "Lumokit service manager, platform layer and plugin SDK libraries
The service manager library brokers between service plugins and client
sessions; the platform layer provides the Android calls it makes on a
Linux host; the plugin SDK is what a service plugin links.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME liblumokit-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The headers include jsoncpp's; the CMake package and the .pc files find
# jsoncpp through pkg-config.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "liblumokit1 ${lumokit_exact}, libjsoncpp-dev, pkgconf | pkg-config")
set(CPACK_DEBIAN_DEV_DESCRIPTION
  "Lumokit development files: headers, CMake package and pkg-config files
For service plugins (find_package(Lumokit) with Lumokit::plugin, or
pkg-config lumokit-plugin) and for daemons hosting the service manager
(Lumokit::manager, or pkg-config lumokit).")

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME lumokit)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS "liblumokit1 ${lumokit_exact}")
# dpkg-shlibdeps runs in the daemon's staging folder; the libraries its
# programs need are staged beside it, in the runtime component's folder.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "../runtime${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
set(CPACK_DEBIAN_DAEMON_DESCRIPTION
  "Lumokit service manager daemon and tools
lumokitd hosts the service manager on a Linux host, with systemd service
and socket units; lumokit is its command-line client, lumokit-token signs
plugin registration tokens, lumokit-example-plugin is an example plugin.")

include(CPack)

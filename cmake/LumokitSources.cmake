# The manager library: the same core sources as the Android build, plus the
# host backend of the system-service seam (added by access/host).
file(GLOB LUMOKIT_CORE_SOURCES CONFIGURE_DEPENDS
  ${CMAKE_SOURCE_DIR}/manager/*.cc
  ${CMAKE_SOURCE_DIR}/service/*.cc
  ${CMAKE_SOURCE_DIR}/session/*.cc
  ${CMAKE_SOURCE_DIR}/access/*.cc)

add_library(lumokit_manager SHARED ${LUMOKIT_CORE_SOURCES})
target_compile_options(lumokit_manager PRIVATE ${LUMOKIT_WARNINGS} -ftrapv)
target_include_directories(lumokit_manager
  PUBLIC
    $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/manager>
    $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/service>
    $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/session>
    $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/access>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/lumokit>)
# The manager's own libcrypto. On the device it is BoringSSL; these name
# another one (scripts/check-device gives Debian's build of Android's
# BoringSSL) while the tools and tests keep OpenSSL.
set(LUMOKIT_MANAGER_CRYPTO_LIBRARY "" CACHE FILEPATH "libcrypto for the manager library (default: OpenSSL's)")
set(LUMOKIT_MANAGER_CRYPTO_INCLUDE_DIR "" CACHE PATH "folder holding that libcrypto's openssl/ headers")
if(LUMOKIT_MANAGER_CRYPTO_LIBRARY)
  add_library(lumokit_manager_crypto SHARED IMPORTED)
  set_target_properties(lumokit_manager_crypto PROPERTIES
    IMPORTED_LOCATION "${LUMOKIT_MANAGER_CRYPTO_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${LUMOKIT_MANAGER_CRYPTO_INCLUDE_DIR}")
else()
  add_library(lumokit_manager_crypto ALIAS OpenSSL::Crypto)
endif()

target_link_libraries(lumokit_manager
  PUBLIC lumokit_platform PkgConfig::JSONCPP Threads::Threads
  PRIVATE lumokit_token_proto lumokit_manager_crypto)
set_target_properties(lumokit_manager PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 1
  EXPORT_NAME manager)
# The name an installed package gives it, usable in this tree too.
add_library(Lumokit::manager ALIAS lumokit_manager)

# The libcrypto RSA calls used for token checks are deprecated in OpenSSL 3;
# that warning is silenced for this one file only.
set_source_files_properties(${CMAKE_SOURCE_DIR}/access/token_verify.cc
  PROPERTIES COMPILE_OPTIONS "-Wno-deprecated-declarations")

if(EXISTS ${CMAKE_SOURCE_DIR}/cmake/TokenKey.cmake)
  include(${CMAKE_SOURCE_DIR}/cmake/TokenKey.cmake)
endif()

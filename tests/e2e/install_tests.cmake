# The product as it is installed and supervised: a plugin built outside the
# tree against an installed Lumokit, and lumokitd taking the sockets that a
# supervisor (systemd) hands over. Included from tests/e2e/CMakeLists.txt.
get_filename_component(lumokit_signing_key "${LUMOKIT_TOKEN_PUBLIC_KEY}" ABSOLUTE
  BASE_DIR "${CMAKE_SOURCE_DIR}")
add_test(NAME installed_package
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/installed_package_test.sh --build-dir ${CMAKE_BINARY_DIR}
    --key ${lumokit_signing_key} --sanitize "${LUMOKIT_SANITIZE}")
# Not under ThreadSanitizer: it adds nothing to the concurrency runs.
set_tests_properties(installed_package PROPERTIES
  LABELS "e2e;install" TIMEOUT 300 SKIP_RETURN_CODE 77)

add_executable(e2e_socket_handover_test socket_handover_test.cc)
target_compile_options(e2e_socket_handover_test PRIVATE ${LUMOKIT_WARNINGS})
target_link_libraries(e2e_socket_handover_test PRIVATE lumokit_e2e_support GTest::gtest_main)
add_dependencies(e2e_socket_handover_test lumokitd)
gtest_discover_tests(e2e_socket_handover_test DISCOVERY_TIMEOUT 60)
list(APPEND e2e_test_lists e2e_socket_handover_test_TESTS)

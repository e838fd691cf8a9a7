# SPDX-License-Identifier: Apache-2.0
if(TARGET corvane AND TARGET corvane_client)
    corvane_test(system_tests
        SOURCES ${CMAKE_CURRENT_LIST_DIR}/client_test.cpp ${CMAKE_CURRENT_LIST_DIR}/supervisor_test.cpp
                ${CMAKE_CURRENT_LIST_DIR}/system_test.cpp
        LIBS corvane_client corvane_base TIMEOUT 900)
    target_include_directories(system_tests PRIVATE ${PROJECT_SOURCE_DIR}/platform/oipc)
    target_compile_definitions(system_tests PRIVATE CORVANE_BINARY="$<TARGET_FILE:corvane>")
    add_dependencies(system_tests corvane)
endif()

# The service unit keeps the daemon on a short leash: exposure of at most 0.7 as the tool measures it.
find_program(SYSTEMD_ANALYZE systemd-analyze)
if(SYSTEMD_ANALYZE)
    add_test(NAME packaging.exposure COMMAND ${SYSTEMD_ANALYZE} security --offline=true --no-pager --threshold=7
        ${CMAKE_SOURCE_DIR}/packaging/corvane.service)
endif()

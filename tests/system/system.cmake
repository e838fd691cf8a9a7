# SPDX-License-Identifier: Apache-2.0
if(TARGET corvane AND TARGET corvane_client)
    corvane_test(system_tests SOURCES ${CMAKE_CURRENT_LIST_DIR}/system_test.cpp LIBS corvane_client TIMEOUT 900)
    target_compile_definitions(system_tests PRIVATE CORVANE_BINARY="$<TARGET_FILE:corvane>")
    add_dependencies(system_tests corvane)
endif()

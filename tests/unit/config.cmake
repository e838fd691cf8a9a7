# SPDX-License-Identifier: Apache-2.0
corvane_test(config_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/config_test.cpp LIBS oru_config oru_log)
target_compile_definitions(config_test PRIVATE
    CORVANE_EXAMPLE_CONFIG="${CMAKE_CURRENT_LIST_DIR}/../../packaging/corvane.toml")

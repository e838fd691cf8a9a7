# SPDX-License-Identifier: Apache-2.0
corvane_test(kvs_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/kvs_test.cpp ${CMAKE_CURRENT_LIST_DIR}/kvs_damage_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/kvs_medium_test.cpp ${CMAKE_CURRENT_LIST_DIR}/../support/file_faults.cpp
    LIBS corvane_service corvane_test_kvs oru_kvs oru_config oru_os SQLite::SQLite3 ${CMAKE_DL_LIBS} TIMEOUT 300)
target_compile_definitions(kvs_test PRIVATE KEPT_STORE="${CMAKE_CURRENT_LIST_DIR}/data/store-schema-1.db")

# SPDX-License-Identifier: Apache-2.0
corvane_test(kvs_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/kvs_test.cpp ${CMAKE_CURRENT_LIST_DIR}/kvs_damage_test.cpp
    LIBS corvane_service oru_kvs oru_config oru_os SQLite::SQLite3 TIMEOUT 120)

# SPDX-License-Identifier: Apache-2.0
corvane_test(kvs_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/kvs_test.cpp ${CMAKE_CURRENT_LIST_DIR}/kvs_damage_test.cpp
    LIBS oru_kvs oru_config SQLite::SQLite3 TIMEOUT 120)

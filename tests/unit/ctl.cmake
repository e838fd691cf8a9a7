# SPDX-License-Identifier: Apache-2.0
corvane_test(ctl_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/ctl_parts_test.cpp LIBS corvanectl_parts)
corvane_test(client_memory_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/ctl_memory_test.cpp
    LIBS corvane_client oru_oipc oru_kvs oru_config oru_log)

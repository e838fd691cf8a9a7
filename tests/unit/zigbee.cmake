# SPDX-License-Identifier: Apache-2.0
corvane_test(base_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/base_test.cpp LIBS corvane_base)
corvane_test(zigbee_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/zigbee_table_test.cpp ${CMAKE_CURRENT_LIST_DIR}/zigbee_frame_test.cpp
    LIBS corvane_zigbee)
target_compile_definitions(zigbee_test PRIVATE
    CORVANE_ZCL_TABLE="${CMAKE_CURRENT_LIST_DIR}/../../lib/zigbee/zcl_table.tsv")

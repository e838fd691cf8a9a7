# SPDX-License-Identifier: Apache-2.0
corvane_test(ctl_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/ctl_zcl_test.cpp ${CMAKE_CURRENT_LIST_DIR}/ctl_parse_test.cpp
            ${CMAKE_CURRENT_LIST_DIR}/ctl_map_test.cpp
    LIBS corvanectl_parts)

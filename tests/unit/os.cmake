# SPDX-License-Identifier: Apache-2.0
corvane_test(unit_os SOURCES ${CMAKE_CURRENT_LIST_DIR}/os_test.cpp LIBS corvane_test_os oru_os oru_log)

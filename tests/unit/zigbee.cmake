# SPDX-License-Identifier: Apache-2.0
corvane_test(base_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/base_test.cpp LIBS corvane_base)

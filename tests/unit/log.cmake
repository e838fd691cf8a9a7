# SPDX-License-Identifier: Apache-2.0
find_package(spdlog REQUIRED)
corvane_test(unit_log SOURCES ${CMAKE_CURRENT_LIST_DIR}/log_test.cpp LIBS oru_log spdlog::spdlog)

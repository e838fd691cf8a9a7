# SPDX-License-Identifier: Apache-2.0
if(TARGET oru_zbhal)
    corvane_test(unit_serial
        SOURCES ${CMAKE_CURRENT_LIST_DIR}/serial_ash_test.cpp ${CMAKE_CURRENT_LIST_DIR}/serial_ezsp_test.cpp
                ${CMAKE_CURRENT_LIST_DIR}/serial_line_test.cpp
        LIBS oru_zbhal)
endif()

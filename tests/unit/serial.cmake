# SPDX-License-Identifier: Apache-2.0
if(TARGET oru_zbhal)
    corvane_test(unit_serial
        SOURCES ${CMAKE_CURRENT_LIST_DIR}/serial_ash_test.cpp ${CMAKE_CURRENT_LIST_DIR}/serial_ezsp_test.cpp
                ${CMAKE_CURRENT_LIST_DIR}/serial_line_test.cpp
        LIBS oru_zbhal)
endif()
if(TARGET corvane_coprocessor)
    corvane_test(unit_coprocessor
        SOURCES ${CMAKE_CURRENT_LIST_DIR}/coprocessor_test.cpp
        LIBS corvane_coprocessor oru_zbhal oru_config oru_os oru_log)
endif()
if(TARGET corvane_radio_parts)
    corvane_test(unit_radio_server
        SOURCES ${CMAKE_CURRENT_LIST_DIR}/radio_server_test.cpp
        LIBS corvane_radio_parts corvane_coprocessor oru_zbhal oru_config oru_os oru_log)
endif()

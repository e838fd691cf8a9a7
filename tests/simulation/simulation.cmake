# SPDX-License-Identifier: Apache-2.0
if(TARGET corvane_test_platform AND TARGET corvane_test_zbhal)
    corvane_test(simulation_tests SOURCES ${CMAKE_CURRENT_LIST_DIR}/simulation_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/radio_fault_test.cpp
        LIBS corvane_test_platform corvane_test_zbhal oru_zbhal oru_config oru_os TIMEOUT 600)
endif()

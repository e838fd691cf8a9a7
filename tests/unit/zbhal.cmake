# SPDX-License-Identifier: Apache-2.0
if(TARGET corvane_test_platform AND TARGET corvane_test_zbhal)
    corvane_test(unit_zbhal
        SOURCES ${CMAKE_CURRENT_LIST_DIR}/zbhal_adapter_test.cpp ${CMAKE_CURRENT_LIST_DIR}/zbhal_network_test.cpp ${CMAKE_CURRENT_LIST_DIR}/zbhal_traffic_test.cpp
                ${CMAKE_CURRENT_LIST_DIR}/zbhal_events_test.cpp ${CMAKE_CURRENT_LIST_DIR}/zbhal_control_test.cpp
        LIBS corvane_test_platform corvane_test_zbhal oru_zbhal oru_config oru_os)
endif()

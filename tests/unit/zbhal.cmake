# SPDX-License-Identifier: Apache-2.0
if(TARGET oru_zbhal)
    corvane_test(unit_zbhal
        SOURCES ${CMAKE_CURRENT_LIST_DIR}/zbhal_fixture.cpp ${CMAKE_CURRENT_LIST_DIR}/zbhal_network_test.cpp
                ${CMAKE_CURRENT_LIST_DIR}/zbhal_traffic_test.cpp ${CMAKE_CURRENT_LIST_DIR}/zbhal_events_test.cpp
        LIBS oru_zbhal oru_config oru_headers)
endif()

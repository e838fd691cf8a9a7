# SPDX-License-Identifier: Apache-2.0
# Framing, link, codec and line of a serial co-processor; the simulated radio shares all but the last.
set(CORVANE_SERIAL_SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/ash_frame.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ash_link.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ezsp.cpp
    ${CMAKE_CURRENT_LIST_DIR}/line.cpp)

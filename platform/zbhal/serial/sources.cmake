# SPDX-License-Identifier: Apache-2.0
# The serial backend's sources; the simulated radio shares framing and link.
set(CORVANE_ASH_SOURCES ${CMAKE_CURRENT_LIST_DIR}/ash_frame.cpp ${CMAKE_CURRENT_LIST_DIR}/ash_link.cpp)

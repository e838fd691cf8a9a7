# SPDX-License-Identifier: Apache-2.0
if(TARGET oru_zbhal)
    corvane_test(mesh_device_test
        SOURCES ${CMAKE_CURRENT_LIST_DIR}/mesh_device_frames_test.cpp ${CMAKE_CURRENT_LIST_DIR}/scenario_test.cpp
        LIBS oru_zbhal oru_log)
    target_compile_definitions(mesh_device_test PRIVATE
        CORVANE_SCENARIOS="${CMAKE_CURRENT_LIST_DIR}/../../scenarios")
endif()

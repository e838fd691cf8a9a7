# SPDX-License-Identifier: Apache-2.0
if(TARGET corvane_test_platform)
    file(GLOB service_test_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*_test.cpp)
    corvane_test(service_tests SOURCES ${service_test_sources} LIBS corvane_test_radio corvane_test_platform)
    target_compile_definitions(service_tests PRIVATE CORVANE_IPC_DOC="${PROJECT_SOURCE_DIR}/docs/ipc.md")
endif()

# SPDX-License-Identifier: Apache-2.0
corvane_test(oipc_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/oipc_server_test.cpp ${CMAKE_CURRENT_LIST_DIR}/oipc_client_test.cpp
            ${CMAKE_CURRENT_LIST_DIR}/oipc_fixture.cpp
    LIBS oru_oipc oru_config corvane_client
    TIMEOUT 120)

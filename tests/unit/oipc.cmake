# SPDX-License-Identifier: Apache-2.0
corvane_test(oipc_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/oipc_server_test.cpp ${CMAKE_CURRENT_LIST_DIR}/oipc_client_test.cpp
    LIBS oru_oipc oru_kvs oru_os oru_config oru_log corvane_client
    TIMEOUT 120)

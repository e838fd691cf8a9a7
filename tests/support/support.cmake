# SPDX-License-Identifier: Apache-2.0
# An archive, because a test may bring the operations of a header, and what looks into them, itself.
add_library(corvane_test_os STATIC ${CMAKE_CURRENT_LIST_DIR}/os_mp_testing.cpp
    ${CMAKE_CURRENT_LIST_DIR}/os_sync_testing.cpp ${CMAKE_CURRENT_LIST_DIR}/os_time_testing.cpp)
target_compile_definitions(corvane_test_os PRIVATE ORU_MP_POISON=$<IF:$<CONFIG:Release>,0,1>)
target_include_directories(corvane_test_os PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(corvane_test_os PUBLIC oru_os PRIVATE corvane_options)
if(TARGET oru_os AND TARGET corvane_service)
    # Objects, not an archive: every replacement is linked, whether or not an archive before it was asked for it.
    add_library(corvane_test_platform OBJECT ${CMAKE_CURRENT_LIST_DIR}/test_platform.cpp
        ${CMAKE_CURRENT_LIST_DIR}/test_fault_wraps.cpp ${CMAKE_CURRENT_LIST_DIR}/check_invariants.cpp)
    target_include_directories(corvane_test_platform PUBLIC ${CMAKE_CURRENT_LIST_DIR})
    target_link_libraries(corvane_test_platform PUBLIC corvane_service oru_headers corvane_test_os oru_os PRIVATE corvane_options)
    foreach(name oruAlloc_alloc oruMp_init oruMp_alloc oruMp_allocSize oruMutex_new oruMutex_acquire oruSem_new
            oruSem_wait oruSem_waitTry)
        target_link_options(corvane_test_platform INTERFACE -Wl,--wrap=${name})
    endforeach()
    add_library(corvane_test_radio STATIC ${CMAKE_CURRENT_LIST_DIR}/test_radio.cpp)
    target_include_directories(corvane_test_radio PUBLIC ${CMAKE_CURRENT_LIST_DIR})
    target_link_libraries(corvane_test_radio PUBLIC oru_headers PRIVATE corvane_options)
endif()
if(TARGET oru_zbhal)
    # Objects: its instance of the radio layer is linked instead of the product's.
    add_library(corvane_test_zbhal OBJECT ${CMAKE_CURRENT_LIST_DIR}/zbhal_testing.cpp)
    target_include_directories(corvane_test_zbhal PUBLIC ${CMAKE_CURRENT_LIST_DIR})
    target_link_libraries(corvane_test_zbhal PUBLIC oru_zbhal oru_config oru_os PRIVATE corvane_options)
    target_link_options(corvane_test_zbhal INTERFACE -Wl,--wrap=oruZbHal_init -Wl,--wrap=oruZbHal_setAdapterName)
endif()
if(TARGET oru_kvs)
    add_library(corvane_test_kvs STATIC ${CMAKE_CURRENT_LIST_DIR}/kvs_medium_testing.cpp
        ${CMAKE_CURRENT_LIST_DIR}/kvs_store_testing.cpp)
    target_include_directories(corvane_test_kvs PUBLIC ${CMAKE_CURRENT_LIST_DIR})
    target_link_libraries(corvane_test_kvs PUBLIC oru_kvs SQLite::SQLite3 PRIVATE corvane_options)
endif()

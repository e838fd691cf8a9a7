# SPDX-License-Identifier: Apache-2.0
find_package(Threads REQUIRED)

find_program(CCACHE ccache)
if(CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

# Warnings are errors in all code of this tree; sanitizers apply to all of it or to none.
add_library(corvane_options INTERFACE)
target_compile_options(corvane_options INTERFACE -Wall -Wextra -Wconversion -Wshadow -Wformat=2 -Werror
    -fno-strict-aliasing -fstack-protector-strong)
# g++ 12 sees overlapping copies and endless reads in standard containers where there are none (bugs 105651, 105329).
target_compile_options(corvane_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict -Wno-stringop-overread>)
target_compile_definitions(corvane_options INTERFACE $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
# Functions of libraries are bound at the start: binding at the first call leaves the registers, and keys in them, on the
# stack, and keeps the table of addresses writable.
target_link_options(corvane_options INTERFACE -Wl,-z,relro,-z,now)
target_link_libraries(corvane_options INTERFACE Threads::Threads)
if(CORVANE_SANITIZE)
    target_compile_options(corvane_options INTERFACE -fsanitize=${CORVANE_SANITIZE} -fno-omit-frame-pointer
        -fno-sanitize-recover=all)
    target_link_options(corvane_options INTERFACE -fsanitize=${CORVANE_SANITIZE})
endif()
if(CORVANE_FUZZ)
    target_compile_options(corvane_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# corvane_layer(NAME SOURCES... LIBS...): one static library per platform layer.
function(corvane_layer name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC oru_headers corvane_base PRIVATE corvane_options ${ARG_LIBS})
endfunction()

# corvane_test(NAME SOURCES... LIBS... [TIMEOUT seconds]): a GoogleTest program whose cases ctest lists one by one.
function(corvane_test name)
    cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 60)
    endif()
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} corvane_options GTest::gtest_main)
    if(CORVANE_SANITIZE) # g++ 12 takes <regex> for uninitialised when it is instrumented (bug 105562)
        target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    endif()
    gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()

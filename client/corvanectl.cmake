# SPDX-License-Identifier: Apache-2.0
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)

# What can be tested without a service.
add_library(corvanectl_parts STATIC
    corvanectl_map.cpp corvanectl_names.cpp corvanectl_output.cpp corvanectl_parse.cpp corvanectl_records.cpp corvanectl_svg.cpp
    corvanectl_zcl.cpp)
target_link_libraries(corvanectl_parts
    PUBLIC corvane_client corvane_zigbee fmt::fmt nlohmann_json::nlohmann_json PRIVATE corvane_options)

add_executable(corvanectl
    corvanectl_devices.cpp corvanectl_latency.cpp corvanectl_main.cpp corvanectl_monitor.cpp corvanectl_radio.cpp
    corvanectl_send.cpp corvanectl_service.cpp corvanectl_session.cpp corvanectl_sim.cpp corvanectl_tables.cpp)
target_compile_definitions(corvanectl PRIVATE CORVANE_VERSION="${PROJECT_VERSION}")
target_link_libraries(corvanectl PRIVATE corvanectl_parts corvane_options)

# SPDX-License-Identifier: Apache-2.0
# The simulated co-processor, relative to platform/zbhal.
set(CORVANE_COPROCESSOR_SOURCES
    coprocessor/mesh_radio.cpp
    coprocessor/ncp.cpp
    coprocessor/ncp_keys.cpp
    coprocessor/ncp_memory.cpp
    coprocessor/ncp_messages.cpp
    coprocessor/ncp_network.cpp
    coprocessor/ncp_setup.cpp
    coprocessor/ncp_tables.cpp
    coprocessor/ncp_zdo.cpp
    coprocessor/wire.cpp
    coprocessor/wire_control.cpp)

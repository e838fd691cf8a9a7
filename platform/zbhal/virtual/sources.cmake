# SPDX-License-Identifier: Apache-2.0
# Devices, scenario and control socket of the virtual mesh, relative to platform/zbhal.
set(CORVANE_MESH_DEVICE_SOURCES
    virtual/scenario.cpp
    virtual/scenario_reader.cpp
    virtual/text_formats.cpp
    virtual/clusters.cpp
    virtual/device.cpp
    virtual/zdo.cpp
    virtual/zcl.cpp
    virtual/zcl_clusters.cpp
    virtual/control.cpp
    virtual/control_line.cpp)

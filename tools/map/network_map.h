// SPDX-License-Identifier: Apache-2.0
//
// The network as a tree, built from the coordinator's tables. The tables tell who is a child or neighbour of the
// coordinator and over which next hop everybody else is reached; that is what the tree shows. Devices that no table
// mentions stand apart. The same tables give the same tree: nothing here depends on time or chance.
#pragma once
#include "corvane_client.h"
#include <optional>
#include <string>
#include <vector>

namespace corvane::map {

struct KnownDevice {
    uint16_t node_id = 0;
    Eui64 eui64{};
    bool router = false;
    std::string name; // what people call it: its type, or a name of its own
};

struct MapInput {
    std::string title; // "channel 15, PAN id 0x1234"
    Eui64 coordinator_eui64{};
    std::vector<KnownDevice> devices; // that the service has stored
    std::vector<oruZb_childTableEntry_t> children;
    std::vector<oruZb_routeTableEntry_t> routes;
    std::vector<oruZb_neighborTableEntry_t> neighbors;
};

enum class MapKind : uint8_t { Coordinator, Router, EndDevice };

struct MapNode {
    uint16_t node_id = 0;
    MapKind kind = MapKind::EndDevice;
    std::string name;                    // of the device
    std::string eui64;                   // may be empty
    std::optional<uint8_t> link_quality; // of the link to the parent, 0 to 255
    bool link_active = true;             // false: the route is not in use, or the neighbour is silent
    bool stored = false;                 // the service knows the device
    std::size_t parent = 0;              // position in the list
    std::vector<std::size_t> children;
};

struct NetworkMap {
    std::string title;
    std::vector<MapNode> nodes;        // the coordinator first
    std::vector<std::size_t> detached; // known devices without a place in the tree
};

NetworkMap buildMap(const MapInput &input);

enum class LinkGrade : uint8_t { Good, Fair, Poor, Unknown };
LinkGrade gradeOf(const MapNode &node);

} // namespace corvane::map

// SPDX-License-Identifier: Apache-2.0
//
// Run-time control of the virtual mesh: `corvanectl sim ...` connects to a Unix stream socket, sends one line of JSON
// and reads one line back. Only the service's own user may connect.
#pragma once
#include "scenario.h"
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace corvane::mesh {

struct SimDevice { // one row of "list"
    std::string name;
    Eui64 eui64{};
    Role role = Role::router;
    bool in_network = false;
    uint16_t node_id = 0xFFFF;
    std::string parent;
    uint8_t link_quality = 0;
    std::string state; // Device::describe()
};

// What the control socket can ask of the mesh. Implementations are thread-safe; every operation returns an empty text
// on success, else one clear sentence.
class SimTarget {
public:
    virtual ~SimTarget() = default;
    virtual std::vector<SimDevice> list() = 0;
    virtual std::string join(const std::string &name) = 0; // fresh (unsecured) join
    virtual std::string rejoin(const std::string &name, bool secured) = 0;
    virtual std::string leave(const std::string &name) = 0;             // leaves by itself
    virtual std::string announce(const std::string &name) = 0;          // sends a Device_annce
    virtual std::string changeAddress(const std::string &name) = 0;     // new node id, then announce
    virtual std::string report(const std::string &name) = 0;            // sends its reports now
    virtual std::string setPower(const std::string &name, bool on) = 0; // off: gone from the air, tables follow
    virtual std::string setAttribute(const std::string &name, uint8_t endpoint, uint16_t cluster_id,
                                     uint16_t attribute_id, int64_t value) = 0;
    virtual std::string setFaults(const std::string &name, const Faults &faults) = 0;
    virtual std::string getFaults(const std::string &name, Faults &faults) = 0;
    virtual std::string setAir(const AirSpec &air) = 0;
    virtual AirSpec getAir() = 0;
    // Adapter faults: operation is the name of a HAL operation without prefix ("sendZclUnicast"); the next count calls
    // are refused with status.
    virtual std::string refuseNext(const std::string &operation, uint32_t count, int32_t status) = 0;
    virtual std::string adapterReset() = 0;
    virtual std::string adapterFatalError() = 0;
    virtual std::string adapterHang(uint32_t milliseconds) = 0; // HAL calls block that long
};

class ControlServer; // owns the socket and its thread

// Starts the control server; null when the socket cannot be created (logged). The target outlives the server.
std::unique_ptr<ControlServer, void (*)(ControlServer *)> startControlServer(const std::string &socket_path,
                                                                             SimTarget &target);
// The same with another answer to a request line, given on the server's thread.
using LineHandler = std::function<std::string(const std::string &line)>;
std::unique_ptr<ControlServer, void (*)(ControlServer *)> startControlServer(const std::string &socket_path,
                                                                             LineHandler handler);

// Handles one request line and returns the answer line without line feed. Any input is legal. Used by the server and
// by tests.
std::string handleControlLine(const std::string &line, SimTarget &target);

} // namespace corvane::mesh

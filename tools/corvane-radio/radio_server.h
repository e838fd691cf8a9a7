// SPDX-License-Identifier: Apache-2.0
//
// The simulated radio at its port: one loop that moves bytes between host and co-processor, and the control socket's
// thread beside it.
//
// Locks: the mutex of the MeshRadio guards mesh, co-processor and line; it is not held while the loop waits.
#pragma once
#include "coprocessor/ncp.h"
#include "coprocessor/wire_control.h"
#include "host_port.h"
#include <atomic>

namespace corvane::coprocessor {

struct RadioOptions {
    mesh::Scenario scenario;
    std::string state_directory; // of the devices; empty: they remember nothing
    std::string control_path;    // of the control socket; empty: none
    NcpSettings ncp;
    NcpMemory memory;
    WireFaults faults;
};

class RadioServer final : private WireTarget {
public:
    RadioServer(const RadioOptions &options, HostPort &port);

    // Plugs in and starts the control socket. Empty text on success, else one clear sentence.
    std::string start();
    void run();  // until stop()
    void stop(); // any thread, signal handlers as well

private:
    using ControlServerPtr = std::unique_ptr<mesh::ControlServer, void (*)(mesh::ControlServer *)>;

    WireFaults wireFaults() override;
    void setWireFaults(const WireFaults &faults) override;
    std::string lineEvent(LineEvent event, uint32_t value) override;

    std::string answer(const std::string &line);
    void wake();
    void plugAsWanted();
    void await();
    int waitMs(bool writing);
    bool mustWrite();
    void readHost();
    void writeHost();
    void hostGone();

    HostPort &port_;
    const std::string control_path_;
    base::Descriptor wake_;
    MeshRadio radio_;
    Ncp ncp_;
    bool plug_wanted_ = true; // with the mutex of the MeshRadio
    bool plugged_ = false;    // by the loop
    std::atomic<bool> stopping_{false};
    ControlServerPtr control_{nullptr, nullptr}; // last: its thread calls in here
};

} // namespace corvane::coprocessor

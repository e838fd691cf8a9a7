// SPDX-License-Identifier: Apache-2.0
//
// Where a host finds the simulated radio: a pseudo terminal under a name of one's choice, or a TCP port. Like a stick
// it can be pulled out and plugged in again. All descriptors are non-blocking.
#pragma once
#include "base/descriptor.h"
#include <cstdint>
#include <memory>
#include <netinet/in.h>
#include <string>

namespace corvane::coprocessor {

class HostPort {
public:
    virtual ~HostPort() = default;
    // Empty text on success, else one clear sentence.
    virtual std::string plug() = 0;
    virtual void unplug() = 0;
    virtual std::string name() const = 0; // as a host has to be told

    int listener() const { return listener_.get(); } // readable: acceptHost(); -1: none
    int host() const { return host_.get(); }         // -1: nobody is connected
    // One host at a time: the next one is turned away while there is one.
    virtual void acceptHost() {}
    virtual void dropHost() = 0; // its connection has ended

protected:
    base::Descriptor listener_;
    base::Descriptor host_;
};

// A pseudo terminal in raw mode; link becomes a symbolic link to it and goes when it is unplugged. Only a symbolic link
// is ever replaced.
std::unique_ptr<HostPort> makePtyPort(std::string link);

// "127.0.0.1:6638", port 0 for any. Null with a sentence in problem when it is no such address, or not of the loopback
// although any is false.
std::unique_ptr<HostPort> makeTcpPort(const std::string &address, bool any, std::string &problem);

} // namespace corvane::coprocessor

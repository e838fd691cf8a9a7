// SPDX-License-Identifier: Apache-2.0
//
// The scales of meters whose numbers are shown. A device is asked for them when the first number of it is shown, once
// for each attribute, whether it answers or not.
#pragma once
#include "corvanectl_session.h"
#include "zigbee/meter_scales.h"
#include <map>
#include <set>

namespace corvane::ctl {

class Meters {
public:
    explicit Meters(Session &session) : session_(session) {}

    // What is needed to show the message, as far as the device tells. Waits for its answer, 2 s at most; not in a
    // handler.
    const zigbee::MeterScales &scalesFor(const oruZb_clusterCmd_t &message);
    void forget(uint16_t node_id); // another device may get it

private:
    struct Meter {
        zigbee::MeterScales scales;
        std::set<std::pair<uint16_t, uint16_t>> asked; // cluster and attribute
    };

    void ask(Meter &meter, const oruZb_clusterCmd_t &message, const std::vector<uint16_t> &attributes);

    Session &session_;
    std::map<std::pair<uint16_t, uint8_t>, Meter> meters_; // by node id and endpoint
};

} // namespace corvane::ctl

// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_meters.h"
#include "corvanectl_names.h"
#include "corvanectl_send.h"
#include "corvanectl_zcl.h"
#include <algorithm>

namespace corvane::ctl {

namespace {

constexpr Milliseconds PATIENCE{2000}; // the number is shown raw rather than late

} // namespace

const zigbee::MeterScales &Meters::scalesFor(const oruZb_clusterCmd_t &message) {
    Meter &meter = meters_[{message.src_node, message.src_ep}];
    if (message.profile_id == PROFILE_ZDO) {
        return meter.scales;
    }
    meter.scales.learn(message.cluster_id, frameOf(message));
    auto attributes = meter.scales.missing(message.cluster_id, frameOf(message));
    std::erase_if(attributes, [&](uint16_t attribute) {
        return !meter.asked.insert({message.cluster_id, attribute}).second;
    });
    if (!attributes.empty()) {
        ask(meter, message, attributes);
    }
    return meter.scales;
}

void Meters::ask(Meter &meter, const oruZb_clusterCmd_t &message, const std::vector<uint16_t> &attributes) {
    auto question = makeCommand(message.src_node, message.src_ep, message.cluster_id,
                                encodeReadAttributes(nextSequence(), attributes));
    question.profile_id = message.profile_id;
    try {
        const Exchange exchange = session_.exchange("scale of a meter", question,
                                                    {.async = true, .timeout = std::min(session_.timeout(), PATIENCE)});
        if (exchange.answer) {
            meter.scales.learn(message.cluster_id, frameOf(*exchange.answer));
        }
    } catch (const Failure &failure) {
        if (failure.exit == Exit::ConnectionLost) {
            throw;
        }
    }
}

void Meters::forget(uint16_t node_id) {
    std::erase_if(meters_, [=](const auto &meter) { return meter.first.first == node_id; });
}

} // namespace corvane::ctl

// SPDX-License-Identifier: Apache-2.0
//
// The settings that scenario files and the control socket have in common, with their ranges, in one place. A visitor is
// called with (key, bool &), (key, integer &, minimum, maximum) or (key, double &, minimum, maximum).
#pragma once
#include "scenario.h"

namespace corvane::mesh {

template <class Visitor>
void visitFaults(Faults &faults, Visitor &&visit) {
    visit("silent", faults.silent);
    visit("deaf", faults.deaf);
    visit("answer_delay_ms", faults.answer_delay_ms, 0, 60000);
    visit("zdo_error_status", faults.zdo_error_status, 0, 255);
    visit("zdo_length_delta", faults.zdo_length_delta, -128, 128);
    visit("duplicate_answers", faults.duplicate_answers);
    visit("send_status", faults.send_status, 0, 255);
    visit("hold_confirmations", faults.hold_confirmations);
}

template <class Visitor>
void visitAir(AirSpec &air, Visitor &&visit) {
    visit("delay_ms", air.delay_ms, 0, 10000);
    visit("jitter_ms", air.jitter_ms, 0, 10000);
    visit("loss", air.loss, 0.0, 1.0);
    visit("interference", air.interference, 0.0, 1.0);
    visit("pta_denial", air.pta_denial, 0.0, 1.0);
    visit("max_in_flight", air.max_in_flight, 1, kMaxInFlight);
    visit("shared_medium", air.shared_medium);
    visit("aps_ack_wait_ms", air.aps_ack_wait_ms, 0, 60000);
    visit("route_discovery_ms", air.route_discovery_ms, 0, 60000);
    visit("indirect_queue_ms", air.indirect_queue_ms, 0, 3'600'000);
}

} // namespace corvane::mesh

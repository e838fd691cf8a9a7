// SPDX-License-Identifier: Apache-2.0
//
// One command to a device and what becomes of it: the confirmation of the radio, then the answer of the device.
#pragma once
#include "corvanectl_session.h"

namespace corvane::ctl {

uint8_t nextSequence(); // of ZCL transactions; starts anywhere, so that processes seldom choose the same

struct SentCommand {
    oruZb_clusterCmd_t command{};
    bool expects_answer = false;
};

Bytes frameOf(const oruZb_clusterCmd_t &command); // refers to it
oruZb_clusterCmd_t makeCommand(uint16_t node_id, uint8_t endpoint, uint16_t cluster, Bytes frame);
void submit(Session &session, const oruZb_clusterCmd_t &command, bool async);
// Hands the command over and waits. Failure when it is refused, not confirmed, or not answered.
Exchange deliver(Session &session, const SentCommand &sent, bool async);

} // namespace corvane::ctl

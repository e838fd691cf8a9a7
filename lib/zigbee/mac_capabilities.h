// SPDX-License-Identifier: Apache-2.0
//
// MAC capability flags, as in announcements and node descriptors.
#pragma once
#include <cstdint>

namespace corvane::zigbee {

constexpr uint8_t MAC_ALTERNATE_PAN_COORDINATOR = 0x01;
constexpr uint8_t MAC_FULL_FUNCTION_DEVICE = 0x02; // a router
constexpr uint8_t MAC_MAINS_POWERED = 0x04;
constexpr uint8_t MAC_RX_ON_WHEN_IDLE = 0x08;
constexpr uint8_t MAC_SECURITY = 0x40;
constexpr uint8_t MAC_ALLOCATE_ADDRESS = 0x80;

// What devices of each role say.
constexpr uint8_t MAC_COORDINATOR = MAC_ALTERNATE_PAN_COORDINATOR | MAC_FULL_FUNCTION_DEVICE | MAC_MAINS_POWERED |
                                    MAC_RX_ON_WHEN_IDLE | MAC_ALLOCATE_ADDRESS;
constexpr uint8_t MAC_ROUTER =
    MAC_FULL_FUNCTION_DEVICE | MAC_MAINS_POWERED | MAC_RX_ON_WHEN_IDLE | MAC_ALLOCATE_ADDRESS;
constexpr uint8_t MAC_END_DEVICE = MAC_MAINS_POWERED | MAC_RX_ON_WHEN_IDLE | MAC_ALLOCATE_ADDRESS;
constexpr uint8_t MAC_SLEEPY_END_DEVICE = MAC_ALLOCATE_ADDRESS;

constexpr bool isRouter(uint8_t mac_capabilities) {
    return (mac_capabilities & MAC_FULL_FUNCTION_DEVICE) != 0;
}
constexpr bool isMainsPowered(uint8_t mac_capabilities) {
    return (mac_capabilities & MAC_MAINS_POWERED) != 0;
}
constexpr bool isRxOnWhenIdle(uint8_t mac_capabilities) {
    return (mac_capabilities & MAC_RX_ON_WHEN_IDLE) != 0;
}

} // namespace corvane::zigbee

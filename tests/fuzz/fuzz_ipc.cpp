// SPDX-License-Identifier: Apache-2.0
//
// The whole daemon in this process, real socket and virtual radio; an input is what one client sends. Another client
// must get its answers after each. State lives on between inputs, as it does between clients.
#include "../support/raw_client.h"
#include "config_internal.h"
#include "fuzz_log.h"
#include "oru_zigbee_api.h"
#include "zb_alloc.h"
#include "zb_database.h"
#include "zb_main.h"
#include "zb_timer.h"
#include "zb_zts.h"
#include <memory>
#include <thread>

using testplat::RawClient, testplat::RawFrame, testplat::frameOf;

namespace {

constexpr int MAX_FRAMES = 30;
// A result that belongs to the call it answers: the other client is served, and served in order.
void expectAnswer(const RawClient &other, uint16_t function, uint32_t sequence) {
    other.send(frameOf({oipc::FrameType::SyncCall, function, 0, sequence, 0, 0}, fuzz::Bytes(8)));
    while (const RawFrame frame = other.receive()) {
        if (frame.header.type == oipc::FrameType::SyncResult) {
            fuzz::require(frame.header.sequence == sequence, "each result once");
            return;
        }
        fuzz::require(frame.header.type == oipc::FrameType::Event || frame.header.type == oipc::FrameType::Hello,
                      "callbacks go to those who asked");
    }
    fuzz::require(false, "the other client is served, with whole frames");
}

void startDaemon() {
    fuzz::logToFile();
    oruConfig_t config = oruConfig_defaults();
    config.state_directory = config.runtime_directory = fuzz::folder();
    config.simulation_control = false;
    config.watchdog_seconds = 60;
    oruConfig_replace(config);
    std::thread([] {
        static std::string device = std::string("virtual:") + CORVANE_HOME_SCENARIO;
        fuzz::require(oruZb_initMemory() == 0 && oruZb_timersInit() == 0 && oruZb_databaseInit() == 0, "start-up");
        oruZb_ztsListInit();
        oruZb_start(device.data());
    }).detach();
}

fuzz::Bytes next(fuzz::Input &input) {
    oipc::FrameHeader header;
    const uint8_t kind = input.u8();
    if (kind % 8 == 7) {
        return input.sized8();
    }
    const uint8_t function = input.u8();
    const bool async = kind % 2 == 1;
    header.type = async ? oipc::FrameType::AsyncCall : oipc::FrameType::SyncCall;
    header.id = static_cast<uint16_t>(async ? 256 + function % 18 : function % 32);
    if (kind % 16 == 13) {
        header.type = oipc::FrameType::PlatformCall;
        header.id = function % 4;
    }
    header.callback_id = input.u8();
    header.sequence = input.u8();
    fuzz::Bytes payload = input.sized8();
    payload.resize(payload.size() + input.u8() * 16U, input.u8());
    fuzz::Bytes frame = frameOf(header, payload);
    if (kind % 8 == 6) { // one byte of the header is wrong
        const uint8_t at = input.u8();
        frame[at % oipc::HEADER_SIZE] = input.u8();
    }
    return frame;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static uint32_t sequence = (startDaemon(), 0);
    const std::string path = fuzz::folder() + "/corvane.sock";
    static std::unique_ptr<RawClient> other;
    for (int i = 0; (!other || !other->connected()) && i < 500; ++i) {
        usleep(10'000);
        other = std::make_unique<RawClient>(path);
    }
    fuzz::Input input(data, size);
    const RawClient client(path);
    for (int n = 0; n < MAX_FRAMES && !input.empty(); ++n) {
        client.send(next(input), MSG_DONTWAIT);
        if (input.u8() % 4 == 0) {
            (void)client.receive(1);
        }
    }
    expectAnswer(*other, ORU_ZB_SVC_SPING, ++sequence);
    if (sequence % 16 == 0) { // as far as the main thread
        expectAnswer(*other, ORU_ZB_SVC_PING, ++sequence);
    }
    return 0;
}

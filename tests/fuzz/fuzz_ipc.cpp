// SPDX-License-Identifier: Apache-2.0
//
// The whole daemon in this process, real socket and virtual radio; an input is what one client sends. Another client
// must get its answers after each. State lives on between inputs, as it does between clients.
#include "fuzz_log.h"
#include "oipc_wire.h"
#include "oru_config.h"
#include "oru_zigbee_api.h"
#include "zb_alloc.h"
#include "zb_database.h"
#include "zb_main.h"
#include "zb_timer.h"
#include "zb_zts.h"
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int MAX_FRAMES = 30;
constexpr int PATIENCE_MS = 60'000;

class Connection {
public:
    Connection() { open(); }
    ~Connection() { close(); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    void open() {
        close();
        fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, (fuzz::folder() + "/corvane.sock").c_str(), sizeof address.sun_path - 1);
        connected_ = connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    }
    void close() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = -1;
    }
    bool connected() const { return connected_; }
    void write(const fuzz::Bytes &bytes) const {
        (void)send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    // The next frame, or nothing when the connection has ended or nobody wrote in time.
    fuzz::Bytes read(int timeout_ms) const {
        fuzz::Bytes frame(oipc::MAX_FRAME);
        pollfd wait{fd_, POLLIN, 0};
        int ready = 0;
        do { // a fuzzer's clock interrupts
            ready = poll(&wait, 1, timeout_ms);
        } while (ready < 0 && errno == EINTR);
        if (ready != 1) {
            return {};
        }
        const ssize_t size = recv(fd_, frame.data(), frame.size(), MSG_DONTWAIT);
        frame.resize(size > 0 ? static_cast<size_t>(size) : 0);
        return frame;
    }

private:
    int fd_ = -1;
    bool connected_ = false;
};

fuzz::Bytes frameOf(oipc::FrameHeader header, const fuzz::Bytes &payload) {
    header.payload_length = static_cast<uint32_t>(payload.size());
    const auto head = oipc::encodeHeader(header);
    fuzz::Bytes frame(head.size() + payload.size());
    std::copy(payload.begin(), payload.end(), std::copy(head.begin(), head.end(), frame.begin()));
    return frame;
}

// A result that belongs to the call it answers: the other client is served, and served in order.
void expectAnswer(const Connection &other, uint16_t function, uint32_t sequence) {
    other.write(frameOf({oipc::FrameType::SyncCall, function, 0, sequence, 0, 0}, fuzz::Bytes(8)));
    for (;;) {
        const fuzz::Bytes frame = other.read(PATIENCE_MS);
        fuzz::require(!frame.empty(), "the other client is served");
        oipc::FrameHeader header;
        fuzz::require(oipc::decodeHeader(frame, frame.size(), header) == oipc::Reason::None, "frames are whole");
        if (header.type == oipc::FrameType::SyncResult) {
            fuzz::require(header.sequence == sequence, "each result once");
            return;
        }
        fuzz::require(header.type == oipc::FrameType::Event || header.type == oipc::FrameType::Hello,
                      "callbacks go to those who asked");
    }
}

void startDaemon() {
    fuzz::logToFile();
    oruConfig_t config = oruConfig_defaults();
    config.state_directory = config.runtime_directory = fuzz::folder();
    config.simulation_control = false;
    config.watchdog_seconds = 60;
    oruConfig_setForTesting(config);
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
    static Connection other;
    for (int i = 0; !other.connected() && i < 500; ++i) {
        usleep(10'000);
        other.open();
    }
    fuzz::Input input(data, size);
    Connection client;
    for (int n = 0; n < MAX_FRAMES && !input.empty(); ++n) {
        client.write(next(input));
        if (input.u8() % 4 == 0) {
            (void)client.read(1);
        }
    }
    expectAnswer(other, ORU_ZB_SVC_SPING, ++sequence);
    if (sequence % 16 == 0) { // as far as the main thread
        expectAnswer(other, ORU_ZB_SVC_PING, ++sequence);
    }
    return 0;
}

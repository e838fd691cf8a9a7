// SPDX-License-Identifier: Apache-2.0
#include "oipc_fixture.h"
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace oipc_test {

namespace {

std::mutex current_mutex;
Service *current = nullptr;

oru_status_t handler(oruOipc_parameter_t *task) {
    return current->handleCall(*task);
}

sockaddr_un addressOf(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

bool readable(int fd) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, static_cast<int>(std::chrono::milliseconds(PATIENCE).count())) > 0;
}

} // namespace

Service::Service() {
    std::string pattern = (std::filesystem::temp_directory_path() / "oipc-XXXXXX").string();
    directory = ::mkdtemp(pattern.data());
    path = directory + "/corvane.sock";
    oruConfig_t config = oruConfig_defaults();
    config.runtime_directory = directory;
    oruConfig_setForTesting(config);
    const std::lock_guard lock(current_mutex);
    current = this;
}

Service::~Service() {
    openGate();
    stop();
    std::filesystem::remove_all(directory);
    const std::lock_guard lock(current_mutex);
    current = nullptr;
}

oru_status_t Service::start(uint32_t max_clients) {
    oruOipc_serverConfig_t config{};
    config.service_uuid = ORU_OIPC_UUID_ZIGBEE;
    config.service_handler = handler;
    config.max_payload_size = 4096;
    config.max_client_count = max_clients;
    config.thread_option = ORU_OIPC_THREAD_NONBLOCKING;
    return oruOipc_start(&handle, &config);
}

void Service::stop() {
    if (handle != 0) {
        EXPECT_EQ(oruOipc_stop(&handle), ORU_STATUS_OK);
        EXPECT_EQ(handle, 0);
    }
}

oru_status_t Service::handleCall(oruOipc_parameter_t &task) {
    if (task.type == ORU_OIPC_EVENT_UNICAST) {
        const std::lock_guard lock(mutex_);
        ++events_[task.event_id];
        changed_.notify_all();
        return ORU_STATUS_OK;
    }
    switch (task.function_id) {
    case ECHO:
        return ORU_STATUS_OK;
    case BLOCK:
        return block();
    default:
        return custom ? custom(task) : ORU_STATUS_NOT_SUPPORTED;
    }
}

oru_status_t Service::block() {
    std::unique_lock lock(mutex_);
    ++blocked_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return gate_open_; });
    --blocked_;
    return blocked_result;
}

void Service::openGate() {
    const std::lock_guard lock(mutex_);
    gate_open_ = true;
    changed_.notify_all();
}

template <class Predicate>
bool Service::waitUntil(Predicate predicate) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, PATIENCE, predicate);
}

bool Service::waitForBlocked(int count) {
    return waitUntil([&] { return blocked_ == count; });
}

bool Service::waitForEvent(uint16_t event, int count) {
    return waitUntil([&] { return events_[event] >= count; });
}

bool Service::waitForLog(const std::string &text) {
    return waitUntil([&] {
        return std::ranges::any_of(lines_, [&](const auto &line) { return line.find(text) != std::string::npos; });
    });
}

int Service::countLog(const std::string &text) {
    const std::lock_guard lock(mutex_);
    return static_cast<int>(
        std::ranges::count_if(lines_, [&](const auto &line) { return line.find(text) != std::string::npos; }));
}

int Service::countEvent(uint16_t event) {
    const std::lock_guard lock(mutex_);
    return events_[event];
}

void Service::log(const std::string &line) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(line);
    changed_.notify_all();
}

oru_status_t Service::callback(uint16_t client, uint16_t callback_id, const Payload &payload) {
    const oruOipc_callbackParams_t parameters{ORU_OIPC_CALLBACK_ID, callback_id, payload.data(),
                                              static_cast<oruOipc_size_t>(payload.size())};
    return oruOipc_callback(handle, client, &parameters);
}

oru_status_t Service::publish(uint16_t event_id, const Payload &payload) {
    const oruOipc_eventParams_t event{event_id, payload.data(), static_cast<oruOipc_size_t>(payload.size())};
    return oruOipc_publishEvent(handle, &event);
}

RawClient::RawClient(const std::string &path) : fd_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    const auto address = addressOf(path);
    if (::connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        ADD_FAILURE() << "connect " << path << ": " << std::strerror(errno);
    }
}

void RawClient::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool RawClient::sendBytes(const Payload &bytes) const {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool RawClient::send(oipc::FrameHeader header, const Payload &payload) const {
    header.payload_length = static_cast<uint32_t>(payload.size());
    const auto encoded = oipc::encodeHeader(header);
    Payload bytes(encoded.begin(), encoded.end());
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return sendBytes(bytes);
}

std::optional<RawFrame> RawClient::receive() const {
    std::array<uint8_t, oipc::MAX_FRAME> buffer{};
    if (!readable(fd_)) {
        return std::nullopt;
    }
    const auto count = ::recv(fd_, buffer.data(), buffer.size(), MSG_TRUNC);
    RawFrame frame;
    if (count <= 0 || oipc::decodeHeader(std::span(buffer).first(static_cast<std::size_t>(count)),
                                         static_cast<std::size_t>(count), frame.header) != oipc::Reason::None) {
        return std::nullopt;
    }
    frame.payload.assign(buffer.begin() + oipc::HEADER_SIZE, buffer.begin() + count);
    return frame;
}

bool RawClient::ended() const {
    char byte = 0;
    return readable(fd_) && ::recv(fd_, &byte, 1, 0) == 0;
}

std::optional<RawFrame> RawClient::call(uint16_t function_id, const Payload &payload) const {
    send({.type = oipc::FrameType::SyncCall, .id = function_id, .sequence = 77}, payload);
    return receive();
}

uint16_t RawClient::hello() const {
    const auto frame = receive();
    oipc::Hello hello;
    const bool greeted =
        frame && frame->header.type == oipc::FrameType::Hello && oipc::decodeHello(frame->payload, hello);
    return greeted ? hello.client_id : uint16_t{0};
}

int listenAt(const std::string &path) {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const auto address = addressOf(path);
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(fd, 4), 0);
    return fd;
}

int acceptFrom(int listener) {
    return readable(listener) ? ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

} // namespace oipc_test

// The layer's log lines, kept for the test that runs.
void oruLog_log(oruLog_id_t, oruLog_level_t, const char *, const char *format, ...) {
    std::array<char, 512> line{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    const std::lock_guard lock(oipc_test::current_mutex);
    if (oipc_test::current != nullptr) {
        oipc_test::current->log(line.data());
    }
}

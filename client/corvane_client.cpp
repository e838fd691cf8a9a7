// SPDX-License-Identifier: Apache-2.0
//
// The typed calls: records in and out of payload bytes. Nothing here knows about sockets.
#include "corvane_client.h"
#include "client_impl.h"
#include "oipc_platform_wire.h"
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>

namespace corvane {

namespace {

constexpr std::size_t MAX_PAYLOAD = oipc::MAX_PAYLOAD;

// What there is no memory for is refused, not thrown.
template <class Call>
auto guarded(Call call) noexcept -> decltype(call()) {
    try {
        return call();
    } catch (const std::bad_alloc &) {
        if constexpr (std::is_base_of_v<Outcome, decltype(call())>) {
            return {NO_MEMORY};
        } else {
            return decltype(call())();
        }
    }
}

template <class T>
Bytes bytesOf(const T &record) {
    static_assert(std::is_trivially_copyable_v<T>);
    return {reinterpret_cast<const uint8_t *>(&record), sizeof record};
}

template <class T>
std::span<uint8_t> writable(T &record) {
    static_assert(std::is_trivially_copyable_v<T>);
    return {reinterpret_cast<uint8_t *>(&record), sizeof record};
}

// Later versions may append fields.
template <class T>
std::optional<T> recordFrom(Bytes payload) {
    T record{};
    if (payload.size() < sizeof record) {
        return std::nullopt;
    }
    std::memcpy(&record, payload.data(), sizeof record);
    return record;
}

std::string textOf(const oruZb_pingResponse_t &reply) {
    return {reply.response, ::strnlen(reply.response, sizeof reply.response)};
}

// Sends `record`, which the service completes in place.
template <class T>
Result<T> exchange(Client &client, uint16_t function_id, const T &record = {}) {
    Result<T> result{{}, record};
    static_cast<Outcome &>(result) = client.callSync(function_id, bytesOf(record), writable(result.value));
    return result;
}

Result<std::string> exchangePing(Client &client, uint16_t function_id) {
    const auto reply = exchange<oruZb_pingResponse_t>(client, function_id);
    return {reply, textOf(reply.value)};
}

template <class T>
Outcome tell(Client &client, uint16_t function_id, const T &record) {
    return client.callSync(function_id, bytesOf(record), {});
}

// The service numbers the entries it writes 1, 2, 3 ...; the rest of the zeroed buffer stays zero.
template <class Entry>
Result<std::vector<Entry>> exchangeTable(Client &client, uint16_t function_id) {
    constexpr std::size_t MOST = 255; // the adapter counts in 8 bits
    constexpr std::size_t CAPACITY = std::min(MOST, MAX_PAYLOAD / sizeof(Entry));
    std::vector<Entry> entries;
    const bool room = guarded([&] { return entries.resize(CAPACITY), true; });
    if (!room) {
        return {NO_MEMORY};
    }
    const std::span<uint8_t> buffer(reinterpret_cast<uint8_t *>(entries.data()), CAPACITY * sizeof(Entry));
    const auto outcome = client.callSync(function_id, buffer, buffer);
    std::size_t count = 0;
    while (outcome.ok() && count < CAPACITY && entries[count].idx == count + 1) {
        ++count;
    }
    entries.resize(count);
    return {outcome, std::move(entries)};
}

// Callbacks of most asynchronous functions carry the status of the operation.
Result<uint16_t> begin(Client &client, uint16_t function_id, Bytes payload, Completion &done) {
    return guarded([&]() -> Result<uint16_t> {
        RawCompletion raw;
        if (done) {
            raw = [done = std::move(done)](const CallbackResult &result) {
                Outcome outcome = result;
                if (outcome.answered()) {
                    outcome.status = recordFrom<oru_status_t>(result.payload).value_or(ORU_STATUS_DATA_LEN_INVALID);
                }
                done(outcome);
            };
        }
        return client.callAsync(function_id, payload, std::move(raw));
    });
}

} // namespace

std::string defaultSocketPath() {
    return guarded([]() -> std::string {
        const char *path = std::getenv("CORVANE_SOCKET");
        return path != nullptr && *path != '\0' ? path : "/run/corvane/corvane.sock";
    });
}

std::optional<oruZb_device_t> Event::device() const {
    const bool carries = id >= ORU_ZB_SVC_DEVICE_JOINED && id <= ORU_ZB_SVC_DEVICE_DISCOVERED;
    return carries ? recordFrom<oruZb_device_t>(payload) : std::nullopt;
}

std::optional<oruZb_clusterCmd_t> Event::command() const {
    const bool carries = id > ORU_ZB_SVC_CMD_EVENT && id < ORU_ZB_SVC_EVENTS_END;
    return carries ? recordFrom<oruZb_clusterCmd_t>(payload) : std::nullopt;
}

std::optional<oruZb_interpanResponse_t> Event::interpan() const {
    return id == ORU_ZB_SVC_INTERPAN_COMPLETE ? recordFrom<oruZb_interpanResponse_t>(payload) : std::nullopt;
}

Client::Client() : impl_(guarded([] { return std::make_unique<Impl>(); })) {}
Client::~Client() = default;

Outcome Client::connect(const Options &options) {
    return guarded([&] { return impl_ ? impl_->connect(options) : NO_MEMORY; });
}
void Client::disconnect() {
    if (impl_) {
        impl_->disconnect();
    }
}
bool Client::connected() const {
    return impl_ && impl_->connected();
}
uint16_t Client::clientId() const {
    return impl_ ? impl_->clientId() : uint16_t{0};
}
bool Client::onEvent(EventHandler handler) {
    return guarded([&] { return impl_ && impl_->onEvent(std::move(handler)); });
}
bool Client::onPlatformEvent(PlatformEventHandler handler) {
    return guarded([&] { return impl_ && impl_->onPlatformEvent(std::move(handler)); });
}
bool Client::onConnection(ConnectionHandler handler) {
    return guarded([&] { return impl_ && impl_->onConnection(std::move(handler)); });
}
std::size_t Client::poll(Milliseconds timeout) {
    return impl_ ? impl_->poll(timeout) : 0;
}
bool Client::pollUntil(const std::function<bool()> &done, Milliseconds timeout) {
    return impl_ ? impl_->pollUntil(done, timeout) : done();
}
int Client::fileDescriptor() const {
    return impl_ ? impl_->fileDescriptor() : -1;
}
bool Client::start() {
    return impl_ && impl_->start();
}
void Client::stop() {
    if (impl_) {
        impl_->stop();
    }
}
std::uint64_t Client::droppedEvents() const {
    return impl_ ? impl_->droppedEvents() : 0;
}
Outcome Client::callSync(uint16_t function_id, Bytes in, std::span<uint8_t> out) {
    return impl_ ? impl_->callSync(function_id, in, out) : NO_MEMORY;
}
Result<uint16_t> Client::callAsync(uint16_t function_id, Bytes payload, RawCompletion done, Milliseconds timeout) {
    return guarded([&]() -> Result<uint16_t> {
        return impl_ ? impl_->callAsync(function_id, payload, std::move(done), timeout) : Result<uint16_t>{NO_MEMORY};
    });
}

Outcome Client::startExchange(const oruZb_clusterCmd_t &command, const ExchangeOptions &options,
                              ExchangeCompletion done) {
    return guarded([&] { return impl_ ? impl_->startExchange(command, options, std::move(done)) : NO_MEMORY; });
}

// ---------------------------------------------------------------- synchronous calls

Result<std::string> Client::ping() {
    return exchangePing(*this, ORU_ZB_SVC_PING);
}
Result<std::string> Client::serverPing() {
    return exchangePing(*this, ORU_ZB_SVC_SPING);
}

Result<oruZb_adapterState_t> Client::adapterState() {
    return exchange<oruZb_adapterState_t>(*this, ORU_ZB_SVC_ADAPTER_GET_STATE);
}

Result<oruZb_networkInfo_t> Client::networkInfo() {
    return exchange<oruZb_networkInfo_t>(*this, ORU_ZB_SVC_GETNET_INFO);
}

Result<oruZb_adapterInfo_t> Client::adapterInfo() {
    return exchange<oruZb_adapterInfo_t>(*this, ORU_ZB_SVC_GET_ADAPTER_INFO);
}

Result<oruZb_nodeInfo_t> Client::localNode() {
    return exchange<oruZb_nodeInfo_t>(*this, ORU_ZB_SVC_GET_LOCAL_NODE_INFO);
}

Outcome Client::permitJoin(bool open) {
    return callSync(open ? ORU_ZB_SVC_PERMITJOIN_START : ORU_ZB_SVC_PERMITJOIN_STOP, {}, {});
}

Result<uint32_t> Client::deviceCount() {
    const auto reply = exchange<oruZb_deviceCount_t>(*this, ORU_ZB_SVC_GETDEVICE_COUNT);
    return {reply, reply.value.count};
}

Result<oruZb_device_t> Client::deviceByIndex(uint32_t index) {
    if (index > static_cast<uint32_t>(std::numeric_limits<int32_t>::max())) {
        return {{Transport::Invalid, ORU_STATUS_PARAM_OUT_OF_RANGE}, {}};
    }
    oruZb_getDevice_t request{};
    request.by = static_cast<oruZb_getDeviceBy_t>(index);
    const auto reply = exchange(*this, ORU_ZB_SVC_GETDEVICE, request);
    return {reply, reply.value.device};
}

Result<oruZb_device_t> Client::deviceByNodeId(uint16_t node_id) {
    oruZb_getDevice_t request{};
    request.by = ORU_ZB_BY_NODEID;
    request.device.node_id = node_id;
    const auto reply = exchange(*this, ORU_ZB_SVC_GETDEVICE, request);
    return {reply, reply.value.device};
}

Result<oruZb_device_t> Client::deviceByEui64(const Eui64 &eui64) {
    oruZb_getDevice_t request{};
    request.by = ORU_ZB_BY_EUI64;
    std::ranges::copy(eui64, request.device.device_info.eui64);
    const auto reply = exchange(*this, ORU_ZB_SVC_GETDEVICE, request);
    return {reply, reply.value.device};
}

namespace {

constexpr std::size_t NODE_SIZE = sizeof(oruZb_nodeInfo_t);
constexpr std::size_t PAGE_HEADER = offsetof(oruZb_nodeInfoList_t, node_info_array);
constexpr std::size_t PAGE_NODES = (MAX_PAYLOAD - PAGE_HEADER) / NODE_SIZE;
static_assert(PAGE_NODES == 5);

// Reads up to `wanted` (at most PAGE_NODES) nodes from page.next on and appends them. More nodes to come is a success
// here, and so is an end of the list that came earlier than expected.
Outcome readPage(Client &client, std::size_t wanted, NodePage &page) {
    alignas(oruZb_nodeInfoList_t) std::array<uint8_t, PAGE_HEADER + PAGE_NODES * NODE_SIZE> memory{};
    const auto buffer = std::span(memory).first(PAGE_HEADER + wanted * NODE_SIZE);
    base::ByteWriter(buffer).u32(page.next);
    const auto outcome = client.callSync(ORU_ZB_SVC_GET_CONN_NODES, buffer, buffer);
    if (!outcome.answered()) {
        return outcome;
    }
    const uint32_t written = base::ByteReader(buffer).u32() - page.next;
    if (written > wanted) {
        return {Transport::Ok, ORU_STATUS_DATA_LEN_INVALID};
    }
    for (std::size_t i = 0; i < written; ++i, ++page.next) {
        std::memcpy(&page.nodes.emplace_back(), &memory[PAGE_HEADER + i * NODE_SIZE], NODE_SIZE);
    }
    page.more = outcome.status == ORU_STATUS_UNRECOVERABLE && written > 0;
    const bool ended = page.more || outcome.status == ORU_STATUS_GENERAL_ERROR;
    return ended ? Outcome{} : outcome;
}

} // namespace

Result<NodePage> Client::connectedNodes(uint32_t start, std::size_t max) {
    Result<NodePage> result;
    result.value.next = start;
    // The service logs an error when it is asked for more than it has, so the last page is cut to the count.
    const auto count = deviceCount();
    static_cast<Outcome &>(result) = count;
    auto &page = result.value;
    page.more = count.ok() && page.next < count.value;
    while (result.ok() && page.more && page.nodes.size() < max) {
        const std::size_t known = page.next < count.value ? count.value - page.next : std::size_t{1};
        const auto wanted = std::min({PAGE_NODES, known, max - page.nodes.size()});
        static_cast<Outcome &>(result) = guarded([&] { return readPage(*this, wanted, page); });
    }
    return result;
}

Result<oruZb_clusterCmd_t> Client::sendCommand(const oruZb_clusterCmd_t &command) {
    return exchange(*this, ORU_ZB_SVC_SEND_CLUSTER_CMD, command);
}

Outcome Client::bind(uint16_t node_id, Bytes body) {
    std::array<uint8_t, MAX_PAYLOAD> payload;
    if (body.size() > payload.size() - sizeof node_id) {
        return {Transport::Invalid, ORU_STATUS_DATA_LEN_INVALID};
    }
    base::ByteWriter(payload).u16(node_id);
    std::ranges::copy(body, payload.begin() + sizeof node_id);
    return callSync(ORU_ZB_SVC_BINDING, Bytes(payload).first(sizeof node_id + body.size()), {});
}

Outcome Client::setRadioPower(int8_t dbm) {
    return tell(*this, ORU_ZB_SVC_ADAPTER_SET_RADIO_POWER, oruZb_powerLevel_t{dbm});
}

Outcome Client::setRegion(std::string_view country_code) {
    std::array<uint8_t, MAX_PAYLOAD> text{};
    if (country_code.find('\0') != std::string_view::npos || country_code.size() >= text.size()) {
        return {Transport::Invalid, ORU_STATUS_BAD_PARAM};
    }
    std::ranges::copy(country_code, text.begin());
    return callSync(ORU_ZB_SVC_ADAPTER_SET_REGION, Bytes(text).first(country_code.size() + 1), {});
}

Outcome Client::setBurstSize(uint32_t commands) {
    return tell(*this, ORU_ZB_SVC_ADAPTER_SET_BURST_SIZE, commands);
}

Outcome Client::setThrottleTimeout(Milliseconds timeout) {
    if (timeout.count() < 0 || timeout.count() > std::numeric_limits<uint32_t>::max()) {
        return {Transport::Invalid, ORU_STATUS_PARAM_OUT_OF_RANGE};
    }
    return tell(*this, ORU_ZB_SVC_ADAPTER_SET_THROTTLE_TIMEOUT, static_cast<uint32_t>(timeout.count()));
}

Outcome Client::ztsAdd(std::span<const oruZb_ztsDeviceInfo_t> devices) {
    constexpr std::size_t AT_ONCE = MAX_PAYLOAD / sizeof(oruZb_ztsDeviceInfo_t);
    Outcome outcome;
    while (outcome.ok() && !devices.empty()) {
        const auto part = devices.first(std::min(AT_ONCE, devices.size()));
        outcome = callSync(ORU_ZB_SVC_ZTS_ADD_DEVICES,
                           {reinterpret_cast<const uint8_t *>(part.data()), part.size_bytes()}, {});
        devices = devices.subspan(part.size());
    }
    return outcome;
}

Outcome Client::ztsClear() {
    return callSync(ORU_ZB_SVC_ZTS_CLEAR_DEVICES, {}, {});
}

Result<oruZb_counters_t> Client::ptaCounters(bool clear) {
    return exchange<oruZb_counters_t>(*this,
                                      clear ? ORU_ZB_SVC_GET_AND_CLEAR_PTA_COUNTERS : ORU_ZB_SVC_GET_PTA_COUNTERS);
}

Result<std::vector<oruZb_childTableEntry_t>> Client::children() {
    return exchangeTable<oruZb_childTableEntry_t>(*this, ORU_ZB_SVC_GET_CHILDREN);
}

Result<std::vector<oruZb_routeTableEntry_t>> Client::routes() {
    return exchangeTable<oruZb_routeTableEntry_t>(*this, ORU_ZB_SVC_GET_ROUTES);
}

Result<std::vector<oruZb_neighborTableEntry_t>> Client::neighbors() {
    return exchangeTable<oruZb_neighborTableEntry_t>(*this, ORU_ZB_SVC_GET_NEIGHBORS);
}

// ---------------------------------------------------------------- platform calls

namespace {

// Throws where there is no memory for the text.
StoreState stateFrom(const oipc::StoreRecord &record) {
    return {.condition = static_cast<StoreCondition>(record.condition),
            .waiting = record.waiting,
            .files_set_aside = record.files_set_aside,
            .records_set_aside = record.records_set_aside,
            .since = Milliseconds(record.condition_ms),
            .reason = record.reason.data()};
}

PlatformInfo infoFrom(const oipc::InformationRecord &record) {
    return {.platform_version = record.platform_version,
            .release = record.release.data(),
            .process_id = record.process_id,
            .uptime = Milliseconds(record.uptime_ms),
            .store = stateFrom(record.store)};
}

} // namespace

std::optional<StoreState> PlatformEvent::store() const {
    oipc::StoreRecord record;
    base::ByteReader reader(payload);
    if (id != PLATFORM_EVENT_STORE_CHANGED || !decode(reader, record)) {
        return std::nullopt;
    }
    return guarded([&] { return std::optional(stateFrom(record)); });
}

uint16_t Client::platformVersion() const {
    return impl_ ? impl_->platformVersion() : uint16_t{0};
}

Result<std::size_t> Client::callPlatform(uint16_t operation, Bytes in, std::span<uint8_t> out) {
    return impl_ ? impl_->callPlatform(operation, in, out) : Result<std::size_t>{NO_MEMORY};
}

Result<PlatformInfo> Client::platformInfo() {
    std::array<uint8_t, oipc::INFORMATION_RECORD_SIZE> bytes{};
    const auto id = static_cast<uint16_t>(oipc::PlatformOperationId::information);
    const auto reply = callPlatform(id, {}, bytes);
    oipc::InformationRecord record;
    base::ByteReader reader(Bytes(bytes).first(reply.value));
    if (!reply.ok()) {
        return {reply};
    }
    if (!decode(reader, record)) {
        return {{Transport::Ok, ORU_STATUS_DATA_LEN_INVALID}};
    }
    return guarded([&] { return Result<PlatformInfo>{reply, infoFrom(record)}; });
}

Result<uint32_t> Client::subscribe(uint32_t events) {
    std::array<uint8_t, sizeof events> mask{};
    base::ByteWriter(mask).u32(events);
    const auto id = static_cast<uint16_t>(oipc::PlatformOperationId::subscribe);
    const auto reply = callPlatform(id, mask, mask);
    return {reply, reply.ok() ? base::ByteReader(mask).u32() : 0};
}

// ---------------------------------------------------------------- asynchronous calls

Outcome Client::asyncPing(PingCompletion done) {
    return guarded([&]() -> Outcome {
        RawCompletion raw;
        if (done) {
            raw = [done = std::move(done)](const CallbackResult &result) {
                const auto reply = recordFrom<oruZb_pingResponse_t>(result.payload).value_or(oruZb_pingResponse_t{});
                done({result, textOf(reply)});
            };
        }
        return callAsync(ORU_ZB_SVC_APING, {}, std::move(raw));
    });
}

Outcome Client::formNetworkAuto(const std::optional<oruZb_coexParams_t> &coex, Completion done) {
    return begin(*this, ORU_ZB_SVC_FORMZ3NET_AUTO, coex ? bytesOf(*coex) : Bytes{}, done);
}

Outcome Client::formNetworkManual(uint8_t channel, Completion done) {
    return begin(*this, ORU_ZB_SVC_FORMZ3NET_MANUAL, bytesOf(oruZb_channel_t{channel}), done);
}

Outcome Client::clearNetwork(Completion done) {
    return begin(*this, ORU_ZB_SVC_CLEAR_NETWORK, {}, done);
}

Outcome Client::enableRadio(Completion done) {
    return begin(*this, ORU_ZB_SVC_ADAPTER_ENABLE_RADIO, {}, done);
}

Outcome Client::disableRadio(Completion done) {
    return begin(*this, ORU_ZB_SVC_ADAPTER_DISABLE_RADIO, {}, done);
}

Outcome Client::resetAdapter(Completion done) {
    return begin(*this, ORU_ZB_SVC_ADAPTER_RESET, {}, done);
}

Result<uint16_t> Client::sendCommandAsync(const oruZb_clusterCmd_t &command, Completion done) {
    return begin(*this, ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(command), done);
}

Outcome Client::nodeLeave(const oruZb_nodeInfo_t &node, Completion done) {
    return begin(*this, ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST, bytesOf(node), done);
}

Outcome Client::sendInterpan(const oruZb_interpan_t &message, Completion done) {
    return begin(*this, ORU_ZB_SVC_SEND_INTERPAN, bytesOf(message), done);
}

Outcome Client::ztsEnable(Completion done) {
    return begin(*this, ORU_ZB_SVC_ZTS_ENABLE, {}, done);
}

Outcome Client::ztsDisable(Completion done) {
    return begin(*this, ORU_ZB_SVC_ZTS_DISABLE, {}, done);
}

Outcome Client::startScan(const oruZb_scan_t &scan, Completion done) {
    return begin(*this, ORU_ZB_SVC_START_SCAN, bytesOf(scan), done);
}

} // namespace corvane

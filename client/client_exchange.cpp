// SPDX-License-Identifier: Apache-2.0
//
// Exchanges: a command, its confirmation by the radio, the answer of the device.
//
//     hand_over --taken over--> confirmation --confirmed--> answer --answered--> done
//
// The service may tell faster than it answers the call: what comes before the exchange is taken over counts already,
// and an answer before the confirmation is kept until then. An end before the exchange is taken over waits for that, or
// is forgotten when it is not: then the caller has the result. Everything here but handOver() needs the lock.
#include "client_impl.h"
#include "zigbee/zcl_header.h"
#include "zigbee/zcl_table.h"
#include <algorithm>
#include <new>

namespace corvane {

namespace {

constexpr uint8_t ALL_ENDPOINTS = 0xFF;
constexpr uint16_t ZDO_RESPONSE = 0x8000; // added to the cluster of the request

Bytes frameOf(const oruZb_clusterCmd_t &command) {
    return Bytes(command.payload).first(std::min<std::size_t>(command.payload_len, ORU_ZB_MAX_PAYLOAD));
}

bool tellsOutcome(uint16_t event_id) {
    return event_id == ORU_ZB_SVC_SENDCMD_SUCCESS || event_id == ORU_ZB_SVC_SENDCMD_FAILURE ||
           event_id == ORU_ZB_SVC_DEVICE_UNRESPONSIVE || event_id == ORU_ZB_SVC_CHANNEL_BUSY ||
           event_id == ORU_ZB_SVC_SECURITY_ERROR;
}

bool isConfirmation(uint16_t event_id, const oruZb_clusterCmd_t &confirmed, const oruZb_clusterCmd_t &sent) {
    return tellsOutcome(event_id) && confirmed.dest_node == sent.dest_node && confirmed.cluster_id == sent.cluster_id &&
           confirmed.dest_ep == sent.dest_ep && std::ranges::equal(frameOf(confirmed), frameOf(sent));
}

bool isZdoAnswer(const oruZb_clusterCmd_t &message, const oruZb_clusterCmd_t &sent) {
    const auto question = frameOf(sent);
    const auto answer = frameOf(message);
    return message.profile_id == zigbee::PROFILE_ZDO && message.cluster_id == (sent.cluster_id | ZDO_RESPONSE) &&
           !question.empty() && !answer.empty() && answer[0] == question[0];
}

bool isZclAnswer(const oruZb_clusterCmd_t &message, const oruZb_clusterCmd_t &sent) {
    base::ByteReader sent_bytes(frameOf(sent));
    base::ByteReader answer_bytes(frameOf(message));
    zigbee::FrameHeader question;
    zigbee::FrameHeader answer;
    return zigbee::readHeader(sent_bytes, question) && zigbee::readHeader(answer_bytes, answer) &&
           message.cluster_id == sent.cluster_id && (message.src_ep == sent.dest_ep || sent.dest_ep == ALL_ENDPOINTS) &&
           answer.sequence == question.sequence && answer.to_client != question.to_client &&
           (answer.cluster_specific || answer.command != zigbee::COMMAND_REPORT_ATTRIBUTES);
}

bool isAnswer(uint16_t event_id, const oruZb_clusterCmd_t &message, const oruZb_clusterCmd_t &sent) {
    return event_id == ORU_ZB_SVC_INCOMING_MSG && message.src_node == sent.dest_node &&
           (sent.profile_id == zigbee::PROFILE_ZDO ? isZdoAnswer(message, sent) : isZclAnswer(message, sent));
}

std::chrono::microseconds since(TimePoint begun) {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begun);
}

} // namespace

Client::Impl::Exchanges Client::Impl::prepareExchange(const oruZb_clusterCmd_t &command, const ExchangeOptions &options,
                                                      ExchangeCompletion done) {
    Exchanges exchanges(1);
    OpenExchange &exchange = exchanges.front();
    exchange.note.emplace_back(ExchangeNote{std::move(done), {}});
    exchange.command = command;
    exchange.wants_answer = options.answer;
    exchange.timeout = options.timeout;
    exchange.begun = Clock::now();
    return exchanges;
}

Outcome Client::Impl::startExchange(const oruZb_clusterCmd_t &command, const ExchangeOptions &options,
                                    ExchangeCompletion done) {
    // Outlives the lock: what the handler holds may use the Client.
    auto prepared = prepareExchange(command, options, std::move(done));
    const auto exchange = prepared.begin();
    {
        const Lock lock(mutex_);
        if (!connection_.link) {
            return notConnected();
        }
        exchange->id = ++last_exchange_id_;
        if (exchange->timeout == Milliseconds::zero()) {
            exchange->timeout = options_.completion_timeout;
        }
        exchanges_.splice(exchanges_.end(), prepared);
    }
    const auto outcome = handOver(*exchange, options.async);
    const Lock lock(mutex_);
    if (outcome.ok()) {
        takeExchange(exchange);
    } else {
        prepared.splice(prepared.end(), exchanges_, exchange);
    }
    return outcome;
}

// What it reads does not change any more.
Outcome Client::Impl::handOver(const OpenExchange &exchange, bool async) {
    const Bytes record(reinterpret_cast<const uint8_t *>(&exchange.command), sizeof exchange.command);
    if (!async) {
        return callSync(ORU_ZB_SVC_SEND_CLUSTER_CMD, record, {});
    }
    try {
        const auto refused = [this, id = exchange.id](const CallbackResult &result) { failExchange(id, result); };
        return callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, record, refused, exchange.timeout);
    } catch (const std::bad_alloc &) {
        return NO_MEMORY;
    }
}

void Client::Impl::takeExchange(Exchanges::iterator exchange) {
    exchange->taken = true;
    if (exchange->ended) {
        addNote(exchange->note);
        exchanges_.erase(exchange);
        return;
    }
    Exchange &result = exchange->result();
    if (result.step == Exchange::Step::hand_over) {
        result.step = Exchange::Step::confirmation;
    }
    exchange->deadline = after(exchange->timeout);
    arm(exchange->deadline);
}

void Client::Impl::followExchanges(const Event &event) {
    if (exchanges_.empty()) {
        return;
    }
    const auto record = event.command();
    for (auto exchange = exchanges_.begin(); record && exchange != exchanges_.end(); ++exchange) {
        if (!exchange->ended && advance(exchange, event.id, *record)) {
            return; // one event belongs to one exchange; this one may be gone
        }
    }
}

// True when the event belongs to the exchange, which may have ended with it.
bool Client::Impl::advance(Exchanges::iterator exchange, uint16_t event_id, const oruZb_clusterCmd_t &record) {
    Exchange &result = exchange->result();
    if (result.confirmation == 0 && isConfirmation(event_id, record, exchange->command)) {
        result.confirmation = event_id;
        result.confirmed_after = since(exchange->begun);
        result.step = Exchange::Step::confirmation;
        if (event_id != ORU_ZB_SVC_SENDCMD_SUCCESS) {
            const auto status = static_cast<oru_status_t>(record.status);
            endExchange(exchange, {Transport::Ok, status != ORU_STATUS_OK ? status : ORU_STATUS_GENERAL_ERROR});
            return true;
        }
        result.step = Exchange::Step::answer;
        exchange->deadline = exchange->taken ? after(exchange->timeout) : NEVER;
        arm(exchange->deadline);
    } else if (exchange->wants_answer && !result.answer && isAnswer(event_id, record, exchange->command)) {
        result.answer = record;
        result.answered_after = since(exchange->begun);
    } else {
        return false;
    }
    if (result.confirmation != 0 && (result.answer || !exchange->wants_answer)) {
        result.step = Exchange::Step::done;
        endExchange(exchange, {});
    }
    return true;
}

void Client::Impl::endExchange(Exchanges::iterator exchange, const Outcome &outcome) {
    static_cast<Outcome &>(exchange->result()) = outcome;
    exchange->ended = true;
    if (exchange->taken) {
        addNote(exchange->note);
        exchanges_.erase(exchange);
    }
}

void Client::Impl::endExchanges(const Outcome &reason) {
    for (auto exchange = exchanges_.begin(); exchange != exchanges_.end();) {
        const auto current = exchange++;
        if (!current->ended) {
            endExchange(current, reason);
        }
    }
}

// The callback of the asynchronous call. That it does not come is no refusal: the confirmation tells.
void Client::Impl::failExchange(uint64_t id, const CallbackResult &result) {
    base::ByteReader payload(result.payload);
    const auto status = static_cast<oru_status_t>(payload.u32());
    if (!result.answered() || !payload.ok() || status == ORU_STATUS_OK) {
        return;
    }
    const Lock lock(mutex_);
    const auto exchange = std::ranges::find(exchanges_, id, &OpenExchange::id);
    if (exchange != exchanges_.end() && !exchange->ended) {
        exchange->result().step = Exchange::Step::hand_over;
        endExchange(exchange, {Transport::Ok, status});
    }
}

TimePoint Client::Impl::expireExchanges(TimePoint now) {
    TimePoint next = NEVER;
    for (auto exchange = exchanges_.begin(); exchange != exchanges_.end();) {
        const auto current = exchange++;
        if (current->deadline <= now) {
            endExchange(current, {Transport::TimedOut, ORU_STATUS_OK});
        } else {
            next = std::min(next, current->deadline);
        }
    }
    return next;
}

} // namespace corvane

// SPDX-License-Identifier: Apache-2.0
// Commands to the simulated co-processor, over its link and as bytes of the line. Each gets one response.
#include "coprocessor/ncp.h"
#include "fuzz_input.h"

using namespace corvane;
using namespace corvane::coprocessor;
using namespace corvane::zbhal::serial;

namespace {

constexpr size_t MAX_STEPS = 64;

const mesh::Scenario &home() {
    static const mesh::Scenario scenario = [] {
        mesh::Scenario loaded;
        mesh::ScenarioError error;
        fuzz::require(mesh::loadScenario(CORVANE_HOME_SCENARIO, loaded, error), "the example scenario");
        return loaded;
    }();
    return scenario;
}

class Host final : private AshSink {
public:
    explicit Host(uint8_t version)
        : radio_(
              home(), "", [this] { return now_us_; }, [] {}),
          ncp_({version, {}, "", 1}, {}, radio_) {
        ncp_.start(now_us_);
        link_.connect(now_us_);
        advance(100);
    }

    void command(std::span<const uint8_t> frame) {
        if (link_.state() != AshLink::State::up || frame.size() < ASH_MIN_DATA || frame.size() > ASH_MAX_DATA) {
            return;
        }
        EzspHeader header;
        std::span<const uint8_t> rest;
        const bool asks = decodeHeader(frame, header, rest) && header.kind == EzspHeader::Kind::command &&
                          (header.legacy || header.id != EzspId::reset_node);
        responses_ = 0;
        (void)link_.send(frame, now_us_);
        advance(20);
        fuzz::require(responses_ == (asks ? 1U : 0U), "one response to each command");
    }
    void raw(std::span<const uint8_t> bytes) { ncp_.feed(bytes, now_us_); }
    void reconnect() {
        link_.connect(now_us_);
        advance(100);
    }
    void advance(uint64_t milliseconds) {
        for (const uint64_t end_us = now_us_ + milliseconds * 1000; now_us_ < end_us; now_us_ += 5000) {
            carry();
        }
    }

private:
    void carry() {
        do {
            const fuzz::Bytes bytes = std::exchange(out_, {});
            ncp_.feed(bytes, now_us_);
            for (auto due = ncp_.wire().due(now_us_); !due.empty(); due = ncp_.wire().due(now_us_)) {
                const fuzz::Bytes answer(due.begin(), due.end());
                ncp_.wire().consumed(answer.size());
                link_.feed(answer, now_us_);
            }
            link_.tick(now_us_);
        } while (!out_.empty());
    }
    void write(std::span<const uint8_t> bytes) override { out_.insert(out_.end(), bytes.begin(), bytes.end()); }
    void up(uint8_t /*code*/) override {}
    void failed(AshFailure /*failure*/, uint8_t /*code*/) override {}
    void received(std::span<const uint8_t> payload) override {
        EzspHeader header;
        std::span<const uint8_t> rest;
        fuzz::require(decodeHeader(payload, header, rest), "a frame comes back");
        responses_ += header.kind == EzspHeader::Kind::response ? 1 : 0;
    }

    uint64_t now_us_ = 1'000'000;
    unsigned responses_ = 0;
    fuzz::Bytes out_;
    MeshRadio radio_;
    Ncp ncp_;
    AshLink link_{AshLink::Role::host, *this};
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr uint8_t VERSIONS[] = {13, 14, 18, 19};
    fuzz::Input input(data, size);
    Host host(VERSIONS[input.u8() % 4]);
    for (size_t step = 0; step < MAX_STEPS && !input.empty(); ++step) {
        switch (input.u8() % 8) {
        case 6:
            host.advance(input.u8() * 10U);
            break;
        case 7:
            host.raw(input.sized8());
            host.reconnect();
            break;
        default:
            host.command(input.sized8());
            break;
        }
    }
    return 0;
}

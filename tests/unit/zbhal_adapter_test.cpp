// SPDX-License-Identifier: Apache-2.0
// What the layer does for an adapter that takes its time and loses conclusions, as one at the end of a line may.
#include "virtual/adapter_decorator.h"
#include "virtual/virtual_adapter.h"
#include "zbhal_fixture.h"
#include <future>
#include <set>

namespace zbhal_test {

using namespace corvane::zbhal;
using std::chrono::steady_clock;

// A mesh whose operations can be stopped at a gate, one after the other or together, and whose sends can be kept.
class SlowRadio final : public Decorator<SlowRadio> {
public:
    SlowRadio(std::unique_ptr<Adapter> radio, AdapterHost &layer)
        : Decorator(*radio), host(layer), radio_(std::move(radio)) {}

    uint64_t conclusionLimitUs() const override { return Adapter::conclusionLimitUs(); }
    oru_status_t send(const SendRequest &request) override {
        return keeps ? keep(request.ticket) : Decorator::send(request);
    }
    oru_status_t sendInterpan(const InterpanRequest &request) override {
        return keeps ? keep(request.ticket) : Decorator::sendInterpan(request);
    }
    template <typename Work>
    oru_status_t around(Operation operation, Work work) {
        if (operation == Operation::echo && gate.valid()) {
            ++inside;
            const auto opened = gate.wait_for(std::chrono::seconds(10));
            return opened == std::future_status::ready ? work() : oru_status_t{ORU_STATUS_TIMEOUT};
        }
        return work();
    }

    AdapterHost &host;
    std::shared_future<void> gate; // of echo; set while nobody calls
    std::atomic<int> inside{0};
    bool keeps = false;
    std::vector<Ticket> kept;

private:
    oru_status_t keep(Ticket ticket) {
        kept.push_back(ticket);
        return ORU_STATUS_OK;
    }
    std::unique_ptr<Adapter> radio_;
};

class SlowRadioTest : public HalTest {
protected:
    void SetUp() override {
        HalTest::SetUp();
        scenario_.devices = {device("lamp", 1), device("other", 2)};
        backends_ = {{"virtual:", [this](const std::string &, AdapterHost &host) {
                          VirtualSettings settings;
                          settings.scenario = &scenario_;
                          auto slow = std::make_unique<SlowRadio>(makeVirtualAdapter("", settings, host).adapter, host);
                          radio_ = slow.get();
                          return Made{std::move(slow)};
                      }}};
        startWithNetwork();
    }
    SlowRadio *radio_ = nullptr;
};
INSTANTIATE_TEST_SUITE_P(modes, SlowRadioTest, ::testing::Values(hal::Mode::descriptor, hal::Mode::thread));

TEST_P(SlowRadioTest, anOperationHoldsUpItsCallerOnly) {
    std::promise<void> gate;
    radio_->gate = gate.get_future();
    std::array<std::future<oru_status_t>, 2> callers;
    for (auto &caller : callers) { // operations of several threads are inside at once
        caller = std::async(std::launch::async, [] { return oruZbHal_echo(1); });
    }
    const auto end = steady_clock::now() + std::chrono::seconds(5);
    while (radio_->inside < 2 && steady_clock::now() < end) {
        std::this_thread::yield();
    }
    EXPECT_EQ(radio_->inside, 2);
    EXPECT_TRUE(hal::injectStackStatus(ORU_ZB_HAL_STACK_BUSY_UPGRADING));
    play("permit 1 | stack upgrading\nreset | stack resetting, stack up"); // delivered, called and timed meanwhile
    gate.set_value();
    for (auto &caller : callers) {
        EXPECT_EQ(caller.get(), ORU_STATUS_OK) << "the others have waited for it";
    }
}

TEST_P(SlowRadioTest, aConclusionComesOnceAndALostOneIsMadeUpFor) {
    const uint16_t lamp = 0x1111, other = 0x2222; // nobody looks
    radio_->keeps = true;
    const auto pass = [](uint64_t milliseconds) {
        advance(milliseconds);
        return std::exchange(record.trace, "");
    };
    EXPECT_EQ(sendZcl(lamp, 1), 0);
    EXPECT_EQ(pass(10000), "");
    EXPECT_EQ(sendZcl(lamp, 2), 0);
    EXPECT_EQ(sendInterpan(0x800), 0);
    EXPECT_EQ(pass(19000), "");
    EXPECT_EQ(pass(2000), "sent 1: 167, ") << "no acknowledgement";
    ASSERT_EQ(radio_->kept.size(), 3U);
    radio_->host.conclude(radio_->kept[0], 0); // too late
    radio_->host.conclude(radio_->kept[1], 0);
    radio_->host.conclude(radio_->kept[1], 211);
    EXPECT_EQ(pass(0), "sent 2: 0, ");
    EXPECT_EQ(pass(10000), "interpan -20, ");

    std::set<uint8_t> tags;
    std::string expected;
    for (uint32_t i = 0; i < 400; ++i) { // one of them stays open, and its tag taken
        EXPECT_EQ(sendZcl(i == 0 ? other : lamp, i), 0);
        const bool open = i == 0 || i > 390;
        EXPECT_NE(radio_->kept.back() % 256, 0U);
        EXPECT_TRUE(!open || tags.insert(static_cast<uint8_t>(radio_->kept.back())).second);
        EXPECT_TRUE(open || !tags.contains(static_cast<uint8_t>(radio_->kept.back())));
        if (!open) {
            radio_->host.conclude(radio_->kept.back(), 0);
        } else {
            expected += "sent " + std::to_string(i) + ": 211, ";
        }
        advance(0);
    }
    EXPECT_EQ(sendInterpan(0x800), 0);
    record.trace.clear();
    radio_->host.concludeAll(211, ORU_STATUS_CANCELED);
    EXPECT_EQ(pass(60000), expected + "interpan -20, ") << "in the order in which they were accepted";
}

} // namespace zbhal_test

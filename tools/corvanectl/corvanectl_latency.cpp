// SPDX-License-Identifier: Apache-2.0
//
// Round trips of read-attribute commands, as a histogram.
#include "corvanectl_names.h"
#include "corvanectl_send.h"
#include "corvanectl_svgfile.h"
#include "corvanectl_zcl.h"
#include "drawing.h"
#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <memory>
#include <numeric>

namespace corvane::ctl {

namespace {

constexpr uint16_t ATTRIBUTE_ZCL_VERSION = 0x0000; // of the basic cluster, which every device has
constexpr std::size_t BINS = 12;
constexpr int MAX_BAR = 40;

struct LatencyOptions {
    std::vector<std::string> devices;
    std::string count = "10";
    std::string svg;
};

struct Measurement {
    oruZb_device_t device{};
    std::vector<double> round_trips_ms;
    unsigned failed = 0;
};

std::vector<Measurement> chosenDevices(Session &session, const LatencyOptions &options) {
    std::vector<Measurement> chosen;
    for (const std::string &text : options.devices) {
        chosen.push_back({session.findDevice(parseDevice(text)), {}, 0});
    }
    if (options.devices.empty()) {
        for (const auto &device : session.allDevices()) {
            chosen.push_back({device, {}, 0});
        }
        std::erase_if(chosen, [](const Measurement &one) { return one.device.node_id == NO_ADDRESS; });
    }
    if (chosen.empty()) {
        throw Failure(Exit::Refused, "there is no device to send to");
    }
    return chosen;
}

void measureOnce(Session &session, Measurement &measurement) {
    const auto endpoints = endpointsOf(measurement.device.device_info);
    const uint8_t endpoint = endpoints.empty() ? uint8_t{1} : endpoints[0].endpoint;
    const auto frame = encodeReadAttributes(nextSequence(), {&ATTRIBUTE_ZCL_VERSION, 1});
    try {
        const Exchange exchange =
            deliver(session, {makeCommand(measurement.device.node_id, endpoint, CLUSTER_BASIC, frame), true}, false);
        measurement.round_trips_ms.push_back(
            std::chrono::duration<double, std::milli>(exchange.answered_after).count());
    } catch (const Failure &failure) {
        if (failure.exit != Exit::TimedOut && !(failure.exit == Exit::Refused && failure.status.value_or(0) > 0)) {
            throw; // not the fault of this device
        }
        ++measurement.failed;
    }
}

Json statistics(const Measurement &measurement) {
    Json json{{"node_id", hex16(measurement.device.node_id)}, {"name", deviceTypeOf(measurement.device.device_info)}};
    std::vector<double> sorted = measurement.round_trips_ms;
    std::ranges::sort(sorted);
    json["answers"] = sorted.size();
    json["failed"] = measurement.failed;
    const auto tenth = [](double ms) { return std::round(ms * 10) / 10; };
    if (!sorted.empty()) {
        json["min_ms"] = tenth(sorted.front());
        json["median_ms"] = tenth(sorted[sorted.size() / 2]);
        json["mean_ms"] =
            tenth(std::accumulate(sorted.begin(), sorted.end(), 0.0) / static_cast<double>(sorted.size()));
        json["max_ms"] = tenth(sorted.back());
    }
    Json &all = json["round_trips_ms"] = Json::array();
    std::ranges::transform(measurement.round_trips_ms, std::back_inserter(all), tenth);
    return json;
}

std::string histogram(const std::vector<double> &round_trips_ms) {
    if (round_trips_ms.empty()) {
        return "    no answer\n";
    }
    const auto [low, high] = std::ranges::minmax(round_trips_ms);
    const double width = std::max(1.0, std::ceil((high - low + 0.001) / BINS));
    const double first = std::floor(low / width) * width;
    std::vector<int> bins(static_cast<std::size_t>((high - first) / width) + 1);
    for (const double ms : round_trips_ms) {
        ++bins[static_cast<std::size_t>((ms - first) / width)];
    }
    const int most = std::ranges::max(bins);
    std::string text;
    for (std::size_t i = 0; i < bins.size(); ++i) {
        std::string bar;
        for (int filled = 0; filled < (bins[i] * MAX_BAR + most - 1) / most; ++filled) {
            bar += "█";
        }
        const double from = first + width * static_cast<double>(i);
        text += fmt::format("    {:>6.0f} - {:<6.0f} ms {:>4}  {}\n", from, from + width, bins[i],
                            paint(Colour::Cyan, bar));
    }
    return text;
}

std::string report(const std::vector<Measurement> &measurements) {
    std::string text;
    for (const Measurement &measurement : measurements) {
        const Json numbers = statistics(measurement);
        text += fmt::format("{}  {} answers, {} failed", paint(Colour::Bold, deviceTitle(measurement.device)),
                            measurement.round_trips_ms.size(), measurement.failed);
        if (numbers.contains("min_ms")) {
            text += fmt::format("  min {} ms, median {} ms, mean {} ms, max {} ms", numbers["min_ms"].dump(),
                                numbers["median_ms"].dump(), numbers["mean_ms"].dump(), numbers["max_ms"].dump());
        }
        text += "\n" + histogram(measurement.round_trips_ms);
    }
    return text;
}

void latency(Session &session, const LatencyOptions &options) {
    const int64_t count = parseNumber(options.count, "--count", 1, 100000);
    auto measurements = chosenDevices(session, options);
    for (int64_t round = 0; round < count; ++round) {
        for (Measurement &measurement : measurements) {
            measureOnce(session, measurement);
        }
    }
    Json rows = Json::array();
    std::vector<map::LatencySeries> series;
    for (const Measurement &measurement : measurements) {
        rows.push_back(statistics(measurement));
        series.push_back({deviceTitle(measurement.device), measurement.round_trips_ms});
    }
    if (!options.svg.empty()) {
        writeSvgFile(options.svg, map::latencySvg(series));
    }
    session.answer({{"devices", rows}}, report(measurements));
    if (std::ranges::all_of(measurements, [](const Measurement &m) { return m.round_trips_ms.empty(); })) {
        throw Failure(Exit::TimedOut, "no device answered");
    }
}

} // namespace

void addLatencyCommand(CLI::App &app, Session &session) {
    auto options = std::make_shared<LatencyOptions>();
    auto *command = app.add_subcommand("latency", "Measure round trips of read-attribute commands");
    command->add_option("DEVICE", options->devices, "Devices; none: all")->type_name("");
    command->add_option("--count", options->count, "Commands per device")->type_name("N")->capture_default_str();
    command->add_option("--svg", options->svg, "Also draw them into this file")->type_name("FILE");
    command->callback([&session, options] { session.run = [&session, options] { latency(session, *options); }; });
}

} // namespace corvane::ctl

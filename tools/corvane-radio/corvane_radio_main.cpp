// SPDX-License-Identifier: Apache-2.0
//
// corvane-radio: a simulated Zigbee co-processor on a pseudo terminal or a TCP port, with a virtual mesh behind it.
#include "radio_server.h"
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>

using namespace corvane;
using namespace corvane::coprocessor;

namespace {

RadioServer *g_server = nullptr; // for the signal handler

void onSignal(int /*signal*/) {
    g_server->stop();
}

struct Arguments {
    std::string scenario;
    std::string pty;
    std::string tcp;
    bool listen_any = false;
    unsigned protocol = 13;
    std::string state;
    std::string memory;
    std::string eui64;
    std::string control;
    std::vector<std::string> faults;
    std::optional<uint64_t> seed;
};

void describe(CLI::App &app, Arguments &arguments) {
    app.set_version_flag("--version", "corvane-radio " CORVANE_VERSION);
    app.add_option("SCENARIO", arguments.scenario, "Scenario of the mesh behind the radio")->required();
    auto *pty = app.add_option("--pty", arguments.pty, "Name to give to the pseudo terminal");
    app.add_option("--tcp", arguments.tcp, "Address and port to listen on, as 127.0.0.1:6638; port 0: any")
        ->excludes(pty);
    app.add_flag("--listen-any", arguments.listen_any, "Let --tcp listen beyond this machine, open to everybody");
    app.add_option("--protocol", arguments.protocol, "Version of the protocol; 12 and 20 are for hosts to refuse")
        ->check(CLI::Range(12, 20))
        ->capture_default_str();
    app.add_option("--state", arguments.state, "Folder in which the devices keep their network");
    app.add_option("--memory", arguments.memory, "File of the radio's own memory (STATE/corvane-radio.memory)");
    app.add_option("--eui64", arguments.eui64, "EUI-64 instead of the scenario's: another stick");
    app.add_option("--control", arguments.control, "Socket for corvanectl sim");
    app.add_option("--fault", arguments.faults, "KEY=VALUE: what the line does wrong")->type_name("")->take_all();
    app.add_option("--seed", arguments.seed, "Source of chance instead of the scenario's");
}

// Empty text on success, else what is wrong.
std::string toOptions(const Arguments &arguments, RadioOptions &options) {
    mesh::ScenarioError fault;
    if (!mesh::loadScenario(arguments.scenario, options.scenario, fault)) {
        return fault.message;
    }
    if (!arguments.eui64.empty()) {
        options.ncp.eui64 = base::parseEui64(arguments.eui64);
        if (!options.ncp.eui64 || !base::isAddress(*options.ncp.eui64)) {
            return "\"" + arguments.eui64 + "\" is not an EUI-64";
        }
    }
    for (const std::string &setting : arguments.faults) {
        if (std::string problem = setWireFault(options.faults, setting); !problem.empty()) {
            return problem;
        }
    }
    options.scenario.seed = arguments.seed.value_or(options.scenario.seed);
    options.ncp.version = static_cast<uint8_t>(arguments.protocol);
    options.ncp.seed = options.scenario.seed;
    options.state_directory = arguments.state;
    options.control_path = arguments.control;
    options.ncp.memory_path = arguments.memory;
    if (arguments.memory.empty() && !arguments.state.empty()) {
        options.ncp.memory_path = arguments.state + "/corvane-radio.memory";
    }
    std::string problem;
    if (!options.ncp.memory_path.empty()) {
        options.memory = loadNcpMemory(options.ncp.memory_path, problem).value_or(NcpMemory{});
    }
    return problem;
}

int refuse(const std::string &problem) {
    (void)std::fprintf(stderr, "corvane-radio: %s\n", problem.c_str());
    return EXIT_FAILURE;
}

int serve(const Arguments &arguments) {
    RadioOptions options;
    std::string problem = toOptions(arguments, options);
    if (!problem.empty()) {
        return refuse(problem);
    }
    const std::unique_ptr<HostPort> port =
        arguments.tcp.empty() ? makePtyPort(arguments.pty) : makeTcpPort(arguments.tcp, arguments.listen_any, problem);
    if (port == nullptr) {
        return refuse(problem);
    }
    RadioServer server(options, *port);
    g_server = &server;
    (void)std::signal(SIGINT, onSignal);
    (void)std::signal(SIGTERM, onSignal);
    (void)std::signal(SIGPIPE, SIG_IGN);
    problem = server.start();
    if (!problem.empty()) {
        return refuse(problem);
    }
    (void)std::printf("ready: %s\n", port->name().c_str());
    (void)std::fflush(stdout);
    server.run();
    return EXIT_SUCCESS;
}

int runProgram(int argc, char **argv) {
    CLI::App app("A simulated Zigbee radio: the co-processor of a USB stick, with a virtual mesh behind it");
    Arguments arguments;
    describe(app, arguments);
    CLI11_PARSE(app, argc, argv);
    if (arguments.pty.empty() == arguments.tcp.empty()) {
        return refuse("say where the host is to find the radio: --pty LINK or --tcp ADDRESS:PORT");
    }
    return serve(arguments);
}

} // namespace

int main(int argc, char **argv) {
    try {
        return runProgram(argc, argv);
    } catch (const std::exception &error) { // out of memory, and the like
        (void)std::fprintf(stderr, "corvane-radio: %s\n", error.what());
        return EXIT_FAILURE;
    }
}

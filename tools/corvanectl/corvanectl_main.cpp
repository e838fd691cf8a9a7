// SPDX-License-Identifier: Apache-2.0
//
// corvanectl: everything that the corvane service offers, for people and for scripts. The command line chooses one
// command; the commands live in the files named after their area.
#include "corvanectl_session.h"
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <string_view>
#include <unistd.h>

namespace corvane::ctl {

namespace {

constexpr const char *FOOTER =
    "\nA DEVICE is a node id (0x1a2b), an EUI-64 (00:12:4b:00:01:02:03:04) or a list position ('#0').\n"
    "Exit status: 0 done, 1 refused or failed, 2 wrong usage, 3 no service, 4 connection refused or lost, 5 timed "
    "out.\n"
    "The service's socket: --socket, else $CORVANE_SOCKET, else /run/corvane/corvane.sock.\n";

struct MainOptions {
    bool no_colour = false;
};

void addOptions(CLI::App &app, Settings &settings, MainOptions &main_options) {
    app.add_option("--socket", settings.socket, "Socket of the service")->type_name("PATH");
    app.add_option("--sim-socket", settings.sim_socket,
                   "Control socket of the virtual mesh (default: corvane-sim.sock beside the service's socket)")
        ->type_name("PATH");
    app.add_flag("--json", settings.json, "One JSON object per answer, on one line");
    app.add_option("--timeout", settings.timeout_s, "Seconds to wait for an answer")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 86400.0))
        ->capture_default_str();
    app.add_flag("--no-color,--no-colour", main_options.no_colour, "No colours, even on a terminal");
}

void addCommands(CLI::App &app, Session &session) {
    addServiceCommands(app, session);
    addDeviceCommands(app, session);
    addSendCommands(app, session);
    addMonitorCommands(app, session);
    addRadioCommands(app, session);
    addTableCommands(app, session);
    addLatencyCommand(app, session);
    addSimCommands(app, session);
}

// Options of the whole program may stand behind the command as well.
void letOptionsFallThrough(CLI::App &app) {
    for (CLI::App *command : app.get_subcommands([](CLI::App *) { return true; })) {
        command->fallthrough();
        letOptionsFallThrough(*command);
    }
}

bool wantsColour(const Settings &settings, const MainOptions &options) {
    const char *no_color = std::getenv("NO_COLOR");
    const char *terminal = std::getenv("TERM");
    return !settings.json && !options.no_colour && (no_color == nullptr || *no_color == '\0') &&
           (terminal == nullptr || std::string_view(terminal) != "dumb") && isatty(STDOUT_FILENO) == 1;
}

int report(const Failure &failure, bool json) {
    fmt::print(stderr, "corvanectl: {}\n", failure.what());
    if (json) {
        Json object;
        object["error"] = failure.what();
        object["status"] = failure.status ? Json(*failure.status) : Json(nullptr);
        object["status_name"] = failure.status_name;
        object["exit"] = static_cast<int>(failure.exit);
        object.update(failure.details);
        printJson(object);
    }
    return static_cast<int>(failure.exit);
}

int usage(std::string_view message, bool json) {
    return report(Failure(Exit::Usage, std::string(message)), json);
}

// The parser only says that a command is missing; this says which ones there are.
std::string missingCommand(const CLI::App &app, const std::vector<std::string> &words) {
    const CLI::App *command = &app;
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().front();
    }
    std::string known;
    for (const CLI::App *choice : command->get_subcommands([](const CLI::App *) { return true; })) {
        known += (known.empty() ? "" : ", ") + choice->get_name();
    }
    const bool top = command == &app;
    return fmt::format("{} needs one of: {}{}", top ? "corvanectl" : "\"" + command->get_name() + "\"", known,
                       words.empty() ? "" : fmt::format("; \"{}\" is none of them", words.front()));
}

int perform(Session &session) {
    try {
        session.run();
        return static_cast<int>(Exit::Done);
    } catch (const Failure &failure) {
        return report(failure, session.settings.json);
    } catch (const UsageError &error) {
        return usage(error.what(), session.settings.json);
    }
}

} // namespace

int runProgram(int argc, char **argv) {
    std::vector<std::string> arguments; // last one first, as the parser wants them
    for (int i = argc - 1; i > 0; --i) {
        arguments.push_back(protectNegativeNumber(argv[i]));
    }
    const bool json = std::ranges::find(arguments, "--json") != arguments.end();

    Session session;
    MainOptions main_options;
    CLI::App app("Talk to the corvane Zigbee service.", "corvanectl");
    app.footer(FOOTER);
    app.require_subcommand(1);
    addOptions(app, session.settings, main_options);
    addCommands(app, session);
    letOptionsFallThrough(app);
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::Success &help) {
        return app.exit(help);
    } catch (const CLI::RequiredError &error) {
        const std::string_view text = error.what();
        return usage(text.starts_with("A subcommand") ? missingCommand(app, app.remaining(true)) : std::string(text),
                     json);
    } catch (const CLI::ParseError &error) {
        return usage(fmt::format("{} (--help shows what is possible)", error.what()), json);
    } catch (const UsageError &error) {
        return usage(error.what(), json);
    }
    enableColour(wantsColour(session.settings, main_options));
    return perform(session);
}

} // namespace corvane::ctl

int main(int argc, char **argv) {
    try {
        return corvane::ctl::runProgram(argc, argv);
    } catch (const std::exception &error) { // out of memory, nowhere to write, and the like
        (void)std::fprintf(stderr, "corvanectl: %s\n", error.what());
        return static_cast<int>(corvane::ctl::Exit::Refused);
    }
}

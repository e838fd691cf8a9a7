// SPDX-License-Identifier: Apache-2.0
//
// Process entry: platform start-up, from the configuration file named first on the command line when there is one,
// then the service.
#include "oru_init.h"
#include "oru_log.h"
#include "zb_main.h"
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <vector>

// Closes the file. A thread-priority table that the parser attached lives until the platform has started.
static oru_status_t startWithConfig(FILE *file) {
    oruUserConfig_config_t config{};
    config.version = 1;
    config.thread_prio = nullptr;
    oru_status_t status = oruUserConfig_parser(file, &config);
    static_cast<void>(fclose(file));
    if (status == ORU_STATUS_OK) {
        status = oru_initWithConfig(&config);
    }
    free(config.thread_prio);
    return status;
}

// A look ahead, on a copy because getopt moves arguments around: whoever asks for help wants nothing to be created.
static bool asksForHelp(int argc, char **argv) {
    std::vector<char *> copy(argv, argv + argc + 1);
    int option = 0;
    opterr = 0;
    while (option != -1 && option != 'h') {
        option = oruZb_nextOption(argc, copy.data());
    }
    opterr = 1;
    optind = 0; // makes getopt start anew
    return option == 'h';
}

static void warnAboutFile(const char *name) {
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_WARN, "main",
               "the configuration file %s cannot be read: %s; going on without one", name, strerror(errno));
}

int main(int argc, char **argv) {
    if (asksForHelp(argc, argv)) {
        return zigbee_main(argc, argv);
    }
    FILE *const file = argc > 1 ? fopen(argv[1], "r") : nullptr;
    if (file != nullptr) {
        const oru_status_t status = startWithConfig(file);
        if (status != ORU_STATUS_OK) {
            return status;
        }
    } else {
        if (argc > 1 && argv[1][0] != '-') {
            warnAboutFile(argv[1]);
        }
        oru_init();
    }
    return zigbee_main(argc, argv);
}

// SPDX-License-Identifier: Apache-2.0
//
// Process entry: platform start-up, from the configuration file named first on the command line when there is one,
// then the service.
#include "oru_init.h"
#include "zb_main.h"
#include <cstdio>
#include <cstdlib>

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

int main(int argc, char **argv) {
    FILE *const file = argc > 1 ? fopen(argv[1], "r") : nullptr;
    if (file != nullptr) {
        const oru_status_t status = startWithConfig(file);
        if (status != ORU_STATUS_OK) {
            return status;
        }
    } else {
        oru_init();
    }
    return zigbee_main(argc, argv);
}

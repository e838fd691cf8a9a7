// SPDX-License-Identifier: Apache-2.0
#include "zb_main.h"
#include "zb_alloc.h"
#include "zb_database_list.h"
#include "zb_discovery_list.h"
#include "zb_gate.h"
#include "zb_log.h"
#include "zb_queue.h"
#include "zb_region_info.h"
#include "zb_server.h"
#include "zb_state.h"
#include "zb_svc_adapter.h"
#include "zb_svc_command.h"
#include "zb_svc_dispatch.h"
#include "zb_svc_pwr.h"
#include "zb_timer.h"
#include "zb_txn.h"
#include "zb_zts.h"
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr uint32_t MESSAGE_ITEMS = 100;     // 40 queued, the rest being filled, handled or in overdraft
constexpr uint32_t TRANSACTION_ITEMS = 100; // sends not confirmed yet
constexpr size_t PAYLOAD_POOL_SIZE = 8192;  // bytes
constexpr uint32_t PAYLOAD_MIN_BLOCK = 1;   // bytes
constexpr uint32_t PAYLOAD_ALIGNMENT = 1;   // bytes; the pool raises it to what records need
constexpr uint32_t PAYLOAD_POOL_FLAGS = 7;  // thread-safe, variable size, first fit
constexpr uint32_t IDLE_WAIT_MS = 500;      // non-blocking mode: longest time until terminated is seen
constexpr uint32_t GATE_LIMIT_MS = 2000;    // shut-down: longest wait for threads inside the intake gate
constexpr uint32_t RUN_EVENTS_LIMIT = 0;    // the HAL's own limit

static char default_port[] = "/dev/ttyUSB0";
char *devicePort = default_port;
oruZb_privateData_t sZBSvcData;

static_assert(ORU_ZB_MSG_QUEUE_PLACES < MESSAGE_ITEMS);

void HandleTermSignal(int signal_number) {
    static_cast<void>(signal_number);
    terminated = 1;
}

// --------------------------------------------------------------------------------------------------------- start-up

static void print(const char *line) {
    static_cast<void>(puts(line));
    static_cast<void>(fflush(stdout));
}

void usage() {
    print("Usage: corvane -B|-h|-p <port>");
    print("\t -B : runs as daemon");
    print("\t -p <port>: use adapter attached at the physical <port> (/dev/xxx)");
    print("\t -h : print this");
}

void daemonize() {
    static_cast<void>(fflush(stdout)); // or the child would print the buffer a second time
    const pid_t pid = fork();
    if (pid < 0) {
        print("oruZb_svc: error creating daemon");
        exit(EXIT_FAILURE);
    }
    if (pid > 0) {
        exit(EXIT_SUCCESS);
    }
    umask(0);
    print("oruZb_svc: daemon created");
}

int oruZb_nextOption(int argc, char **argv) {
    int option = getopt(argc, argv, "Bp:h");
    for (int passed = 0; option == -1 && optind > passed && optind < argc && strcmp(argv[optind - 1], "--") != 0;) {
        passed = optind++; // getopt goes back when it has moved all that are none to the end
        option = getopt(argc, argv, "Bp:h");
    }
    return option;
}

// True when -B was given.
static bool parseOptions(int argc, char **argv) {
    bool daemon = false;
    for (int option = oruZb_nextOption(argc, argv); option != -1; option = oruZb_nextOption(argc, argv)) {
        switch (option) {
        case 'B':
            daemon = true;
            break;
        case 'p':
            devicePort = optarg;
            break;
        case 'h':
            usage();
            exit(EXIT_FAILURE);
        default:
            printf("oruZb_svc: unknown option: %d\n", option);
            static_cast<void>(fflush(stdout));
        }
    }
    return daemon;
}

int zigbee_main(int argc, char **argv) {
    const bool daemon = parseOptions(argc, argv);
    static_cast<void>(signal(SIGINT, HandleTermSignal));
    static_cast<void>(signal(SIGTERM, HandleTermSignal));
    if (daemon) {
        daemonize();
    }
    print("Start service with msg list ...");
    if (oruZb_initMemory() != ORU_STATUS_OK) {
        exit(EXIT_FAILURE);
    }
    const oru_status_t timers = oruZb_timersInit();
    if (timers != ORU_STATUS_OK && timers != ORU_STATUS_ALREADY_INITIALIZED) {
        oruZb_timersDeInit();
        exit(EXIT_FAILURE);
    }
    oruZb_databaseInit();
    oruZb_ztsListInit();
    oruZb_start(devicePort);
    oruZb_stop();
    return 0;
}

// Handles are published only when whole: IPC threads may already ask for blocks.
static oru_status_t createPools() {
    oruMp_handle_t pool = nullptr;
    if (oruMp_init(&pool, sizeof(oruZb_msgListItem_t), MESSAGE_ITEMS) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: mp_zb_msgl_handle oruMP_init failed", ZB_SVC);
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    mp_zb_msgl_handle.store(pool);
    pool = nullptr;
    if (oruMp_init(&pool, sizeof(oruZb_txnListItem_t), TRANSACTION_ITEMS) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: mp_zb_txnl_handle oruMP_init failed", ZB_SVC);
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    mp_zb_txnl_handle.store(pool);
    pool = nullptr;
    if (oruMp_initWithAllocatorAlignmentFlags(&pool, nullptr, PAYLOAD_POOL_SIZE, PAYLOAD_MIN_BLOCK, PAYLOAD_ALIGNMENT,
                                              PAYLOAD_POOL_FLAGS) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: mp_zb_var_handle oruMP_initWithAllocatorAlignmentFlags failed", ZB_SVC);
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    mp_zb_var_handle.store(pool);
    return ORU_STATUS_OK;
}

oru_status_t oruZb_init(char *device) {
    if (device == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    oru_status_t status = createPools();
    if (status != ORU_STATUS_OK) {
        return status;
    }
    sZBSvcData = oruZb_privateData_t{};
    sZBSvcData.adapterName = device;
    status = oruZb_msgQueueInit();
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: oruZb_msgQueueInit failed", ZB_SVC);
        return status;
    }
    status = oruZb_txnQueueInit();
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: oruZb_txnQueueInit failed", ZB_SVC);
        return status;
    }
    status = oruZb_halInit(device);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: init failed", ZB_SVC);
        return status;
    }
    oruZb_pwrSvcInit();
    oruZb_handleQelAccess();
    oruZb_initDailyLogTimer();
    oruZb_throttleInit();
    return ORU_STATUS_OK;
}

// --------------------------------------------------------------------------------------------------------- the loop

oru_status_t oruZb_halRunEvents() {
    return oruZbHal_runEvents(RUN_EVENTS_LIMIT);
}

static void handleOrWait() {
    if (oruZb_hasMsg(oruZb_msgListHead) == ORU_STATUS_OK) {
        oruZb_handleEvent();
    } else {
        oruSem_waitTimeout(zb_wait_sem, IDLE_WAIT_MS);
    }
}

// In blocking mode every message has written one wake-up byte, so that a turn with one message and one return of the
// HAL's event processing keep pace.
static void runLoop(bool blocking) {
    while (terminated == 0) {
        oruZbHal_processAction();
        if (blocking) {
            oruZb_handleEvent();
            oruZb_halRunEvents();
        } else {
            handleOrWait();
        }
    }
}

// Messages posted before the HAL handed out its descriptor wrote no byte.
static void wakeForEarlyMessages() {
    for (uint32_t count = oruZb_msgCount(oruZb_msgListHead); count > 0; --count) {
        oruZb_signalHalEvent();
    }
}

void oruZb_start(char *device) {
    ZB_LOG_INFO("^N|^^^ %s: %s(): status %d oru zigbee svc start", ZB_SVC, __func__, 0);
    oruZb_serverInit();
    if (oruZb_init(device) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: oruZb_init failed", ZB_SVC);
        return;
    }
    const bool blocking = oruZb_halUseSingleEventLoop();
    if (blocking) {
        ZB_LOG_INFO("%s: Zigbee service started in blocking mode!", ZB_SVC);
        wakeForEarlyMessages();
    } else {
        ZB_LOG_INFO("%s: Zigbee service started in non-blocking mode!", ZB_SVC);
    }
    runLoop(blocking);
}

// -------------------------------------------------------------------------------------------------------- shut-down

static oru_status_t destroyPool(std::atomic<oruMp_handle_t> &handle) {
    const oruMp_handle_t pool = handle.exchange(nullptr);
    return pool != nullptr ? oruMp_destroy(pool) : ORU_STATUS_OK;
}

void oruZb_stop() {
    if (!oruZb_gateClose(GATE_LIMIT_MS)) {
        ZB_LOG_ERROR("%s: %s(): threads still inside after %u ms", ZB_SVC, __func__, GATE_LIMIT_MS);
    }
    ZB_LOG_INFO("^N|^^^ %s: %s(): status %d oru zigbee svc stop", ZB_SVC, __func__, 0);
    oru_status_t status = destroyPool(mp_zb_msgl_handle);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): failed to destroy memory pool handle formessage list items: status: %d", ZB_SVC,
                     __func__, status);
    }
    status = destroyPool(mp_zb_txnl_handle);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): failed to destroy memory pool handle fortransaction list items: status: %d", ZB_SVC,
                     __func__, status);
    }
    status = destroyPool(mp_zb_var_handle);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): failed to destroy variable sized memory pool handle: status: %d", ZB_SVC, __func__,
                     status);
    }
    oruZb_msgQueueDelete();
    oruZb_txnQueueDelete();
    oruZb_unInitDailyLogTimer();
    oruZb_timersDeInit();
    oruZb_databaseDeInit();
    oruZb_ztsListRemoveAllDevices();
    oruZb_cleanupFailedDiscoveryList();
    oruZb_serverDeInit();
    if (oruMutex_delete(device_list_mutex) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s() oruMutex_delete failed", ZB_SVC, __func__);
    }
}

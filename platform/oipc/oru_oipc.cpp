// SPDX-License-Identifier: Apache-2.0
//
// The entry points: they check arguments, turn a handle into the running server and fill in the defaults. One server
// per process. A handle is a number that is never used twice, so a stale one finds nothing; a call that has found the
// server keeps it alive until it returns, also while another thread stops it.
#include "oru_oipc.h"
#include "oipc_log.h"
#include "oipc_server.h"
#include "oru_config.h"
#include "oru_kvs_state.h"
#include <new>

namespace {

using oipc::Server;

constexpr uint32_t DEFAULT_MAX_CLIENTS = 10;
constexpr uint32_t MOST_CLIENTS = 64; // one thread and about 270 kB each

struct Registry {
    std::mutex mutex; // guards the rest; held for look-ups only
    std::shared_ptr<Server> server;
    oruOipc_Handler_t handle = 0; // of `server`, or of the last one
    bool starting = false;
};

// Never destroyed: threads may still look a handle up while the process exits.
Registry &registry() {
    static auto *const instance = new Registry;
    return *instance;
}

std::shared_ptr<Server> find(oruOipc_Handler_t handle) {
    auto &all = registry();
    const std::lock_guard lock(all.mutex);
    return handle > 0 && handle == all.handle ? all.server : nullptr;
}

void tellOfStore() {
    std::shared_ptr<Server> server;
    {
        auto &all = registry();
        const std::lock_guard lock(all.mutex);
        server = all.server;
    }
    if (server) {
        server->publishStore();
    }
}

oru_status_t check(const oruOipc_serverConfig_t &config) {
    if (config.service_handler == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (config.thread_option != ORU_OIPC_THREAD_NONBLOCKING) {
        return ORU_STATUS_NOT_SUPPORTED;
    }
    const bool in_range = config.service_uuid <= UINT16_MAX && config.max_payload_size <= oipc::MAX_PAYLOAD &&
                          config.max_client_count <= MOST_CLIENTS;
    return in_range ? ORU_STATUS_OK : ORU_STATUS_PARAM_OUT_OF_RANGE;
}

oipc::ServerSettings makeSettings(const oruOipc_serverConfig_t &config) {
    const oruConfig_t &platform = oruConfig_get();
    oipc::ServerSettings settings;
    settings.socket = {.path = platform.runtime_directory + "/corvane.sock",
                       .mode = platform.socket_mode,
                       .users = platform.ipc_users,
                       .groups = platform.ipc_groups};
    settings.handler = config.service_handler;
    settings.service_uuid = config.service_uuid;
    settings.max_payload = config.max_payload_size != 0 ? config.max_payload_size : uint32_t{oipc::MAX_PAYLOAD};
    settings.max_clients = config.max_client_count != 0 ? config.max_client_count : DEFAULT_MAX_CLIENTS;
    return settings;
}

// An empty payload may come with a null pointer.
oru_status_t checkPayload(const Server &server, const void *payload, oruOipc_size_t length) {
    if (payload == nullptr && length != 0) {
        return ORU_STATUS_NULL_POINTER;
    }
    return length <= server.maxPayload() ? ORU_STATUS_OK : ORU_STATUS_DATA_LEN_INVALID;
}

oipc::Bytes bytesOf(const void *payload, oruOipc_size_t length) {
    return {static_cast<const uint8_t *>(payload), length};
}

bool beginStart() {
    auto &all = registry();
    const std::lock_guard lock(all.mutex);
    if (all.server || all.starting) {
        return false;
    }
    all.starting = true;
    return true;
}

oru_status_t startServer(const oruOipc_serverConfig_t &config, std::shared_ptr<Server> &server) {
    try {
        server = std::make_shared<Server>(makeSettings(config));
        return server->start();
    } catch (const std::bad_alloc &) {
        OIPC_LOG(ORU_LOG_ERROR, "no memory to serve clients");
        return ORU_STATUS_OUT_OF_MEMORY;
    }
}

} // namespace

oru_status_t oruOipc_start(oruOipc_Handler_t *handle, const oruOipc_serverConfig_t *config) {
    if (handle == nullptr || config == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (const auto status = check(*config); status != ORU_STATUS_OK) {
        return status;
    }
    if (!beginStart()) {
        return ORU_STATUS_ALREADY_INITIALIZED;
    }
    std::shared_ptr<Server> server;
    const auto status = startServer(*config, server);
    {
        auto &all = registry();
        const std::lock_guard lock(all.mutex);
        all.starting = false;
        if (status == ORU_STATUS_OK) {
            all.server = server;
            *handle = ++all.handle;
        }
    }
    if (status == ORU_STATUS_OK) {
        corvane::kvs::onStateChange(tellOfStore);
        tellOfStore(); // to those who subscribed before this server could be found
    }
    return status;
}

oru_status_t oruOipc_stop(oruOipc_Handler_t *handle) {
    if (handle == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const auto server = find(*handle);
    if (!server) {
        return ORU_STATUS_UNINITIALIZED;
    }
    {
        auto &all = registry();
        const std::lock_guard lock(all.mutex);
        if (all.server != server) {
            return ORU_STATUS_UNINITIALIZED; // another thread was faster
        }
        all.server.reset();
    }
    server->stop();
    *handle = 0;
    return ORU_STATUS_OK;
}

oru_status_t oruOipc_callback(oruOipc_Handler_t handle, oruOipc_nodeId_t client,
                              const oruOipc_callbackParams_t *callback) {
    if (callback == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const auto server = find(handle);
    if (!server) {
        return ORU_STATUS_UNINITIALIZED;
    }
    if (callback->callback_type != ORU_OIPC_CALLBACK_ID) {
        return ORU_STATUS_BAD_PARAM;
    }
    const auto status = checkPayload(*server, callback->parameters, callback->parameter_length);
    return status != ORU_STATUS_OK ? status
                                   : server->callback(client, callback->callback_id,
                                                      bytesOf(callback->parameters, callback->parameter_length));
}

oru_status_t oruOipc_publishEvent(oruOipc_Handler_t handle, const oruOipc_eventParams_t *event) {
    if (event == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const auto server = find(handle);
    if (!server) {
        return ORU_STATUS_UNINITIALIZED;
    }
    const auto status = checkPayload(*server, event->payload, event->length);
    return status != ORU_STATUS_OK ? status : server->publish(event->event_id, bytesOf(event->payload, event->length));
}

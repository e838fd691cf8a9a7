// SPDX-License-Identifier: Apache-2.0
#include "kvs_store.h"
#include "oru_kvs_testing.h"

void oruKvsTesting_setPace(uint32_t start_wait, uint32_t retry_period) {
    start_wait_ms = start_wait;
    retry_period_ms = retry_period;
}

void oruKvsTesting_endOfProcess() {
    endOfProcess();
}

void oruKvsTesting_closeStore() {
    store_t &store = theStore();
    const std::lock_guard guard(store.mutex);
    kvsDatabase_close(store.database);
    store.lock.reset();
    store.started = store.reopen = store.overflow_logged = false;
    store.waiting.clear();
    store.erasing.clear();
    store.trouble = trouble_t::none;
    store.unread = false;
    store.last_failure.clear();
    store.reported.clear();
    store.written_late = 0;
    kvs_set_aside = {};
    (void)publish(store);
    (void)oruTime_timerStop(&store.timer);
    store.period_ms = 0;
}

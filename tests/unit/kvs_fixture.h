// SPDX-License-Identifier: Apache-2.0
// A store in a folder of its own, the log captured, and verbs that let a test read as a story.
#pragma once
#include "oru_config.h"
#include "oru_kvs.h"
#include "oru_kvs_state.h"
#include "oru_kvs_testing.h"
#include "oru_status.h"
#include <filesystem>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <string>
#include <vector>

namespace kvs = corvane::kvs;

// Lines of level error and above, and all lines, since the last call of clearLog.
size_t errorLines();
bool logged(const std::string &part);
void clearLog();

class KvsTest : public testing::Test {
protected:
    KvsTest();
    ~KvsTest() override;

    static oru_status_t set(const std::string &key, const std::string &value);
    static std::string get(const std::string &key); // "" when there is none
    static std::vector<std::string> list(const std::string &group);
    static kvs::Condition condition() { return kvs::state().condition; }
    static void restart() { oruKvsTesting_closeStore(); }
    std::string database() const { return folder + "/corvane.db"; }
    // Runs on a connection of its own; the first column of the last row.
    std::string sql(const std::string &statements) const;

    std::string folder;
};

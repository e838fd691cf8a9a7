// SPDX-License-Identifier: Apache-2.0
//
// Leave requests to devices whose discovery failed. Main thread.
#pragma once
#include "zb_types.h"

// One run: a leave request to the next device of the failed-discovery list, and the timer for the run after it.
void oruZb_handleDeviceRecovery();

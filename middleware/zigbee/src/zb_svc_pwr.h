// SPDX-License-Identifier: Apache-2.0
//
// Power-management hooks. This system keeps the hub awake by other means, so all three do nothing; the places where
// they are called are where a port would hold and drop a wake lock. Acquire may run on any thread, under list_mutex.
#pragma once

void oruZb_pwrSvcInit();    // once, when the adapter has been brought up
void oruZb_pwrSvcAcquire(); // work begins: first message queued, joining opened
void oruZb_pwrSvcRelease(); // work ended: queue empty again, joining closed

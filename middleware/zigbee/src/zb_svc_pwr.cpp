// SPDX-License-Identifier: Apache-2.0
#include "zb_svc_pwr.h"

void oruZb_pwrSvcInit() {}

void oruZb_pwrSvcAcquire() {}

void oruZb_pwrSvcRelease() {}

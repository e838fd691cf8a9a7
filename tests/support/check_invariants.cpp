// SPDX-License-Identifier: Apache-2.0
//
// Linked into whatever shall end when the service breaks one of its invariants.
#include "zb_invariant.h"

static const bool checked = check_invariants = true;

// SPDX-License-Identifier: Apache-2.0
//
// Cursor over a received frame: little-endian fields, every read checked against the end of the frame.
#pragma once
#include "../../../lib/base/bytes.h" // by its place in the tree: the service is also built with no other include paths

using oruZb_frameReader = corvane::base::ByteReader;

// SPDX-License-Identifier: Apache-2.0
// Shared by the parser, start-up and tests; not for other layers.
#pragma once
#include "oru_config.h"
#include <string>

// Puts the settings in force, at start-up or before a test: no other thread may be reading them.
void oruConfig_replace(const oruConfig_t &config);

// One error line for the person who starts the daemon. Control characters are replaced (the text may quote the file).
void oruConfig_reportError(std::string text);

// Before the first line is written, in the parser or at start-up: standard input, output and error are open, and nobody
// who does not read holds the process up. May be called again.
void oruConfig_prepareStreams();

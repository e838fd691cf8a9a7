// SPDX-License-Identifier: Apache-2.0
#pragma once
#include <string>

namespace corvane::ctl {

// Failure with a clear sentence when the file cannot be written completely.
void writeSvgFile(const std::string &path, const std::string &svg);

} // namespace corvane::ctl

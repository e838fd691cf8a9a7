// SPDX-License-Identifier: Apache-2.0
#include "zigbee/install_code.h"
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <nettle/aes.h>

namespace corvane::zigbee {

LinkKey installCodeKey(const InstallCode &code) {
    // Padded message: the bytes, a one bit, zeros, and the length in bits as the last two bytes, most significant
    // first.
    std::array<uint8_t, 32> message{};
    std::copy(code.begin(), code.end(), message.begin());
    message[code.size()] = 0x80;
    message[31] = static_cast<uint8_t>(code.size() * 8);

    LinkKey hash{};
    for (std::size_t block = 0; block < message.size(); block += AES_BLOCK_SIZE) {
        aes128_ctx context{};
        aes128_set_encrypt_key(&context, hash.data());
        aes128_encrypt(&context, AES_BLOCK_SIZE, hash.data(), message.data() + block);
        for (std::size_t i = 0; i < hash.size(); ++i) {
            hash[i] = static_cast<uint8_t>(hash[i] ^ message[block + i]);
        }
    }
    explicit_bzero(message.data(), message.size()); // no copy of the code is left on the stack
    return hash;
}

} // namespace corvane::zigbee

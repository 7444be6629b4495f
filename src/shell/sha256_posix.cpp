#include "shell/sha256.h"

#include <openssl/evp.h>

namespace zq {

std::array<std::uint8_t, 32> sha256(const std::string& data) {
    std::array<std::uint8_t, 32> digest{};
    unsigned int size = 0;
    if (EVP_Digest(data.data(), data.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) digest.fill(0);
    return digest;
}

}  // namespace zq

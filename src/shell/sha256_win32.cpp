#include "shell/sha256.h"

#include <windows.h>
#include <bcrypt.h>

namespace zq {

std::array<std::uint8_t, 32> sha256(const std::string& data) {
    std::array<std::uint8_t, 32> digest{};
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    if (BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0) != 0) return digest;
    if (BCryptHash(algorithm, nullptr, 0, reinterpret_cast<PUCHAR>(const_cast<char*>(data.data())),
                   static_cast<ULONG>(data.size()), digest.data(), static_cast<ULONG>(digest.size())) != 0)
        digest.fill(0);
    BCryptCloseAlgorithmProvider(algorithm, 0);
    return digest;
}

}  // namespace zq

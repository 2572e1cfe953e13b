/// The fixed Diffie-Hellman group of all contexts.

// The interface to DH is deprecated since OpenSSL 3 but stays, because SSLInfo::ssl_dhe1024 is one.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/bn.h>
#include <openssl/dh.h>
#include <openssl/evp.h>

#include <mutex>
#include <unordered_map>

#include "network/assl.h"
#include "network/openssl_priv.h"

namespace {

// The published 1024-bit SKIP group, a safe prime and its generator: the parameters of OpenSSL's sample dh1024.pem.
constexpr unsigned char kPrime[128] = {
    0xF4, 0x88, 0xFD, 0x58, 0x4E, 0x49, 0xDB, 0xCD, 0x20, 0xB4, 0x9D, 0xE4, 0x91, 0x07, 0x36, 0x6B,
    0x33, 0x6C, 0x38, 0x0D, 0x45, 0x1D, 0x0F, 0x7C, 0x88, 0xB3, 0x1C, 0x7C, 0x5B, 0x2D, 0x8E, 0xF6,
    0xF3, 0xC9, 0x23, 0xC0, 0x43, 0xF0, 0xA5, 0x5B, 0x18, 0x8D, 0x8E, 0xBB, 0x55, 0x8C, 0xB8, 0x5D,
    0x38, 0xD3, 0x34, 0xFD, 0x7C, 0x17, 0x57, 0x43, 0xA3, 0x1D, 0x18, 0x6C, 0xDE, 0x33, 0x21, 0x2C,
    0xB5, 0x2A, 0xFF, 0x3C, 0xE1, 0xB1, 0x29, 0x40, 0x18, 0x11, 0x8D, 0x7C, 0x84, 0xA7, 0x0A, 0x72,
    0xD6, 0x86, 0xC4, 0x03, 0x19, 0xC8, 0x07, 0x29, 0x7A, 0xCA, 0x95, 0x0C, 0xD9, 0x96, 0x9F, 0xAB,
    0xD0, 0x0A, 0x50, 0x9B, 0x02, 0x46, 0xD3, 0x08, 0x3D, 0x66, 0xA4, 0x5D, 0x41, 0x9F, 0x9C, 0x7C,
    0xBD, 0x89, 0x4B, 0x22, 0x19, 0x26, 0xBA, 0xAB, 0xA2, 0x5E, 0xC3, 0x55, 0xE9, 0x2F, 0x78, 0xC7};
constexpr unsigned char kGenerator[1] = {2};

}  // namespace

DH* get_dh1024() {
  DH* const group = DH_new();
  if (group == nullptr) return nullptr;
  BIGNUM* const prime = BN_bin2bn(kPrime, sizeof kPrime, nullptr);
  BIGNUM* const generator = BN_bin2bn(kGenerator, sizeof kGenerator, nullptr);
  if (prime == nullptr || generator == nullptr || DH_set0_pqg(group, prime, nullptr, generator) == 0) {
    BN_free(prime);
    BN_free(generator);
    DH_free(group);
    return nullptr;
  }
  return group;
}

int use_group(SSL_CTX* context, DH* group) {
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
  if (group == nullptr) return static_cast<int>(SSL_CTX_set_tmp_dh(context, group));
  // SSL_CTX_set_tmp_dh(3) would examine the group anew for each context, which takes longer than the whole handshake.
  // One that is kept here stays referenced, so that its address is no other's.
  static std::mutex mutex;
  static auto& keys = *new std::unordered_map<DH*, EVP_PKEY*>;  // never destroyed
  const std::lock_guard<std::mutex> lock(mutex);
  EVP_PKEY*& key = keys[group];
  if (key == nullptr) {
    key = EVP_PKEY_new();
    if (key == nullptr || EVP_PKEY_set1_DH(key, group) != 1) {
      EVP_PKEY_free(key);
      keys.erase(group);
      return 0;
    }
  }
  EVP_PKEY_up_ref(key);
  if (SSL_CTX_set0_tmp_dh_pkey(context, key) == 1) return 1;
  EVP_PKEY_free(key);
  return 0;
#else
  return static_cast<int>(SSL_CTX_set_tmp_dh(context, group));
#endif
}

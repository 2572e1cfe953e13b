/// The OpenSSL calls that a session's set-up makes, noted in order, each of which can be made to fail. Included by one
/// source of a test program, which defines OPENSSL_SUPPRESS_DEPRECATED before it includes anything.
#ifndef OSKERNEL_TESTS_TLS_SESSION_CALLS_H
#define OSKERNEL_TESTS_TLS_SESSION_CALLS_H

#include <dlfcn.h>
#include <openssl/bn.h>
#include <openssl/dh.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace oskernel_test {

/// The calls that the library makes, and which of them fail.
class Watched {
 public:
  void start() {
    const std::lock_guard<std::mutex> lock(mutex_);
    log_.clear();
    watching_ = true;
  }
  void stop() {
    const std::lock_guard<std::mutex> lock(mutex_);
    watching_ = false;
    failing_.clear();
  }
  /// The call of that name fails after so many that do not.
  void fail(const std::string& name, int after = 0) {
    const std::lock_guard<std::mutex> lock(mutex_);
    failing_[name] = after;
  }
  /// Notes a call of the library's; true when it is to fail.
  bool note(const char* name, void* caller) {
    if (!is_library(caller)) return false;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!watching_) return false;
    log_.emplace_back(name);
    const auto found = failing_.find(name);
    return found != failing_.end() && found->second-- <= 0;
  }
  std::vector<std::string> log() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return log_;
  }
  long count(const std::string& name) const {
    const std::vector<std::string> all = log();
    return std::count(all.begin(), all.end(), name);
  }

 private:
  static bool is_library(void* address) {
    Dl_info info = {};
    return dladdr(address, &info) != 0 && std::strstr(info.dli_fname, "liboskernel") != nullptr;
  }
  mutable std::mutex mutex_;
  std::vector<std::string> log_;
  std::map<std::string, int> failing_;
  bool watching_ = false;
};

inline Watched& watched() {
  static auto* const kept = new Watched;
  return *kept;
}

inline time_t real_time_of_day() {
  timespec real = {};
  clock_gettime(CLOCK_REALTIME, &real);
  return real.tv_sec;
}

/// What everybody in this program takes for the time of day. It stands still: what the library keeps of a file that has
/// not changed for a while does not depend on how slow the machine is.
inline std::atomic<time_t>& time_of_day() {
  static std::atomic<time_t> now{real_time_of_day()};
  return now;
}

/// What RAND_seed has been given.
struct Seed {
  std::string bytes;
  const void* address;
};
inline std::vector<Seed>& seeds() {
  static auto* const kept = new std::vector<Seed>;
  return *kept;
}

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// The last error of the thread, for calls that fail without one.
inline void raise_error() { ERR_raise(ERR_LIB_SSL, ERR_R_INTERNAL_ERROR); }

}  // namespace oskernel_test

#define INTERPOSE(result, name, parameters, arguments, failure)              \
  __attribute__((visibility("default"))) result name parameters {            \
    static auto* const real = oskernel_test::next<result parameters>(#name); \
    if (oskernel_test::watched().note(#name, __builtin_return_address(0))) { \
      oskernel_test::raise_error();                                          \
      return failure;                                                        \
    }                                                                        \
    return real arguments;                                                   \
  }

extern "C" {
__attribute__((visibility("default"))) time_t time(time_t* out) {
  const time_t now = oskernel_test::time_of_day().load();
  if (out != nullptr) *out = now;
  return now;
}
INTERPOSE(SSL_CTX*, SSL_CTX_new, (const SSL_METHOD* method), (method), nullptr)
INTERPOSE(void, SSL_CTX_set_security_level, (SSL_CTX * context, int level), (context, level), )
INTERPOSE(void, SSL_CTX_set_default_passwd_cb, (SSL_CTX * context, pem_password_cb* callback),
          (context, callback), )
INTERPOSE(int, SSL_CTX_use_PrivateKey_file, (SSL_CTX * context, const char* file, int type),
          (context, file, type), 0)
INTERPOSE(int, SSL_CTX_use_certificate_chain_file, (SSL_CTX * context, const char* file), (context, file), 0)
INTERPOSE(int, SSL_CTX_check_private_key, (const SSL_CTX* context), (context), 0)
INTERPOSE(int, SSL_CTX_set_session_id_context,
          (SSL_CTX * context, const unsigned char* bytes, unsigned int length), (context, bytes, length), 0)
INTERPOSE(void, SSL_CTX_set_verify, (SSL_CTX * context, int mode, SSL_verify_cb callback),
          (context, mode, callback), )
INTERPOSE(void, SSL_CTX_set_cert_verify_callback,
          (SSL_CTX * context, int (*callback)(X509_STORE_CTX*, void*), void* argument),
          (context, callback, argument), )
INTERPOSE(int, SSL_CTX_load_verify_locations, (SSL_CTX * context, const char* file, const char* directory),
          (context, file, directory), 0)
INTERPOSE(STACK_OF(X509_NAME) *, SSL_load_client_CA_file, (const char* file), (file), nullptr)
INTERPOSE(STACK_OF(X509_NAME) *, SSL_CTX_get_client_CA_list, (const SSL_CTX* context), (context), nullptr)
INTERPOSE(int, SSL_CTX_set_cipher_list, (SSL_CTX * context, const char* list), (context, list), 0)
INTERPOSE(SSL*, SSL_new, (SSL_CTX * context), (context), nullptr)
INTERPOSE(int, OPENSSL_init_ssl, (uint64_t options, const OPENSSL_INIT_SETTINGS* settings),
          (options, settings), 0)
INTERPOSE(DH*, DH_new, (), (), nullptr)
INTERPOSE(BIGNUM*, BN_bin2bn, (const unsigned char* bytes, int length, BIGNUM* number),
          (bytes, length, number), nullptr)

__attribute__((visibility("default"))) long SSL_CTX_ctrl(SSL_CTX* context, int command, long number,
                                                         void* pointer) {
  static auto* const real = oskernel_test::next<long(SSL_CTX*, int, long, void*)>("SSL_CTX_ctrl");
  const char* const name = command == SSL_CTRL_SET_TMP_DH ? "SSL_CTX_set_tmp_dh"
                           : command == SSL_CTRL_MODE     ? "SSL_CTX_set_mode"
                                                          : "SSL_CTX_ctrl";
  if (oskernel_test::watched().note(name, __builtin_return_address(0))) {
    oskernel_test::raise_error();
    return 0;
  }
  return real(context, command, number, pointer);
}
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
// Another way to the same: the group as a key that has been examined before.
__attribute__((visibility("default"))) int SSL_CTX_set0_tmp_dh_pkey(SSL_CTX* context, EVP_PKEY* key) {
  static auto* const real = oskernel_test::next<int(SSL_CTX*, EVP_PKEY*)>("SSL_CTX_set0_tmp_dh_pkey");
  if (oskernel_test::watched().note("SSL_CTX_set_tmp_dh", __builtin_return_address(0))) {
    oskernel_test::raise_error();
    return 0;
  }
  return real(context, key);
}
#endif
__attribute__((visibility("default"))) void RAND_seed(const void* bytes, int length) {
  static auto* const real = oskernel_test::next<void(const void*, int)>("RAND_seed");
  if (oskernel_test::watched().note("RAND_seed", __builtin_return_address(0))) return;
  oskernel_test::seeds().push_back(
      {std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(length)), bytes});
  real(bytes, length);
}
__attribute__((visibility("default"))) pid_t getpid() noexcept {
  static auto* const real = oskernel_test::next<pid_t()>("getpid");
  oskernel_test::watched().note("getpid", __builtin_return_address(0));
  return real();
}
}  // extern "C"

#undef INTERPOSE

#endif

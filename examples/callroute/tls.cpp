#include "examples/callroute/tls.h"

#include <fmt/format.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

#include "examples/callrouter/plan.h"
#include "examples/callrouter/tls_files.h"
#include "network/assl.h"

namespace callroute {
namespace {

struct Freer {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
  void operator()(X509* cert) const { X509_free(cert); }
  void operator()(BIO* bio) const { BIO_free(bio); }
};
template <class T>
using Owner = std::unique_ptr<T, Freer>;

// Where the CAs of the system stand, in one file.
std::string system_ca() {
  const char* const named = std::getenv(X509_get_default_cert_file_env());
  if (named != nullptr) return named;
  for (const char* file : {X509_get_default_cert_file(), "/etc/ssl/certs/ca-certificates.crt"}) {
    if (access(file, R_OK) == 0) return file;
  }
  throw callrouter::UsageError("--tls: the system has no list of CAs; name a file of them with --ca");
}

Owner<EVP_PKEY> new_key() {
  const Owner<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr));
  EVP_PKEY* key = nullptr;
  if (!context || EVP_PKEY_keygen_init(context.get()) != 1 ||
      EVP_PKEY_CTX_set_ec_paramgen_curve_nid(context.get(), NID_X9_62_prime256v1) != 1) {
    return nullptr;
  }
  EVP_PKEY_keygen(context.get(), &key);
  return Owner<EVP_PKEY>(key);
}

Owner<X509> self_signed(EVP_PKEY* key) {
  constexpr long kDay_s = 86400;
  Owner<X509> cert(X509_new());
  if (!cert) return nullptr;
  X509_NAME* const name = X509_get_subject_name(cert.get());
  const unsigned char text[] = "callroute";
  const bool made = X509_set_version(cert.get(), 2) == 1 &&
                    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1) == 1 &&
                    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -kDay_s) != nullptr &&
                    X509_gmtime_adj(X509_getm_notAfter(cert.get()), kDay_s) != nullptr &&
                    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0) == 1 &&
                    X509_set_issuer_name(cert.get(), name) == 1 && X509_set_pubkey(cert.get(), key) == 1 &&
                    X509_sign(cert.get(), key, EVP_sha256()) > 0;
  return made ? std::move(cert) : nullptr;
}

}  // namespace

TlsClient::TlsClient(const Options& options)
    : cert_(options.cert), key_(options.key), ca_(options.ca.empty() ? system_ca() : options.ca) {
  callrouter::check_ca(ca_);
  if (cert_.empty()) {
    cert_ = key_ = make_pair();
  } else {
    const std::string remark = callrouter::check_certificate(cert_, key_);
    if (!remark.empty()) std::cerr << "callroute: " << remark << std::endl;
  }
  if (SSLInfo::Initialise(cert_.data(), key_.data(), ca_.data()) != 0) {
    throw callrouter::UsageError("--tls: OpenSSL cannot be used");
  }
}

TlsClient::~TlsClient() {
  SSLInfo::Initialise(nullptr, nullptr, nullptr);
  if (memory_ >= 0) close(memory_);
}

// Key and certificate, one behind the other, in a file without a name; this is a name of it all the same.
std::string TlsClient::make_pair() {
  const Owner<EVP_PKEY> key = new_key();
  const Owner<X509> cert = key ? self_signed(key.get()) : nullptr;
  const Owner<BIO> text(BIO_new(BIO_s_mem()));
  char* bytes = nullptr;
  long length = 0;
  if (cert && text && PEM_write_bio_X509(text.get(), cert.get()) == 1 &&
      PEM_write_bio_PrivateKey(text.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1) {
    length = BIO_get_mem_data(text.get(), &bytes);
  }
  if (length <= 0) throw callrouter::UsageError("--tls: OpenSSL makes no key");
  memory_ = memfd_create("callroute", MFD_CLOEXEC);
  if (memory_ < 0 || write(memory_, bytes, static_cast<std::size_t>(length)) != length) {
    throw callrouter::UsageError(fmt::format("--tls: no memory for a key: {}", std::strerror(errno)));
  }
  return fmt::format("/proc/self/fd/{}", memory_);
}

// ---- the library's words ------------------------------------------------------------------------------------

std::mutex TlsWords::mutex_;
std::string TlsWords::last_;

void TlsWords::say(std::string text) {
  const std::lock_guard lock(mutex_);
  last_ = std::move(text);
}

std::string TlsWords::last() {
  const std::lock_guard lock(mutex_);
  return last_;
}

// "TLSHandshake: ..." judges the router, "SSL/TLS (0x...): CALL: error:CODE:LIBRARY::REASON" is OpenSSL's error, and
// "... ERROR_SYSCALL EOF" the connection's end.
void TlsWords::hear(std::string_view line) {
  constexpr std::string_view kJudgement = "TLSHandshake: ";
  constexpr std::string_view kVerification = "peer verification error: ";
  constexpr std::string_view kMismatch = "peer name mismatch\n\texpected: ";
  constexpr std::string_view kGot = "\n\tgot:      ";
  constexpr std::string_view kOpenssl = "SSL/TLS (";
  if (line.starts_with(kJudgement)) {
    line.remove_prefix(kJudgement.size());
    if (line.starts_with(kVerification)) {
      line.remove_prefix(kVerification.size());
      say(fmt::format("the router's certificate is not trusted: {}", line));
    } else if (line == "peer certificate is self-signed") {
      say("the router's certificate is not trusted: it is self-signed");
    } else if (line.starts_with(kMismatch)) {
      line.remove_prefix(kMismatch.size());
      const std::size_t at = std::min(line.find(kGot), line.size());
      const std::string_view got = line.substr(std::min(at + kGot.size(), line.size()));
      say(fmt::format("the router is {}, not {}", got, line.substr(0, at)));
    }
  } else if (line.starts_with(kOpenssl)) {
    const std::size_t at = line.rfind(':');
    const std::string_view reason = line.substr(at + 1);
    const bool no_tls = reason == "wrong version number" || reason == "packet length too long";
    say(fmt::format("{}{}", reason, no_tls ? "; does the port serve TLS?" : ""));
  } else if (line.starts_with("SSL ") && line.ends_with("ERROR_SYSCALL EOF")) {
    say("the router has broken off");
  }
}

}  // namespace callroute

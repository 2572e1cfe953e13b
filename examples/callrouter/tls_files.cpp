#include "examples/callrouter/tls_files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "examples/callrouter/plan.h"
#include "network/assl.h"

namespace callrouter {
namespace {

struct Freer {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using Context = std::unique_ptr<SSL_CTX, Freer>;
using Bio = std::unique_ptr<BIO, Freer>;

[[noreturn]] void refuse(std::string_view option, const std::string& file, std::string_view why) {
  throw UsageError(fmt::format("{} {}: {}", option, file, why));
}

// OpenSSL says "no start line" of a missing file's neighbour and of a directory alike: the system says what it is.
// Each connection reads the files anew, so that only a regular file will do.
void check_readable(std::string_view option, const std::string& file) {
  if (file.empty()) throw UsageError(fmt::format("{}: needs a file name", option));
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) refuse(option, file, std::strerror(errno));
  if (S_ISDIR(status.st_mode)) refuse(option, file, std::strerror(EISDIR));
  if (!S_ISREG(status.st_mode)) refuse(option, file, "is no regular file, and is read for every connection");
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) refuse(option, file, std::strerror(errno));
  close(fd);
}

// What OpenSSL has against the file. "no start line" is its word for PEM without what is looked for.
std::string complaint(std::string_view what_is_missing) {
  const unsigned long code = ERR_peek_error();
  ERR_clear_error();
  if (ERR_GET_LIB(code) == ERR_LIB_PEM && ERR_GET_REASON(code) == PEM_R_NO_START_LINE) {
    return fmt::format("holds no {} in PEM form", what_is_missing);
  }
  const char* const reason = ERR_reason_error_string(code);
  return fmt::format("cannot be used: {}", reason != nullptr ? reason : "OpenSSL does not say why");
}

// Asked for a pass phrase, there is none: nobody is there to type it for each connection.
int note_pass_phrase(char*, int, int, void* asked) {
  *static_cast<bool*>(asked) = true;
  return -1;
}

bool passed(const ASN1_TIME* moment) { return X509_cmp_current_time(moment) < 0; }

std::string text_of(const ASN1_TIME* moment) {
  const Bio bio(BIO_new(BIO_s_mem()));
  ASN1_TIME_print(bio.get(), moment);
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &text);
  return {text, static_cast<std::size_t>(length)};
}

}  // namespace

std::string check_certificate(const std::string& cert, const std::string& key) {
  check_readable("--cert", cert);
  check_readable("--key", key);
  ERR_clear_error();
  const Context context(SSL_CTX_new(TLS_method()));
  if (!context) throw UsageError("TLS: OpenSSL cannot be used");
  SSL_CTX_set_security_level(context.get(), SSLInfo::security_level);
  bool asked = false;
  SSL_CTX_set_default_passwd_cb(context.get(), note_pass_phrase);
  SSL_CTX_set_default_passwd_cb_userdata(context.get(), &asked);
  if (SSL_CTX_use_certificate_chain_file(context.get(), cert.c_str()) != 1) {
    refuse("--cert", cert, complaint("certificate"));
  }
  if (SSL_CTX_use_PrivateKey_file(context.get(), key.c_str(), SSL_FILETYPE_PEM) != 1) {
    if (asked) refuse("--key", key, "is encrypted; the key must stand there without a pass phrase");
    const unsigned long code = ERR_peek_error();
    const int reason = ERR_GET_REASON(code);
    if (ERR_GET_LIB(code) == ERR_LIB_X509 &&
        (reason == X509_R_KEY_VALUES_MISMATCH || reason == X509_R_KEY_TYPE_MISMATCH)) {
      ERR_clear_error();
      refuse("--key", key, fmt::format("does not belong to the certificate in {}", cert));
    }
    refuse("--key", key, complaint("private key"));
  }
  // A key of another kind than the certificate's was taken all the same, for another certificate to come.
  if (SSL_CTX_check_private_key(context.get()) != 1) {
    ERR_clear_error();
    refuse("--key", key, fmt::format("does not belong to the certificate in {}", cert));
  }
  const X509* const own = SSL_CTX_get0_certificate(context.get());
  if (passed(X509_get0_notAfter(own))) {
    return fmt::format("--cert {}: the certificate has expired ({}); peers that verify it will refuse it",
                       cert, text_of(X509_get0_notAfter(own)));
  }
  if (!passed(X509_get0_notBefore(own))) {
    return fmt::format("--cert {}: the certificate is not valid yet (from {} on)", cert,
                       text_of(X509_get0_notBefore(own)));
  }
  return {};
}

void check_ca(const std::string& ca) {
  check_readable("--ca", ca);
  ERR_clear_error();
  const Context context(SSL_CTX_new(TLS_method()));
  if (!context) throw UsageError("TLS: OpenSSL cannot be used");
  if (SSL_CTX_load_verify_locations(context.get(), ca.c_str(), nullptr) == 1) return;
  // A file without a certificate is a different complaint here.
  const unsigned long code = ERR_peek_error();
  if (ERR_GET_LIB(code) == ERR_LIB_X509 && ERR_GET_REASON(code) == X509_R_NO_CERTIFICATE_OR_CRL_FOUND) {
    ERR_clear_error();
    refuse("--ca", ca, "holds no certificate in PEM form");
  }
  refuse("--ca", ca, complaint("certificate"));
}

}  // namespace callrouter

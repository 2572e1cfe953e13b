/// Throw-away certificates for tests of TLS: a CA, what it has signed, and what it has not.
///
///     TlsFiles files;                                  // a directory that goes with the object
///     SSLInfo::Initialise(files.text(files.cert(TlsFiles::kServer)), ...);
///     files.ca();                                      // "/.../ca.pem", the CA that good peers trust
///     files.cert(TlsFiles::kServer);                   // "/.../server.pem", certificate chain
///     files.key(TlsFiles::kServer);                    // "/.../server.key"
///     files.subject(TlsFiles::kServer);                // "/C=SE/O=Works/CN=gate"
///     files.issue("other", {.subject = {{"CN", "x"}}}) // one that is not in the list
///
/// Nothing is made before it is asked for; a key on a curve takes less than a millisecond, one of RSA-2048 about a
/// hundred. No program is started. Any thread.
#ifndef OSKERNEL_TESTS_TLS_FILES_H
#define OSKERNEL_TESTS_TLS_FILES_H

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace oskernel_test {

class TlsFiles {
 public:
  /// The sets that every test knows. Subjects differ unless something else is said. All but kSelfSigned, kExpired,
  /// kNotYetValid and kOtherCa verify against ca().
  enum Kind {
    kServer,        ///< EC P-256, /C=SE/O=Works/CN=gate; for localhost and 127.0.0.1, as all others
    kClient,        ///< EC P-256, /C=SE/O=Works/CN=desk
    kServerRsa,     ///< RSA-2048, /C=SE/O=Works/CN=gate-rsa
    kClientRsa,     ///< RSA-2048, /C=SE/O=Works/CN=desk-rsa
    kSelfSigned,    ///< signed with its own key, subject as kServer's
    kExpired,       ///< by the CA, over since yesterday, subject as kServer's
    kNotYetValid,   ///< by the CA, from tomorrow on, subject as kServer's
    kOtherCa,       ///< by a CA that nobody knows (other_ca()), subject as kServer's
    kEncryptedKey,  ///< by the CA; the key file needs the pass phrase "secret"
    kChain,         ///< by an intermediate CA that stands behind it in the file, /C=SE/O=Works/CN=behind
    kNoSubject,     ///< by the CA, without any subject
    kLongSubject,   ///< by the CA, a subject of more than 256 characters on one line
    kSha1,          ///< by the CA, signed with SHA-1: needs security level 0
    kKinds
  };
  enum KeyType { kP256, kRsa2048, kRsa1024 };
  using Names = std::vector<std::pair<std::string, std::string>>;

  /// A certificate to be issued.
  struct Order {
    Names subject = {};  ///< {{"C", "SE"}, {"CN", "gate"}}
    KeyType key_type = kP256;
    enum Issuer { kByCa, kByOtherCa, kByIntermediate, kBySelf } issuer = kByCa;
    long from_s = -3600;            ///< validity, seconds from now
    long to_s = 24L * 3600;         ///< validity, seconds from now
    std::string password = {};      ///< encrypts the key file
    const char* digest = "SHA256";  ///< of the signature
  };
  /// The files of one certificate.
  struct Set {
    std::string cert;     ///< path, PEM, the certificate first and then what is between it and the CA
    std::string key;      ///< path, PEM
    std::string subject;  ///< as X509_NAME_oneline writes it, not cut
  };

  TlsFiles() {
    std::string pattern = (std::filesystem::temp_directory_path() / "oskernel-tls-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "cannot make a directory " << pattern;
    directory_ = pattern;
  }
  ~TlsFiles() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  TlsFiles(const TlsFiles&) = delete;
  TlsFiles& operator=(const TlsFiles&) = delete;

  std::string ca() { return of_authority(kCaName).cert; }
  std::string ca_key() { return of_authority(kCaName).key; }
  std::string ca_subject() { return of_authority(kCaName).subject; }
  std::string other_ca() { return of_authority(kOtherCaName).cert; }
  std::string cert(Kind kind) { return of(kind).cert; }
  std::string key(Kind kind) { return of(kind).key; }
  std::string subject(Kind kind) { return of(kind).subject; }
  const Set& of(Kind kind) {
    static const char* const kNames[kKinds] = {
        "server",  "client",    "server-rsa", "client-rsa", "self-signed",  "expired", "not-yet-valid",
        "otherca", "encrypted", "chain",      "no-subject", "long-subject", "sha1"};
    return issue(kNames[kind], order(kind));
  }

  /// Makes a certificate once; the name is the stem of its files, and asking again gives the same.
  const Set& issue(const std::string& name, const Order& order) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return issue_locked(name, order, false).set;
  }

  /// A path in the directory; nothing need be there.
  std::string path(const std::string& name) const { return directory_ + "/" + name; }
  /// A path at which nothing is.
  std::string missing() const { return path("missing.pem"); }
  /// Writes a file into the directory; returns its path.
  std::string write(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }
  static std::string read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  }
  /// The same text for an interface that takes char* and keeps it; lives as long as this object.
  char* text(const std::string& content) {
    const std::lock_guard<std::mutex> lock(mutex_);
    texts_.push_back(std::make_unique<std::string>(content));
    return texts_.back()->data();
  }

 private:
  static constexpr char kCaName[] = "ca";
  static constexpr char kOtherCaName[] = "other-ca";
  static constexpr char kIntermediateName[] = "intermediate";

  struct Freer {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
    void operator()(X509* cert) const { X509_free(cert); }
    void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
    void operator()(FILE* file) const { fclose(file); }
  };
  template <class T>
  using Owner = std::unique_ptr<T, Freer>;
  struct Made {
    Set set;
    Owner<X509> cert;
    Owner<EVP_PKEY> key;
  };

  static Order order(Kind kind) {
    constexpr long kDay = 24L * 3600;
    const auto works = [](const char* name) { return Names{{"C", "SE"}, {"O", "Works"}, {"CN", name}}; };
    switch (kind) {
      case kServer:
        return {.subject = works("gate")};
      case kClient:
        return {.subject = works("desk")};
      case kServerRsa:
        return {.subject = works("gate-rsa"), .key_type = kRsa2048};
      case kClientRsa:
        return {.subject = works("desk-rsa"), .key_type = kRsa2048};
      case kSelfSigned:
        return {.subject = works("gate"), .issuer = Order::kBySelf};
      case kExpired:
        return {.subject = works("gate"), .from_s = -10 * kDay, .to_s = -kDay};
      case kNotYetValid:
        return {.subject = works("gate"), .from_s = kDay, .to_s = 10 * kDay};
      case kOtherCa:
        return {.subject = works("gate"), .issuer = Order::kByOtherCa};
      case kEncryptedKey:
        return {.subject = works("locked"), .password = "secret"};
      case kChain:
        return {.subject = works("behind"), .issuer = Order::kByIntermediate};
      case kNoSubject:
        return {};
      case kLongSubject: {
        // Each attribute is short enough for X.509; together they are not short.
        Names names = works("gate");
        for (int i = 0; i < 8; ++i)
          names.emplace_back("OU", "department " + std::to_string(i) + std::string(40, 'x'));
        return {.subject = names};
      }
      case kSha1:
        return {.subject = works("old"), .digest = "SHA1"};
      case kKinds:
        break;
    }
    return {};
  }

  const Set& of_authority(const char* name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return authority_locked(name).set;
  }
  const Made& authority_locked(const char* name) {
    Order order;
    order.subject = {{"C", "SE"}, {"O", "Works"}, {"CN", std::string("test ") + name}};
    order.issuer = std::string(name) == kIntermediateName ? Order::kByCa : Order::kBySelf;
    return issue_locked(name, order, true);
  }

  const Made& issue_locked(const std::string& name, const Order& order, bool is_authority) {
    const auto known = made_.find(name);
    if (known != made_.end()) return known->second;
    Made made;
    made.key = new_key(order.key_type);
    const Made* issuer = nullptr;
    if (order.issuer == Order::kByCa) issuer = &authority_locked(kCaName);
    if (order.issuer == Order::kByOtherCa) issuer = &authority_locked(kOtherCaName);
    if (order.issuer == Order::kByIntermediate) issuer = &authority_locked(kIntermediateName);
    made.cert = sign(order, is_authority, made.key.get(), issuer);
    char* const line = X509_NAME_oneline(X509_get_subject_name(made.cert.get()), nullptr, 0);
    if (line != nullptr) made.set.subject = line;
    OPENSSL_free(line);
    made.set.cert = path(name + ".pem");
    made.set.key = path(name + ".key");
    write_pem(made, order, order.issuer == Order::kByIntermediate ? issuer : nullptr);
    return made_.emplace(name, std::move(made)).first->second;
  }

  static Owner<EVP_PKEY> new_key(KeyType type) {
    const int id = type == kP256 ? EVP_PKEY_EC : EVP_PKEY_RSA;
    const Owner<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_id(id, nullptr));
    EVP_PKEY* key = nullptr;
    expect(EVP_PKEY_keygen_init(context.get()) > 0);
    if (type == kP256) {
      expect(EVP_PKEY_CTX_set_ec_paramgen_curve_nid(context.get(), NID_X9_62_prime256v1) > 0);
    } else {
      expect(EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), type == kRsa2048 ? 2048 : 1024) > 0);
    }
    expect(EVP_PKEY_keygen(context.get(), &key) > 0);
    return Owner<EVP_PKEY>(key);
  }

  Owner<X509> sign(const Order& order, bool is_authority, EVP_PKEY* key, const Made* issuer) {
    Owner<X509> cert(X509_new());
    expect(X509_set_version(cert.get(), 2) == 1);
    // Two CAs may carry the same number; what one signs does not.
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), ++serial_);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), order.from_s);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), order.to_s);
    X509_NAME* const name = X509_get_subject_name(cert.get());
    for (const auto& [field, value] : order.subject) {
      expect(X509_NAME_add_entry_by_txt(name, field.c_str(), MBSTRING_UTF8,
                                        reinterpret_cast<const unsigned char*>(value.data()),
                                        static_cast<int>(value.size()), -1, 0) == 1);
    }
    expect(X509_set_pubkey(cert.get(), key) == 1);
    X509* const by = issuer != nullptr ? issuer->cert.get() : cert.get();
    expect(X509_set_issuer_name(cert.get(), X509_get_subject_name(by)) == 1);
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, by, cert.get(), nullptr, nullptr, 0);
    add_extension(cert.get(), &context, NID_basic_constraints,
                  is_authority ? "critical,CA:TRUE" : "critical,CA:FALSE");
    add_extension(cert.get(), &context, NID_key_usage,
                  is_authority ? "critical,keyCertSign,cRLSign" : "digitalSignature,keyEncipherment");
    add_extension(cert.get(), &context, NID_subject_key_identifier, "hash");
    add_extension(cert.get(), &context, NID_authority_key_identifier, "keyid");
    if (!is_authority) {
      add_extension(cert.get(), &context, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1");
    }
    EVP_PKEY* const signer = issuer != nullptr ? issuer->key.get() : key;
    expect(X509_sign(cert.get(), signer, EVP_get_digestbyname(order.digest)) > 0);
    return cert;
  }
  static void add_extension(X509* cert, X509V3_CTX* context, int nid, const char* value) {
    const Owner<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, context, nid, value));
    expect(extension != nullptr && X509_add_ext(cert, extension.get(), -1) == 1);
  }

  static void write_pem(const Made& made, const Order& order, const Made* behind) {
    {
      const Owner<FILE> file(fopen(made.set.cert.c_str(), "w"));
      expect(file != nullptr && PEM_write_X509(file.get(), made.cert.get()) == 1);
      if (file != nullptr && behind != nullptr) {
        expect(PEM_write_X509(file.get(), behind->cert.get()) == 1);
      }
    }
    const Owner<FILE> file(fopen(made.set.key.c_str(), "w"));
    const bool encrypted = !order.password.empty();
    std::string password = order.password;
    expect(file != nullptr &&
           PEM_write_PrivateKey(file.get(), made.key.get(), encrypted ? EVP_aes_128_cbc() : nullptr,
                                encrypted ? reinterpret_cast<unsigned char*>(password.data()) : nullptr,
                                encrypted ? static_cast<int>(password.size()) : 0, nullptr, nullptr) == 1);
    chmod(made.set.key.c_str(), 0600);
  }

  static void expect(bool done) {
    if (done) return;
    char text[256] = "no error is queued";
    const unsigned long code = ERR_get_error();
    if (code != 0) ERR_error_string_n(code, text, sizeof text);
    ADD_FAILURE() << "cannot make a certificate: " << text;
  }

  std::string directory_;
  std::mutex mutex_;
  std::map<std::string, Made> made_;
  std::vector<std::unique_ptr<std::string>> texts_;
  long serial_ = 0;
};

}  // namespace oskernel_test

#endif

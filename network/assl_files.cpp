/// Keys and certificates of TLS contexts, parsed once for many of them.
#include "network/assl_files_priv.h"

#include <sys/stat.h>

#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace {

enum Kind { kKey, kChain, kStore, kNames };

/// What a file holds; which of it depends on the kind. Constant once it is kept.
struct Parsed {
  Parsed() = default;
  ~Parsed() {
    EVP_PKEY_free(key);
    X509_free(certificate);
    sk_X509_pop_free(chain, X509_free);
    X509_STORE_free(store);
    sk_X509_NAME_pop_free(names, X509_NAME_free);
  }
  Parsed(const Parsed&) = delete;
  Parsed& operator=(const Parsed&) = delete;

  EVP_PKEY* key = nullptr;
  X509* certificate = nullptr;
  STACK_OF(X509) * chain = nullptr;  ///< null for a certificate that comes alone
  X509_STORE* store = nullptr;
  STACK_OF(X509_NAME) * names = nullptr;
};

/// Which file it is, and in which state.
struct FileState {
  explicit FileState(const char* path) {
    struct stat now {};
    if (stat(path, &now) != 0) return;
    there = true;
    device = now.st_dev;
    inode = now.st_ino;
    size = now.st_size;
    modified = now.st_mtim;
    changed = now.st_ctim;
  }
  bool same_as(const FileState& other) const {
    const auto equal = [](const timespec& a, const timespec& b) {
      return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
    };
    return there && other.there && device == other.device && inode == other.inode && size == other.size &&
           equal(modified, other.modified) && equal(changed, other.changed);
  }
  /// A file that has just been changed may be changed again without its times telling.
  bool is_settled() const {
    constexpr time_t kSettled_s = 2;
    return there && time(nullptr) - changed.tv_sec >= kSettled_s;
  }

  bool there = false;
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec modified{};
  timespec changed{};
};

struct Kept {
  FileState state;
  std::shared_ptr<const Parsed> parsed;
};

/// So many files are enough for every program that does not make one for each connection.
constexpr std::size_t kMostKept = 64;

// A leaf lock; files are read outside it. Never destroyed, because threads may outlive what would destroy it.
std::mutex kept_mutex;
auto& kept = *new std::map<std::pair<Kind, std::string>, Kept>;

std::shared_ptr<const Parsed> find(Kind kind, const char* path, const FileState& state) {
  const std::lock_guard<std::mutex> lock(kept_mutex);
  const auto found = kept.find({kind, path});
  if (found == kept.end()) return nullptr;
  if (found->second.state.same_as(state)) return found->second.parsed;
  kept.erase(found);
  return nullptr;
}

/// Keeps what has been loaded since the file was in that state, if it still is.
void keep(Kind kind, const char* path, const FileState& state, std::shared_ptr<const Parsed> parsed) {
  if (!state.is_settled() || !state.same_as(FileState(path))) return;
  const std::lock_guard<std::mutex> lock(kept_mutex);
  if (kept.size() >= kMostKept) kept.clear();
  kept.insert_or_assign({kind, path}, Kept{state, std::move(parsed)});
}

}  // namespace

int use_private_key_file(SSL_CTX* context, const char* path) {
  const FileState state(path);
  if (const auto known = find(kKey, path, state)) return SSL_CTX_use_PrivateKey(context, known->key);
  const int result = SSL_CTX_use_PrivateKey_file(context, path, SSL_FILETYPE_PEM);
  EVP_PKEY* const key = result == 1 ? SSL_CTX_get0_privatekey(context) : nullptr;
  if (key != nullptr && EVP_PKEY_up_ref(key) == 1) {
    auto parsed = std::make_shared<Parsed>();
    parsed->key = key;
    keep(kKey, path, state, std::move(parsed));
  }
  return result;
}

int use_certificate_chain_file(SSL_CTX* context, const char* path) {
  const FileState state(path);
  if (const auto known = find(kChain, path, state)) {
    const int result = SSL_CTX_use_certificate(context, known->certificate);
    return result == 1 ? static_cast<int>(SSL_CTX_set1_chain(context, known->chain)) : result;
  }
  const int result = SSL_CTX_use_certificate_chain_file(context, path);
  X509* const certificate = result == 1 ? SSL_CTX_get0_certificate(context) : nullptr;
  if (certificate != nullptr && X509_up_ref(certificate) == 1) {
    auto parsed = std::make_shared<Parsed>();
    parsed->certificate = certificate;
    STACK_OF(X509)* chain = nullptr;
    SSL_CTX_get0_chain_certs(context, &chain);
    if (chain != nullptr) parsed->chain = X509_chain_up_ref(chain);
    if (chain == nullptr || parsed->chain != nullptr) keep(kChain, path, state, std::move(parsed));
  }
  return result;
}

int use_verify_file(SSL_CTX* context, const char* path) {
  const FileState state(path);
  if (const auto known = find(kStore, path, state)) {
    SSL_CTX_set1_cert_store(context, known->store);
    return 1;
  }
  const int result = SSL_CTX_load_verify_locations(context, path, nullptr);
  X509_STORE* const store = result == 1 ? SSL_CTX_get_cert_store(context) : nullptr;
  if (store != nullptr && X509_STORE_up_ref(store) == 1) {
    auto parsed = std::make_shared<Parsed>();
    parsed->store = store;
    keep(kStore, path, state, std::move(parsed));
  }
  return result;
}

STACK_OF(X509_NAME) * load_client_ca_names(const char* path) {
  const FileState state(path);
  if (const auto known = find(kNames, path, state)) return SSL_dup_CA_list(known->names);
  STACK_OF(X509_NAME)* const names = SSL_load_client_CA_file(path);
  if (names == nullptr) return nullptr;
  auto parsed = std::make_shared<Parsed>();
  parsed->names = SSL_dup_CA_list(names);
  if (parsed->names != nullptr) keep(kNames, path, state, std::move(parsed));
  return names;
}

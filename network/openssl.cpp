/// What the sources that use OpenSSL share.
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

#include "network/asocketX_priv.h"
#include "network/assl.h"
#include "network/openssl_priv.h"

// ---- Versions ----------------------------------------------------------------------------------------------

pthread_mutex_t* install_thread_callbacks(unsigned long (*thread_id)(),
                                          void (*lock)(int mode, int n, const char* file, int line)) {
  const auto count = static_cast<std::size_t>(CRYPTO_num_locks());
  auto* const locks = static_cast<pthread_mutex_t*>(OPENSSL_malloc(count * sizeof(pthread_mutex_t)));
  if (locks == nullptr) return nullptr;
  for (std::size_t i = 0; i < count; ++i) pthread_mutex_init(&locks[i], nullptr);
  CRYPTO_set_id_callback(thread_id);
  CRYPTO_set_locking_callback(lock);
  // Present versions make nothing of the two calls above.
  static_cast<void>(thread_id);
  static_cast<void>(lock);
  return locks;
}

// ---- Contexts ----------------------------------------------------------------------------------------------

void set_security_level(SSL_CTX* context) {
  const int level = seen(SSLInfo::security_level);
  SSL_CTX_set_security_level(context, level);
  if (level == 0) SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
}

void seed_random(bool with_pid) {
  struct {
    utsname system;
    int uname_result;
    int error;
    uid_t uid;
    uid_t effective_uid;
    gid_t gid;
    gid_t effective_gid;
  } machine{};
  static_assert(sizeof machine == 416);
  machine.uname_result = uname(&machine.system);
  machine.error = errno;
  machine.uid = getuid();
  machine.effective_uid = geteuid();
  machine.gid = getgid();
  machine.effective_gid = getegid();
  RAND_seed(&machine, sizeof machine);

  // Deliberate: without with_pid the process id is asked for all the same and left out, so that what the system is
  // asked for and the shape of the seed stay as they always were. Pinned by tls_setup_start_test.cpp,
  // TheProcessIdIsAskedForAndNotPartOfTheSeed.
  const pid_t pid = getpid();
  ULONG moment[3] = {};
  moment[0] = with_pid ? static_cast<ULONG>(pid) : 0;
  moment[1] = static_cast<ULONG>(time(nullptr));
  moment[2] = static_cast<ULONG>(reinterpret_cast<std::uintptr_t>(moment));
  RAND_seed(moment, sizeof moment);
}

// ---- Descriptors -------------------------------------------------------------------------------------------

namespace {

/// The end of the connection is not flagged as such (BIO_eof(3)): OpenSSL 3 would make a protocol error of one that
/// comes without a close notification. Unflagged it is SSL_ERROR_SYSCALL with an empty error queue, as it always was.
int read_at_once(BIO* bio, char* bytes, int count) {
  int fd = -1;
  BIO_get_fd(bio, &fd);
  BIO_clear_retry_flags(bio);
  errno = 0;
  const auto received = static_cast<int>(recv(fd, bytes, static_cast<std::size_t>(count), MSG_DONTWAIT));
  if (received == -1 && BIO_sock_should_retry(received) != 0) BIO_set_retry_read(bio);
  return received;
}

int write_with(BIO* bio, const char* bytes, int count, int flags) {
  int fd = -1;
  BIO_get_fd(bio, &fd);
  BIO_clear_retry_flags(bio);
  errno = 0;
  const auto sent = static_cast<int>(send(fd, bytes, static_cast<std::size_t>(count), MSG_NOSIGNAL | flags));
  if (sent == -1 && BIO_sock_should_retry(sent) != 0) BIO_set_retry_write(bio);
  return sent;
}

int write_at_once(BIO* bio, const char* bytes, int count) {
  return write_with(bio, bytes, count, MSG_DONTWAIT);
}
int write_waiting(BIO* bio, const char* bytes, int count) { return write_with(bio, bytes, count, 0); }

/// OpenSSL's own socket BIO but for the two transfers.
BIO_METHOD* make_method(int (*write)(BIO*, const char*, int)) {
  BIO_METHOD* const method = BIO_meth_new(BIO_TYPE_SOCKET, "socket");
  if (method == nullptr) return nullptr;
  const BIO_METHOD* const plain = BIO_s_socket();
  BIO_meth_set_create(method, BIO_meth_get_create(plain));
  BIO_meth_set_destroy(method, BIO_meth_get_destroy(plain));
  BIO_meth_set_ctrl(method, BIO_meth_get_ctrl(plain));
  BIO_meth_set_read(method, read_at_once);
  BIO_meth_set_write(method, write);
  return method;
}

}  // namespace

BIO* new_session_bio(int fd, SessionWrites writes) {
  // Never freed: sessions may outlive whatever would free them.
  static BIO_METHOD* const at_once = make_method(write_at_once);
  static BIO_METHOD* const waiting = make_method(write_waiting);
  BIO_METHOD* const method = writes == SessionWrites::kWait ? waiting : at_once;
  BIO* const bio = method != nullptr ? BIO_new(method) : nullptr;
  if (bio != nullptr) BIO_set_fd(bio, fd, BIO_NOCLOSE);
  return bio;
}

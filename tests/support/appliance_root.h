/// The appliance's own directory for tests: certificates stand at fixed places under "/Korvantel/", which no other machine
/// has.
///
///     TEST_F(SecureSocketServer, ...) {
///       OSKERNEL_IN_NETWORK_NAMESPACE();        // a mount namespace of the test's own
///       ApplianceRoot root;
///       root.put_primary(files.of(TlsFiles::kServer));
///       ...
///     }
///
/// Only inside OSKERNEL_IN_NETWORK_NAMESPACE(). The directory cannot be made where "/" is read-only, and should not be
/// where it is not: so the test gets another root. That is an empty file system in memory, into which everything that
/// stands in "/" is bound by its name, and "/Korvantel" beside it. Works for root and inside a user namespace; it needs
/// no overlay, which not every container allows. Nothing outside sees any of it, and it ends with the test's process.
#ifndef OSKERNEL_TESTS_APPLIANCE_ROOT_H
#define OSKERNEL_TESTS_APPLIANCE_ROOT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "net_namespace.h"
#include "tls_files.h"

namespace oskernel_test {

class ApplianceRoot {
 public:
  static constexpr char kPrimaryCert[] = "/Korvantel/Web/prov/ldaps.cer";
  static constexpr char kPrimaryKey[] = "/Korvantel/Web/prov/ldaps.key";
  static constexpr char kFallbackCert[] = "/Korvantel/certs/RN4400.cer";
  static constexpr char kFallbackKey[] = "/Korvantel/certs/RN4400.key";
  static constexpr char kFallbackCa[] = "/Korvantel/certs/KorvantelCA.cer";

  /// The test's process has the new root from now on, with the empty directories. Once in a process.
  ApplianceRoot() {
    if (!inside_network_namespace()) {
      ADD_FAILURE() << "only in namespaces of the test's own";
      return;
    }
    const std::string problem = change_root();
    if (!problem.empty()) {
      ADD_FAILURE() << "cannot make another root: " << problem;
      return;
    }
    std::filesystem::create_directories("/Korvantel/Web/prov");
    std::filesystem::create_directories("/Korvantel/certs");
  }
  ApplianceRoot(const ApplianceRoot&) = delete;
  ApplianceRoot& operator=(const ApplianceRoot&) = delete;

  void put_primary(const TlsFiles::Set& set) const {
    put(set.cert, kPrimaryCert);
    put(set.key, kPrimaryKey);
  }
  void put_fallback(const TlsFiles::Set& set, const std::string& ca) const {
    put(set.cert, kFallbackCert);
    put(set.key, kFallbackKey);
    put(ca, kFallbackCa);
  }
  void put(const std::string& from, const std::string& to) const {
    std::error_code error;
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing, error);
    EXPECT_FALSE(error) << from << " to " << to << ": " << error.message();
  }
  void remove(const std::string& path) const { unlink(path.c_str()); }

 private:
  static std::string failure(const std::string& what) { return what + ": " + std::strerror(errno); }

  /// Empty when it is done.
  static std::string change_root() {
    namespace fs = std::filesystem;
    std::error_code ignored;
    const fs::path before = fs::current_path(ignored);
    std::string root = (fs::temp_directory_path() / "oskernel-root-XXXXXX").string();
    if (mkdtemp(root.data()) == nullptr) return failure(root);
    if (mount("tmpfs", root.c_str(), "tmpfs", 0, "mode=755") != 0) return failure("mount of " + root);
    for (const fs::directory_entry& entry : fs::directory_iterator("/", ignored)) {
      const std::string name = entry.path().filename().string(), copy = root + "/" + name;
      if (name == "Korvantel") continue;
      if (entry.is_symlink(ignored)) {
        fs::copy_symlink(entry.path(), copy, ignored);
      } else if (entry.is_directory(ignored)) {
        ::mkdir(copy.c_str(), 0755);
        if (mount(entry.path().c_str(), copy.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
          return failure("bind of /" + name);
        }
      } else if (entry.is_regular_file(ignored)) {
        ::close(::open(copy.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        mount(entry.path().c_str(), copy.c_str(), nullptr, MS_BIND, nullptr);
      }
    }
    // The old root goes below the new one and then away, so that nothing is mounted any more where the new one was made.
    const std::string old_name = "/.outside";
    ::mkdir((root + old_name).c_str(), 0755);
    if (::syscall(SYS_pivot_root, root.c_str(), (root + old_name).c_str()) == 0) {
      if (chdir("/") != 0) return failure("chdir");
      umount2(old_name.c_str(), MNT_DETACH);
      umount2(root.c_str(), MNT_DETACH);  // the directory around it was bound with what was mounted in it
      ::rmdir(root.c_str());
    } else if (chroot(root.c_str()) != 0 || chdir("/") != 0) {
      return failure("chroot to " + root);
    }
    if (!before.empty()) fs::current_path(before, ignored);
    return {};
  }
};

}  // namespace oskernel_test

#endif

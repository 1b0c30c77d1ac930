#include "platform/TrustAnchors.h"

#include "platform/Container.h"

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>

#include <openssl/pem.h>
#include <sys/stat.h>

namespace florvane {

namespace {

constexpr char kTrustedCertificatesFolder[] = "Trusted Certificates";
constexpr std::uintmax_t kLargestTrustFile = std::uintmax_t{1024} * 1024;
constexpr int kMostTrustFiles = 1000;

std::string environment(const char* name, const char* otherwise) {
  const char* value = secure_getenv(name);
  return value ? value : otherwise;
}

// What a loaded store depends on. The folder's certificates are looked up by hash at each use and need no reload.
struct AnchorsKey {
  std::string file, folder;
  std::int64_t modified = 0, size = 0;

  static AnchorsKey now() {
    AnchorsKey key;
    key.file = environment(X509_get_default_cert_file_env(), X509_get_default_cert_file());
    key.folder = environment(X509_get_default_cert_dir_env(), X509_get_default_cert_dir());
    struct stat status = {};
    if (stat(key.file.c_str(), &status) == 0) {
      key.modified = status.st_mtim.tv_sec * 1'000'000'000 + status.st_mtim.tv_nsec;
      key.size = status.st_size;
    }
    return key;
  }
  friend bool operator==(const AnchorsKey&, const AnchorsKey&) = default;
};

bool fileHolds(const std::filesystem::path& path, const Data& certificate) {
  std::unique_ptr<BIO, decltype(&BIO_free)> file(BIO_new_file(path.c_str(), "r"), &BIO_free);
  if (!file) return false;
  for (;;) {
    std::unique_ptr<X509, decltype(&X509_free)> candidate(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr),
                                                          &X509_free);
    if (!candidate) return false;
    unsigned char* der = nullptr;
    int size = i2d_X509(candidate.get(), &der);
    if (size <= 0) continue;
    bool same = certificate.view() == std::string_view(reinterpret_cast<char*>(der), static_cast<std::size_t>(size));
    OPENSSL_free(der);
    if (same) return true;
  }
}

}  // namespace

std::shared_ptr<X509_STORE> systemTrustAnchors() {
  static auto& mutex = *new std::mutex;  // guards the two below; never destroyed, threads may outlive main()
  static auto& loadedKey = *new AnchorsKey;
  static auto& loaded = *new std::shared_ptr<X509_STORE>;
  std::lock_guard lock(mutex);
  AnchorsKey key = AnchorsKey::now();
  if (loaded && key == loadedKey) return loaded;
  std::shared_ptr<X509_STORE> store(X509_STORE_new(), &X509_STORE_free);
  // Either may be missing: a system without anchors trusts nobody.
  if (!store || X509_STORE_set_default_paths(store.get()) != 1) return nullptr;
  loadedKey = std::move(key);
  loaded = store;
  return store;
}

bool isTrustedByUser(const Data& certificate) {
  auto container = Container::directory();
  if (!container) return false;
  std::error_code error;
  int count = 0;
  std::filesystem::directory_iterator entry(*container + "/" + kTrustedCertificatesFolder, error), end;
  for (; !error && entry != end && count < kMostTrustFiles; entry.increment(error), ++count) {
    std::error_code unreadable;
    if (!entry->is_regular_file(unreadable) || entry->file_size(unreadable) > kLargestTrustFile) continue;
    if (fileHolds(entry->path(), certificate)) return true;
  }
  return false;
}

}  // namespace florvane

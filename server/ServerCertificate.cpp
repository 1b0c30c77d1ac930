#include "server/ServerCertificate.h"

#include "platform/Crypto.h"
#include "platform/FileSystem.h"
#include "server/StateDirectory.h"

#include <memory>

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace florvane {

namespace {

template <auto Free>
struct Freeing {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};
using Bio = std::unique_ptr<BIO, Freeing<BIO_free_all>>;
using PrivateKey = std::unique_ptr<EVP_PKEY, Freeing<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freeing<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Freeing<X509_EXTENSION_free>>;

Failure failure(const std::string& sentence) {
  ERR_clear_error();
  return Failure(serverError(ServerErrorCode::Certificate, sentence));
}

Data contents(BIO* bio) {
  char* bytes = nullptr;
  long size = BIO_get_mem_data(bio, &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}

bool addExtension(X509* certificate, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  Extension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
  return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

std::string alternativeNames(const std::string& host) {
  std::string names = "DNS:localhost,IP:127.0.0.1,IP:::1";
  if (host == "localhost" || host == "127.0.0.1" || host == "::1" || host.empty()) return names;
  std::unique_ptr<ASN1_OCTET_STRING, Freeing<ASN1_OCTET_STRING_free>> address(a2i_IPADDRESS(host.c_str()));
  return names + (address ? ",IP:" : ",DNS:") + host;
}

Certificate makeSelfSigned(EVP_PKEY* key, const std::string& host) {
  auto serial = randomBytes(16);
  Certificate certificate(X509_new());
  if (!serial || !certificate) return nullptr;
  std::unique_ptr<BIGNUM, Freeing<BN_free>> number(BN_bin2bn(serial->bytes(), 16, nullptr));
  BN_clear_bit(number.get(), 127);  // a serial number is positive
  constexpr long kTenYears = 3652L * 24 * 60 * 60;
  X509_NAME* name = X509_get_subject_name(certificate.get());
  bool made = BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate.get())) &&
              X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
              // An hour back, for clients whose clock is a little behind.
              X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600) &&
              X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kTenYears) &&
              X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                         reinterpret_cast<const unsigned char*>("Florvane server"), -1, -1, 0) == 1 &&
              X509_set_issuer_name(certificate.get(), name) == 1 && X509_set_pubkey(certificate.get(), key) == 1 &&
              addExtension(certificate.get(), NID_subject_alt_name, alternativeNames(host)) &&
              addExtension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE") &&
              addExtension(certificate.get(), NID_key_usage, "critical,digitalSignature") &&
              addExtension(certificate.get(), NID_ext_key_usage, "serverAuth") &&
              X509_sign(certificate.get(), key, EVP_sha256()) > 0;
  return made ? std::move(certificate) : nullptr;
}

Result<void> make(const std::string& certificatePath, const std::string& keyPath, const std::string& host) {
  PrivateKey key(EVP_EC_gen("P-256"));
  Certificate certificate = key ? makeSelfSigned(key.get(), host) : nullptr;
  Bio keyText(BIO_new(BIO_s_mem())), certificateText(BIO_new(BIO_s_mem()));
  if (!certificate || PEM_write_bio_PrivateKey(keyText.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1 ||
      PEM_write_bio_X509(certificateText.get(), certificate.get()) != 1) {
    return failure("A certificate for \"" + host + "\" could not be made.");
  }
  // The key first: a certificate without its key could not be told from one whose key was lost.
  auto written = writeFileAtomically(keyPath, contents(keyText.get()), 0600, true);
  if (!written) return written;
  return writeFileAtomically(certificatePath, contents(certificateText.get()), 0644, true);
}

}  // namespace

Result<ServerCertificate> ServerCertificate::load(const std::string& certificatePath, const std::string& keyPath) {
  Bio certificateFile(BIO_new_file(certificatePath.c_str(), "r")), keyFile(BIO_new_file(keyPath.c_str(), "r"));
  if (!certificateFile) return failure("The certificate file " + certificatePath + " cannot be read.");
  if (!keyFile) return failure("The key file " + keyPath + " cannot be read.");
  Certificate leaf(PEM_read_bio_X509(certificateFile.get(), nullptr, nullptr, nullptr));
  if (!leaf) return failure("The file " + certificatePath + " holds no certificate in PEM form.");
  // A daemon has nobody to ask for a passphrase.
  auto noPassphrase = [](char*, int, int, void*) { return -1; };
  PrivateKey key(PEM_read_bio_PrivateKey(keyFile.get(), nullptr, noPassphrase, nullptr));
  if (!key) return failure("The file " + keyPath + " holds no private key in PEM form without a passphrase.");
  if (X509_check_private_key(leaf.get(), key.get()) != 1) {
    return failure("The key in " + keyPath + " does not belong to the certificate in " + certificatePath + ".");
  }
  Bio der(BIO_new(BIO_s_mem()));
  if (i2d_X509_bio(der.get(), leaf.get()) != 1)
    return failure("The certificate in " + certificatePath + " is damaged.");
  return ServerCertificate{certificatePath, keyPath, contents(der.get())};
}

Result<ServerCertificate> ServerCertificate::loadOrMake(const std::string& certificatePath, const std::string& keyPath,
                                                        const std::string& host) {
  // A key alone is what a kill between the two writes leaves; nobody can have pinned its certificate.
  if (!fileExists(certificatePath)) {
    if (auto made = make(certificatePath, keyPath, host); !made) return Failure(made.error());
  }
  return load(certificatePath, keyPath);
}

}  // namespace florvane

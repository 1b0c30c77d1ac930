#include "tests/support/Certificates.h"

#include <stdexcept>

#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

namespace florvane::test {

namespace {

void require(bool condition) {
  if (!condition) throw std::runtime_error("a test certificate cannot be made");
}

void addExtension(X509* certificate, int identifier, const std::string& value) {
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, identifier, value.c_str());
  require(extension != nullptr);
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

}  // namespace

Data Certificate::der() const {
  unsigned char* bytes = nullptr;
  int size = i2d_X509(certificate.get(), &bytes);
  require(size > 0);
  Data data(bytes, static_cast<std::size_t>(size));
  OPENSSL_free(bytes);
  return data;
}

std::string Certificate::pem() const {
  std::unique_ptr<BIO, decltype(&BIO_free)> memory(BIO_new(BIO_s_mem()), &BIO_free);
  require(memory && PEM_write_bio_X509(memory.get(), certificate.get()) == 1);
  char* text = nullptr;
  long size = BIO_get_mem_data(memory.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

Certificate makeCertificate(const CertificateOptions& options) {
  Certificate made{{EVP_EC_gen("P-256"), &EVP_PKEY_free}, {X509_new(), &X509_free}};
  require(made.key && made.certificate);
  X509* certificate = made.certificate.get();
  X509_set_version(certificate, X509_VERSION_3);
  std::uint32_t serial = 0;
  require(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1);
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate), options.validFromSeconds);
  X509_gmtime_adj(X509_getm_notAfter(certificate), options.validUntilSeconds);
  X509_set_pubkey(certificate, made.key.get());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(options.commonName.c_str()), -1, -1, 0);
  const Certificate& issuer = options.issuer ? *options.issuer : made;
  X509_set_issuer_name(certificate, X509_get_subject_name(issuer.certificate.get()));
  addExtension(certificate, NID_basic_constraints, options.authority ? "critical,CA:TRUE" : "CA:FALSE");
  std::string names;
  for (const auto& name : options.alternativeNames) names += (names.empty() ? "" : ",") + name;
  if (!names.empty()) addExtension(certificate, NID_subject_alt_name, names);
  require(X509_sign(certificate, issuer.key.get(), EVP_sha256()) > 0);
  return made;
}

Certificate readCertificate(const std::string& certificatePath, const std::string& keyPath) {
  using File = std::unique_ptr<BIO, decltype(&BIO_free)>;
  const File certificate(BIO_new_file(certificatePath.c_str(), "r"), &BIO_free);
  const File key(BIO_new_file(keyPath.c_str(), "r"), &BIO_free);
  require(certificate && key);
  Certificate read{{PEM_read_bio_PrivateKey(key.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free},
                   {PEM_read_bio_X509(certificate.get(), nullptr, nullptr, nullptr), &X509_free}};
  require(read.key && read.certificate);
  return read;
}

}  // namespace florvane::test

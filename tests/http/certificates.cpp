#include "tests/http/certificates.hpp"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace vision::test {
namespace {

X509* make_certificate(EVP_PKEY* subject_key, const std::string& name, bool authority, long valid_s, X509* issuer,
                       EVP_PKEY* issuer_key) {
  static long serial = 0;
  X509* const certificate = ::X509_new();
  ::X509_set_version(certificate, 2);
  ::ASN1_INTEGER_set(::X509_get_serialNumber(certificate), ++serial);
  ::X509_gmtime_adj(::X509_getm_notBefore(certificate), -86400);
  ::X509_gmtime_adj(::X509_getm_notAfter(certificate), valid_s);
  ::X509_set_pubkey(certificate, subject_key);
  ::X509_NAME_add_entry_by_txt(::X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
  ::X509_set_issuer_name(certificate, ::X509_get_subject_name(issuer ? issuer : certificate));
  const std::string value = authority ? "critical,CA:TRUE" : "DNS:" + name;
  X509_EXTENSION* const extension =
      ::X509V3_EXT_conf_nid(nullptr, nullptr, authority ? NID_basic_constraints : NID_subject_alt_name, value.c_str());
  ::X509_add_ext(certificate, extension, -1);
  ::X509_EXTENSION_free(extension);
  ::X509_sign(certificate, issuer_key, ::EVP_sha256());
  return certificate;
}

}  // namespace

Authority::Authority(const std::string& name)
    : key_(EVP_EC_gen("P-256")), certificate_(make_certificate(key_, name, true, 3600, nullptr, key_)) {}

Authority::~Authority() {
  ::X509_free(certificate_);
  ::EVP_PKEY_free(key_);
}

std::string Authority::pem() const {
  BIO* const memory = ::BIO_new(::BIO_s_mem());
  ::PEM_write_bio_X509(memory, certificate_);
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory, &text);
  const std::string pem(text, static_cast<std::size_t>(size));
  ::BIO_free(memory);
  return pem;
}

boost::asio::ssl::context Authority::server(const std::string& host, long valid_s, bool self_signed) const {
  boost::asio::ssl::context context(boost::asio::ssl::context::tls_server);
  EVP_PKEY* const key = EVP_EC_gen("P-256");
  X509* const issuer = self_signed ? nullptr : certificate_;
  X509* const certificate = make_certificate(key, host, false, valid_s, issuer, self_signed ? key : key_);
  ::SSL_CTX_use_certificate(context.native_handle(), certificate);  // both count references
  ::SSL_CTX_use_PrivateKey(context.native_handle(), key);
  ::X509_free(certificate);
  ::EVP_PKEY_free(key);
  return context;
}

}  // namespace vision::test

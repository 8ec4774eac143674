#pragma once

#include <boost/asio/ssl.hpp>
#include <string>

namespace vision::test {

/// A certificate authority made for the test run.
class Authority {
 public:
  explicit Authority(const std::string& name);
  ~Authority();
  Authority(const Authority&) = delete;
  Authority& operator=(const Authority&) = delete;

  /// Its certificate in PEM.
  std::string pem() const;
  /// A TLS server with a certificate for the DNS name `host`, valid from a day
  /// ago until `valid_s` seconds from now, signed by the authority or by itself.
  boost::asio::ssl::context server(const std::string& host, long valid_s = 3600, bool self_signed = false) const;

 private:
  EVP_PKEY* key_;
  X509* certificate_;
};

}  // namespace vision::test

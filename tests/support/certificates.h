// Certificates for TLS tests, made by the openssl command.
#ifndef TESTS_SUPPORT_CERTIFICATES_H_
#define TESTS_SUPPORT_CERTIFICATES_H_

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "support/temp_dir.h"

namespace test {

// An authority, and the certificates that it signs. The files are gone with the object.
class Authority {
 public:
  Authority() {
    run("openssl req -x509 " + kNewKey + " -keyout " + key("ca") + " -out " + file() +
        " -subj /CN=authority -days 2");
  }

  std::string file() const { return certificate("ca"); }
  std::string certificate(const std::string& name) const { return dir_.file(name + ".crt"); }
  std::string key(const std::string& name) const { return dir_.file(name + ".key"); }

  // Signs a certificate for the numeric address. It has expired already if `days` is negative.
  void sign(const std::string& name, const std::string& address, int days = 2) const {
    const std::string request = dir_.file(name + ".csr");
    const std::string extensions = dir_.file(name + ".ext");
    write_file(extensions, "subjectAltName=IP:" + address + "\n");
    run("openssl req " + kNewKey + " -keyout " + key(name) + " -out " + request +
        " -subj /CN=" + name);
    run("openssl x509 -req -in " + request + " -CA " + file() + " -CAkey " + key("ca") +
        " -CAcreateserial -extfile " + extensions + " -days " + std::to_string(days) + " -out " +
        certificate(name));
  }

 private:
  inline static const std::string kNewKey =
      "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";

  static void run(const std::string& command) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0) {
      throw std::runtime_error(command);
    }
  }

  const TempDir dir_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_CERTIFICATES_H_

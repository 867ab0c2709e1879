// Certificates for TLS tests, made with the openssl command in a temporary
// directory: a test CA, a server certificate it signs for mx.kemail.test and
// 127.0.0.1, and a second CA that signed nothing.
#pragma once

#include "support/temp_dir.h"

#include <cstdlib>
#include <string>

namespace tls_test {

class TestPki {
public:
    TestPki() {
        const std::string d = dir_.path();
        const std::string script =
            "set -e; cd '" + d +
            "'; "
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 "
            "  -subj /CN=kemail-test-ca -keyout ca.key -out ca.pem; "
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 "
            "  -subj /CN=other-ca -keyout other.key -out other-ca.pem; "
            "openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
            "  -subj /CN=mx.kemail.test -keyout server.key -out server.csr; "
            "printf 'subjectAltName=DNS:mx.kemail.test,IP:127.0.0.1\\n' > san.ext; "
            "openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial "
            "  -days 2 -extfile san.ext -out server.pem";
        const std::string command = "sh -c \"" + script + "\" >/dev/null 2>&1";
        ok_ = std::system(command.c_str()) == 0;
    }
    bool ok() const { return ok_; }
    std::string ca() const { return dir_.file("ca.pem"); }
    std::string other_ca() const { return dir_.file("other-ca.pem"); }
    std::string server_cert() const { return dir_.file("server.pem"); }
    std::string server_key() const { return dir_.file("server.key"); }

private:
    kemail_test::TempDir dir_;
    bool ok_ = false;
};

}  // namespace tls_test

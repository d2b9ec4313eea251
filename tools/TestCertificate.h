#pragma once

#include <string>

namespace vantor::tools
{

// A self-signed P-256 certificate for 127.0.0.1 and localhost, made with
// OpenSSL at run time so that no key material is ever committed. The
// certificate is its own CA: clients trust it by naming certPath as their
// CA file.
struct TestCertificate
{
    std::string certPath;      // PEM certificate (also the CA file)
    std::string keyPath;       // PEM private key
    std::string publicKeyPath; // PEM public key (response signatures)

    // Writes <name>.crt, <name>.key and <name>.pub into directory.
    // Throws std::runtime_error on failure.
    static TestCertificate Create(const std::string& directory, const std::string& name = "receiver");
};

} // namespace vantor::tools

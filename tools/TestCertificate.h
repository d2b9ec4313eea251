#pragma once

#include <string>
#include <string_view>

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

    // A certificate for host alone, issued by this one: a client that trusts
    // this certificate accepts its chain and can refuse only its name.
    // Throws std::runtime_error on failure.
    TestCertificate IssueFor(const std::string& directory, const std::string& name,
                             const std::string& host) const;

    // The base64 SHA-256 signature of body with the private key, as the
    // back end signs its answers; empty when the key cannot be used.
    std::string Sign(std::string_view body) const;
};

} // namespace vantor::tools

#include "tools/TestCertificate.h"

#include "common/util/Base64.h"
#include "common/util/Digest.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace vantor::tools
{
namespace
{

template <typename T, void (*Free)(T*)>
struct Deleter
{
    void operator()(T* p) const { Free(p); }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using Cert = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION, X509_EXTENSION_free>>;

void Check(bool ok, const char* what)
{
    if (!ok)
    {
        throw std::runtime_error(std::string("TestCertificate: ") + what);
    }
}

void AddExtension(X509* cert, X509V3_CTX& ctx, int nid, const char* value)
{
    Extension ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
    Check(ext && X509_add_ext(cert, ext.get(), -1) == 1, "cannot add extension");
}

template <typename Writer>
void WritePem(const std::string& path, Writer&& write)
{
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "we"), &std::fclose);
    Check(file != nullptr, "cannot create PEM file");
    Check(write(file.get()) == 1, "cannot write PEM file");
}

// A certificate for the names in san, signed by issuer (self-signed when
// issuer is null); only a self-signed one is a CA.
Cert MakeCert(EVP_PKEY* key, const char* commonName, const char* san, X509* issuer, EVP_PKEY* issuerKey)
{
    Cert cert(X509_new());
    Check(cert != nullptr, "X509_new failed");
    X509_set_version(cert.get(), 2);
    unsigned char serial[8];
    Check(RAND_bytes(serial, sizeof serial) == 1, "no random serial");
    serial[0] &= 0x7f;
    BIGNUM* bn = BN_bin2bn(serial, sizeof serial, nullptr);
    Check(bn != nullptr && BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert.get())) != nullptr, "serial");
    BN_free(bn);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 2 * 24 * 3600);
    X509_NAME* subject = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
    Check(X509_set_issuer_name(cert.get(), issuer != nullptr ? X509_get_subject_name(issuer) : subject) == 1,
          "X509_set_issuer_name failed");
    Check(X509_set_pubkey(cert.get(), key) == 1, "X509_set_pubkey failed");
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer != nullptr ? issuer : cert.get(), cert.get(), nullptr, nullptr, 0);
    const bool ca = issuer == nullptr;
    AddExtension(cert.get(), ctx, NID_basic_constraints, ca ? "critical,CA:TRUE" : "critical,CA:FALSE");
    AddExtension(cert.get(), ctx, NID_key_usage,
                 ca ? "critical,digitalSignature,keyCertSign" : "critical,digitalSignature");
    AddExtension(cert.get(), ctx, NID_subject_key_identifier, "hash");
    AddExtension(cert.get(), ctx, NID_subject_alt_name, san);
    Check(X509_sign(cert.get(), issuerKey != nullptr ? issuerKey : key, EVP_sha256()) > 0,
          "X509_sign failed");
    return cert;
}

TestCertificate Write(const std::string& directory, const std::string& name, X509* cert, EVP_PKEY* key)
{
    TestCertificate result;
    result.certPath = directory + "/" + name + ".crt";
    result.keyPath = directory + "/" + name + ".key";
    result.publicKeyPath = directory + "/" + name + ".pub";
    WritePem(result.certPath, [&](FILE* f) { return PEM_write_X509(f, cert); });
    WritePem(result.keyPath,
             [&](FILE* f) { return PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr); });
    WritePem(result.publicKeyPath, [&](FILE* f) { return PEM_write_PUBKEY(f, key); });
    return result;
}

Key ReadKey(const std::string& path)
{
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "re"), &std::fclose);
    return Key(file ? PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr) : nullptr);
}

} // namespace

TestCertificate TestCertificate::Create(const std::string& directory, const std::string& name)
{
    Key key(EVP_EC_gen("P-256"));
    Check(key != nullptr, "key generation failed");
    const Cert cert = MakeCert(key.get(), "localhost", "IP:127.0.0.1,DNS:localhost", nullptr, nullptr);
    return Write(directory, name, cert.get(), key.get());
}

TestCertificate TestCertificate::IssueFor(const std::string& directory, const std::string& name,
                                          const std::string& host) const
{
    const Key issuerKey = ReadKey(keyPath);
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(certPath.c_str(), "re"), &std::fclose);
    const Cert issuer(file ? PEM_read_X509(file.get(), nullptr, nullptr, nullptr) : nullptr);
    Check(issuerKey != nullptr && issuer != nullptr, "cannot read the issuing certificate");
    Key key(EVP_EC_gen("P-256"));
    Check(key != nullptr, "key generation failed");
    const Cert cert =
        MakeCert(key.get(), host.c_str(), ("DNS:" + host).c_str(), issuer.get(), issuerKey.get());
    return Write(directory, name, cert.get(), key.get());
}

std::string TestCertificate::Sign(std::string_view body) const
{
    const Key key = ReadKey(keyPath);
    const util::Digest::Context ctx = util::Digest::NewContext();
    size_t length = 0;
    const auto* data = reinterpret_cast<const unsigned char*>(body.data());
    if (!key || EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
        EVP_DigestSign(ctx.get(), nullptr, &length, data, body.size()) != 1)
    {
        return {};
    }
    std::string signature(length, '\0');
    if (EVP_DigestSign(ctx.get(), reinterpret_cast<unsigned char*>(signature.data()), &length, data,
                       body.size()) != 1)
    {
        return {};
    }
    signature.resize(length);
    return util::Base64Encode(signature);
}

} // namespace vantor::tools

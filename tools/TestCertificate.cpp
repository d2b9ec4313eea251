#include "tools/TestCertificate.h"

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

void AddExtension(X509* cert, int nid, const char* value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
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

} // namespace

TestCertificate TestCertificate::Create(const std::string& directory, const std::string& name)
{
    Key key(EVP_EC_gen("P-256"));
    Check(key != nullptr, "key generation failed");
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
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(cert.get(), subject);
    Check(X509_set_pubkey(cert.get(), key.get()) == 1, "X509_set_pubkey failed");
    AddExtension(cert.get(), NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(cert.get(), NID_key_usage, "critical,digitalSignature,keyCertSign");
    AddExtension(cert.get(), NID_subject_key_identifier, "hash");
    AddExtension(cert.get(), NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    Check(X509_sign(cert.get(), key.get(), EVP_sha256()) > 0, "X509_sign failed");

    TestCertificate result;
    result.certPath = directory + "/" + name + ".crt";
    result.keyPath = directory + "/" + name + ".key";
    result.publicKeyPath = directory + "/" + name + ".pub";
    WritePem(result.certPath, [&](FILE* f) { return PEM_write_X509(f, cert.get()); });
    WritePem(result.keyPath, [&](FILE* f)
             { return PEM_write_PrivateKey(f, key.get(), nullptr, nullptr, 0, nullptr, nullptr); });
    WritePem(result.publicKeyPath, [&](FILE* f) { return PEM_write_PUBKEY(f, key.get()); });
    return result;
}

} // namespace vantor::tools

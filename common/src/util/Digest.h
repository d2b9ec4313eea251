#pragma once

#include <openssl/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vantor::util
{

// A message digest computed piece by piece through OpenSSL's EVP interface,
// with the one-shot forms for a buffer and for a file. Digests in text form
// are lower-case hexadecimal. Failures throw std::runtime_error (a file
// that cannot be read: common::FileReadException, which is one).
//
// One object is used by one thread at a time; the static forms are
// thread-safe.
class Digest
{
public:
    enum class Algorithm
    {
        Md5,
        Sha1,
        Sha256
    };

    struct ContextFree
    {
        void operator()(EVP_MD_CTX* context) const;
    };
    // An EVP message-digest context, also for signing and verifying.
    using Context = std::unique_ptr<EVP_MD_CTX, ContextFree>;

    // Throws std::runtime_error when OpenSSL cannot allocate one.
    static Context NewContext();

    explicit Digest(Algorithm algorithm);

    void Update(std::string_view data);
    // The raw digest. Afterwards the object takes no more data.
    std::string Finish();
    std::string FinishHex();

    // Lower-case hexadecimal form of any bytes.
    static std::string Hex(std::string_view bytes);

    static std::string HexOf(Algorithm algorithm, std::string_view data);
    // Digest of a regular file's content (symbolic links followed), read in
    // bounded pieces; a file larger than maxSize, when opened or while read,
    // is refused.
    static std::string HexOfFile(Algorithm algorithm, const std::string& path, std::uint64_t maxSize);

private:
    Context m_context;
    bool m_finished = false;
};

} // namespace vantor::util

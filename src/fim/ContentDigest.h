#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <memory>
#include <string>

namespace vantor::fim::internal
{

// SHA-256 of content fed in pieces, as lower-case hex. The only place FIM
// computes a digest, so that moving to a shared digest helper touches this
// class alone.
//
// A digest that could not be set up, or whose update failed, is unusable:
// IsValid() turns false and Finish() answers an empty string.
//
// Not thread-safe; one object per file read.
class ContentDigest
{
public:
    ContentDigest();
    ~ContentDigest();

    ContentDigest(const ContentDigest&) = delete;
    ContentDigest& operator=(const ContentDigest&) = delete;

    bool IsValid() const { return m_context != nullptr; }

    void Update(const void* data, size_t size);

    // The digest of everything fed so far; the object is unusable afterwards.
    std::string Finish();

private:
    struct ContextFree
    {
        void operator()(EVP_MD_CTX* context) const;
    };

    std::unique_ptr<EVP_MD_CTX, ContextFree> m_context;
};

} // namespace vantor::fim::internal

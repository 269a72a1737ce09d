// The library's own OpenSSL library context and small RAII wrappers. Private to the library.
#pragma once

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <memory>

namespace QZ::OpenSSL {

// A library context of the library's own, with the "default" and "legacy" providers loaded
// into it: the host application's global providers and configuration are never touched. Made
// on first use; null when not even the default provider could be loaded.
OSSL_LIB_CTX *libraryContext();

// Keeps the calling thread's OpenSSL error queue as the caller left it: errors raised while it
// lives are dropped when it goes.
class ErrorQueueGuard
{
public:
    ErrorQueueGuard() { ERR_set_mark(); }
    ~ErrorQueueGuard() { ERR_pop_to_mark(); }
    ErrorQueueGuard(const ErrorQueueGuard &) = delete;
    ErrorQueueGuard &operator=(const ErrorQueueGuard &) = delete;
};

template<typename T, void (*Free)(T *)>
struct Deleter {
    void operator()(T *p) const { Free(p); }
};

using Cipher = std::unique_ptr<EVP_CIPHER, Deleter<EVP_CIPHER, EVP_CIPHER_free>>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>>;
using PKey = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using PKeyContext = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using BigNumber = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>>;
using ParamBuilder = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM, OSSL_PARAM_free>>;

inline void freeBio(BIO *bio) { BIO_free(bio); }
using Bio = std::unique_ptr<BIO, Deleter<BIO, freeBio>>;

} // namespace QZ::OpenSSL

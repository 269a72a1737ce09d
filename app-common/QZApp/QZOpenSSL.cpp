#include "QZOpenSSL.h"

#include <openssl/provider.h>

namespace {

// The context and its two providers, unloaded and freed when the library goes (before OpenSSL's
// own clean-up at exit, which was registered before this object was complete).
class LibraryContext
{
public:
    LibraryContext()
    {
        const QZ::OpenSSL::ErrorQueueGuard guard;
        m_context = OSSL_LIB_CTX_new();
        if (!m_context)
            return;
        m_default = OSSL_PROVIDER_load(m_context, "default");
        // DES, DESX, RC2, RC4, Blowfish and CAST5 live here; without it they cannot be fetched.
        m_legacy = OSSL_PROVIDER_load(m_context, "legacy");
    }
    ~LibraryContext()
    {
        if (m_legacy)
            OSSL_PROVIDER_unload(m_legacy);
        if (m_default)
            OSSL_PROVIDER_unload(m_default);
        OSSL_LIB_CTX_free(m_context);
    }
    LibraryContext(const LibraryContext &) = delete;
    LibraryContext &operator=(const LibraryContext &) = delete;

    OSSL_LIB_CTX *usable() const { return m_default ? m_context : nullptr; }

private:
    OSSL_LIB_CTX *m_context = nullptr;
    OSSL_PROVIDER *m_default = nullptr;
    OSSL_PROVIDER *m_legacy = nullptr;
};

} // namespace

namespace QZ::OpenSSL {

OSSL_LIB_CTX *libraryContext()
{
    static const LibraryContext context;
    return context.usable();
}

} // namespace QZ::OpenSSL

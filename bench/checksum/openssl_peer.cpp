// OpenSSL's MD5 for the checksum benchmark.
#include "openssl_peer.h"

#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/evp.h>
#include <openssl/md5.h>

namespace vrk::bench {

void OpenSslMd5(const uint8_t* data, size_t length, uint8_t digest[16]) { MD5(data, length, digest); }

void OpenSslMd5Evp(const uint8_t* data, size_t length, uint8_t digest[16]) {
  unsigned int written = 0;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_DigestInit_ex(ctx, EVP_md5(), nullptr);
  EVP_DigestUpdate(ctx, data, length);
  EVP_DigestFinal_ex(ctx, digest, &written);
  EVP_MD_CTX_free(ctx);
}

}  // namespace vrk::bench

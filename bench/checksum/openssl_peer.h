// OpenSSL's MD5 behind plain functions: its md5.h and this library's
// vrk_checksum.h both name a record MD5_CTX, so they meet in separate files.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vrk::bench {

// MD5() of OpenSSL's low-level interface (a context on the stack).
void OpenSslMd5(const uint8_t* data, size_t length, uint8_t digest[16]);
// The EVP interface: context allocated, initialised, fed, finished, freed.
void OpenSslMd5Evp(const uint8_t* data, size_t length, uint8_t digest[16]);

}  // namespace vrk::bench

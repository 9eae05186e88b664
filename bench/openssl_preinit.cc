// A measurement aid, linked only into the benchmark's *_openssl_preinit
// variants of the program and the floor: it sets OpenSSL up before main(),
// without reading the system's OpenSSL configuration file, without loading
// the error texts and without registering every cipher and digest by name.
//
// The MariaDB client library sets OpenSSL up in mysql_library_init() (also
// when mysql_init() does that implicitly), asking for all of the above,
// although the connection to the panel's server runs over a local socket and
// never uses TLS. OpenSSL does each part of its set-up once per process, so a
// set-up without them done first makes the client library's request find them
// done. The benchmark shows what that is worth; the program itself does not
// do it (yet).
#include <openssl/crypto.h>
#include <openssl/ssl.h>

namespace {

[[gnu::constructor]] void set_up_openssl_without_configuration() {
  OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS |
                          OPENSSL_INIT_NO_ADD_ALL_CIPHERS | OPENSSL_INIT_NO_ADD_ALL_DIGESTS,
                      nullptr);
  OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_LOAD_SSL_STRINGS, nullptr);
}

}  // namespace

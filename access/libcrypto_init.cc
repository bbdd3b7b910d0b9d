// libcrypto is set up once, as the library is loaded, without its exit
// handler.
//
// OpenSSL's exit handler frees the libcrypto state of every thread. Plugin
// handler threads are detached and may still be ending when the hosting
// process leaves main; one that checked a token then frees its own state
// again as it ends: a double free at exit. Without the handler a thread's
// state goes with the thread and the rest with the process.
//
// Only the first initialisation of the process decides whether the handler
// is registered, so this runs from a load-time constructor: before main,
// and so before the hosting daemon (or a test that signs tokens) makes any
// other libcrypto call. BoringSSL has no exit handler to leave out.
#include <openssl/crypto.h>

namespace {

__attribute__((constructor)) void init_libcrypto_without_exit_handler() {
#if !defined(OPENSSL_IS_BORINGSSL)
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
#endif
}

}  // namespace

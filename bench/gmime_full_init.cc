// For the benchmark's variant autoresponder_before: GMime set up whole by
// g_mime_init(), as the program did before it set up only what its
// Content-Type parsing needs (autoresponder/gmime_handle.h). The variant is
// linked with --wrap=g_mime_parser_options_new, so the set-up runs where the
// program makes its parser options, before its first parse. Referencing
// g_mime_init() links GMime's cryptography and GIO, and with them the shared
// libraries those load, as before.
#include <gmime/gmime.h>

extern "C" {

GMimeParserOptions* __real_g_mime_parser_options_new();

GMimeParserOptions* __wrap_g_mime_parser_options_new() {
  g_mime_init();
  return __real_g_mime_parser_options_new();
}

}  // extern "C"

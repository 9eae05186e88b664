// Owners for the GMime objects the intake creates, and the part of GMime's
// set-up it needs.
//
// The intake uses GMime only to parse Content-Type field bodies (parameters,
// with their continuations, charsets and encoded words) and for the
// transfer decoders. Every GMime object we create (a parsed content type) is
// a GObject holding one reference for us; GObjectRef drops that reference
// when it goes out of scope. Objects GMime lends us (a content type's
// parameter list) are used as plain pointers and never released here.
//
// g_mime_init() is deliberately not called: it registers every GMime type
// and the encryption back-ends, and merely referencing it links GMime's
// cryptography and GIO into the program, which load gpgme, libmount and
// what those need as shared libraries at every start. What the parsing
// needs is smaller: the charset map (a parameter's declared charset is
// converted through it) and a set of parser options, passed to every parse,
// since the library's defaults for null options exist only after
// g_mime_init(). Both are made once per process and kept until it ends.
#pragma once

#include <gmime/gmime.h>

#include <memory>

struct GObjectUnref {
  void operator()(gpointer object) const noexcept {
    if (object != nullptr) g_object_unref(object);
  }
};

template <typename T>
using GObjectRef = std::unique_ptr<T, GObjectUnref>;

// The parser options for every Content-Type parse, with the library's
// default settings; the first call sets up the charset map.
inline GMimeParserOptions* gmime_parser_options() {
  static GMimeParserOptions* const options = [] {
    g_mime_charset_map_init();
    return g_mime_parser_options_new();
  }();
  return options;
}

// Does the set-up of gmime_parser_options() ahead of the first parse, for
// callers that want it out of the way (a fuzz target, between inputs).
inline void gmime_init_once() {
  static_cast<void>(gmime_parser_options());
}

// Owners for the GMime objects the intake reads the incoming message with.
//
// Every GMime object we create (parser, stream, message, parsed content type)
// is a GObject holding one reference for us; GObjectRef drops that reference
// when it goes out of scope. Objects GMime lends us (header lists, the parts
// of a message, a part's content) are used as plain pointers and never
// released here. gmime_init_once() initialises the library the first time
// it is called in the process; GMime never needs shutting down, since the
// process ends right after the run.
#pragma once

#include <gmime/gmime.h>

#include <memory>
#include <mutex>

struct GObjectUnref {
  void operator()(gpointer object) const noexcept {
    if (object != nullptr) g_object_unref(object);
  }
};

template <typename T>
using GObjectRef = std::unique_ptr<T, GObjectUnref>;

inline void gmime_init_once() {
  static std::once_flag initialised;
  std::call_once(initialised, [] { g_mime_init(); });
}

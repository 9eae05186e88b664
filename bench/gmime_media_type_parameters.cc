// For the benchmark's variant autoresponder_before: Content-Type parameters
// read by GMime, as the program read them before it had a reader of its own
// (autoresponder/intake/media_type.cc). Linked ahead of the program's libraries,
// this definition takes the place of theirs. It sets GMime up as far as that
// parsing needs (the charset map and a set of parser options,
// once per process, without g_mime_init()), and linking it brings GObject,
// whose type system is set up before main, and the shared libraries that
// GMime's parsing needs.
#include <gmime/gmime.h>
#include <strings.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "autoresponder/intake/media_type.h"

namespace {

GMimeParserOptions* parser_options() {
  static GMimeParserOptions* const options = [] {
    g_mime_charset_map_init();
    return g_mime_parser_options_new();
  }();
  return options;
}

struct Unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};

}  // namespace

std::optional<std::string> MediaTypeParameter(std::string_view content_type,
                                              std::string_view name) {
  const std::string field(content_type);
  const std::string wanted(name);
  const std::unique_ptr<GMimeContentType, Unref> parsed(
      g_mime_content_type_parse(parser_options(), field.c_str()));
  if (!parsed) return std::nullopt;
  GMimeParamList* params = g_mime_content_type_get_parameters(parsed.get());
  const int count = params != nullptr ? g_mime_param_list_length(params) : 0;
  for (int i = 0; i < count; ++i) {
    GMimeParam* param = g_mime_param_list_get_parameter_at(params, i);
    const char* param_name = g_mime_param_get_name(param);
    if (param_name != nullptr && strcasecmp(param_name, wanted.c_str()) == 0) {
      const char* value = g_mime_param_get_value(param);
      return value != nullptr ? value : "";
    }
  }
  return std::nullopt;
}

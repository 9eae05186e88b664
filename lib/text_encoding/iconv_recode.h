// Charset conversion through the system's iconv.
#pragma once

#include <string>

namespace orvik {

// Converts `text` from charset `from` to charset `to` (names as iconv_open
// takes them). With skipInvalid, each input byte that is invalid or cannot be
// represented becomes "?"; without it such a byte fails the call. Throws
// std::runtime_error: "Cannot convert from F to T" (unknown pair),
// "Conversion from F to T" (conversion error, also input ending inside a
// character), "Closing conversion from F to utf-8 failed".
std::string iconvRecode(const std::string& text, const std::string& from, const std::string& to,
                        bool skipInvalid);

}  // namespace orvik

// Texts of the GNU libidn result codes, in the panel library's own words.
//
// Owns nothing; the texts are constants. Cannot fail: an unknown code has a
// text of its own.
#include "lib/idn_error.h"

const char* idn_strerror(int code) {
  switch (code) {
    case 0:
      return "Success";
    case 1:
      return "Stringprep error";
    case 2:
      return "Punycode error";
    case 3:
      return "Contains non-LDH characters";
    case 4:
      return "Contains minus";
    case 5:
      return "Invalid length";
    case 6:
      return "ACE prefix not found";
    case 7:
      return "Verify error";
    case 8:
      return "ACE prefix found";
    case 9:
      return "Iconv error";
    case 201:
      return "Cannot allocate buffer";
    default:
      return "Unknown error";
  }
}

// The text of a GNU libidn result code, as the panel's library names them.
#pragma once

// A constant string for the code: "Success", "Stringprep error", ...,
// "Cannot allocate buffer" (201), "Unknown error" for any other code.
const char* idn_strerror(int code);

// Character-level helpers of the utility library.
#pragma once

// Trims in place: trailing white space is overwritten with NUL bytes, leading
// white space is skipped. Returns a pointer to the first non-blank character
// of the same buffer; the caller keeps the pointer it passed in for freeing.
char* orvik_trim(char* text);

// Small helpers of the utility library: allocation that cannot fail, SQL
// escaping, and owners for the malloc buffers the C-style library hands out.
#pragma once

#include <mysql.h>

#include <cstddef>

#include "lib/c_owners.h"

// realloc that never returns null: on failure it reports "alloc(%d)" through
// the message log with status 1, which ends the process.
void* realloc_safe(void* block, std::size_t size);

// A new buffer (release with free) holding `text` escaped for use between
// single quotes in a statement on `connection`; null for a null text.
char* escape_mysql_param(MYSQL* connection, const char* text);

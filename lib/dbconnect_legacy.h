// The bottom layers of the panel database connection: read the
// administrator's password file and connect. Failures write one text into the
// caller's buffer (cut to fit, as snprintf does) and return null.
#pragma once

#include <mysql.h>

#include <cstddef>

// Reads the password and connects as "admin" to database "ovk" on localhost.
MYSQL* orvik_db_connect_raw_ex(char* msgbuf, std::size_t msgbufsize);
// The same, but a handle that carries an error is closed and null returned.
MYSQL* orvik_db_connect_raw(char* msgbuf, std::size_t msgbufsize);

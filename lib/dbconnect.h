// The panel database connection: connect, then set the connection up
// (foreign-key checks off, client character set from the server version and
// the panel parameter mysql41_compatible). The caller owns the handle and
// ends it with mysql_close.
#pragma once

#include <mysql.h>

#include <cstddef>

// Sets the client library up for the whole process: once, at the program's
// start, before any connection or escaping. 0 on success; the library's own
// mysql_library_init() status otherwise.
int db_library_init();

// -1 not yet known, 0 binary client character set, 1 UTF-8.
extern int _mysql41_compatible;

// Connects and sets up; a handle may carry a MySQL error from the set-up.
MYSQL* orvik_db_connect_ex(char* msgbuf, std::size_t msgbufsize);
// The same, rejecting a handle that carries an error.
MYSQL* orvik_db_connect(char* msgbuf, std::size_t msgbufsize);
MYSQL* db_connect_nothrow(char* msgbuf, std::size_t msgbufsize);
// The same with its own message buffer; prints the reason through the message
// log (status 0) and returns null on failure.
MYSQL* db_connect();

// Writes "DB error (stage) N: text", or "DB error (stage): unknown error".
void set_db_errmsg(MYSQL* connection, char* msgbuf, std::size_t msgbufsize, const char* stage);

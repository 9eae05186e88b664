// Panel parameters: rows of the table misc (param, val). Every successful call
// returns a pointer into one static buffer of 4096 bytes that the next call
// overwrites; null when no connection could be had or the query failed; the
// empty string when there is no row or the value is NULL. With a null handle
// the function opens and closes a connection of its own.
#pragma once

#include <mysql.h>

char* get_param(const char* par_name, MYSQL* my);
char* get_param_simple(const char* param_name, const char* table, const char* param_col,
                       const char* val_col, MYSQL* my);
char* get_param_query(const char* query, MYSQL* my);
char* get_param_from_bigquery(const char* query, MYSQL* my, int num);

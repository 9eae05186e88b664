// Panel parameters: one value read from the panel database, by name from the
// table misc, or as the first row of any query.
//
// Owns one process-wide result buffer, overwritten by every call, and, when
// the caller passes no connection, a connection of its own for the length of
// the call. Failures (no connection, a failed query) are printed through the
// message log with status 0 and give null; a missing row or a NULL value
// gives the empty string.
#include "lib/get_param.h"

#include <cstdio>
#include <cstring>

#include "lib/dbconnect.h"
#include "lib/mysql_handle.h"
#include "lib/put.h"

namespace {

// Values longer than the buffer's last byte allows are cut.
constexpr std::size_t kValueBufferSize = 4096;
constexpr std::size_t kQueryBufferSize = 4096;

char value_buffer[kValueBufferSize];

// The caller's connection, or one opened for this call and closed with it.
class ParamConnection {
 public:
  explicit ParamConnection(MYSQL* given) : connection_(given) {
    if (connection_ == nullptr) {
      owned_.reset(db_connect());
      connection_ = owned_.get();
    }
  }
  MYSQL* get() const { return connection_; }

 private:
  MysqlConnection owned_;
  MYSQL* connection_;
};

char* store_value(const char* value) {
  std::snprintf(value_buffer, sizeof value_buffer, "%s", value);
  return value_buffer;
}

}  // namespace

char* get_param_from_bigquery(const char* query, MYSQL* my, int num) {
  ParamConnection connection(my);
  if (connection.get() == nullptr) {
    messlog2(0, 0, "Unable to connect to the mysql database\n");
    return nullptr;
  }
  if (mysql_query(connection.get(), query) != 0) {
    messlog2(0, 0, "Unable to query parameter by query %s: %s\n", query,
             mysql_error(connection.get()));
    return nullptr;
  }
  MysqlResult result(mysql_store_result(connection.get()));
  // A column the result does not have counts as a NULL value.
  if (result && num >= 0 && static_cast<unsigned>(num) < mysql_num_fields(result.get())) {
    MYSQL_ROW row = mysql_fetch_row(result.get());
    if (row != nullptr && row[num] != nullptr) return store_value(row[num]);
  }
  return store_value("");
}

char* get_param_query(const char* query, MYSQL* my) {
  return get_param_from_bigquery(query, my, 0);
}

char* get_param_simple(const char* param_name, const char* table, const char* param_col,
                       const char* val_col, MYSQL* my) {
  char query[kQueryBufferSize];
  std::snprintf(query, sizeof query, "select %s from %s where %s='%s'", val_col, table, param_col,
                param_name);
  return get_param_query(query, my);
}

char* get_param(const char* par_name, MYSQL* my) {
  return get_param_simple(par_name, "misc", "param", "val", my);
}

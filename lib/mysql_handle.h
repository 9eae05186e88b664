// Owners for the MySQL client library's handles.
#pragma once

#include <mysql.h>

#include <memory>

struct MysqlCloser {
  void operator()(MYSQL* connection) const noexcept { mysql_close(connection); }
};
struct MysqlResultFreer {
  void operator()(MYSQL_RES* result) const noexcept { mysql_free_result(result); }
};

using MysqlConnection = std::unique_ptr<MYSQL, MysqlCloser>;
using MysqlResult = std::unique_ptr<MYSQL_RES, MysqlResultFreer>;

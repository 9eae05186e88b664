-- The panel tables the autoresponder reads and writes, with the columns its
-- statements use. Loaded into the test database "ovk" by start_db.sh.
--
-- Every value column is nullable and has no default, so that a test can store
-- NULL and see the program's own default for it. Values the program reads as
-- numbers but must also survive as arbitrary text (ans_freq, mem_limit,
-- resp_on, key_where) are text columns. Names compare by the panel's usual
-- case-insensitive rule (utf8mb4_general_ci).

SET NAMES utf8mb4;

CREATE TABLE clients (
  id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  email VARCHAR(255) NULL,
  pname VARCHAR(255) NULL,
  login VARCHAR(255) NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_general_ci;

CREATE TABLE domains (
  id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  name VARCHAR(255) NULL,
  cl_id INT NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_general_ci;

CREATE TABLE domainaliases (
  id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  dom_id INT NULL,
  name VARCHAR(255) NULL,
  -- "true" when the alias also serves mail; text, so any value can be stored.
  mail VARCHAR(16) NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_general_ci;

CREATE TABLE mail (
  id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  mail_name VARCHAR(245) NULL,
  dom_id INT NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_general_ci;

CREATE TABLE mail_aliases (
  id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  mn_id INT NULL,
  alias VARCHAR(245) NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_general_ci;

CREATE TABLE mail_resp (
  id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  mn_id INT NULL,
  keystr VARCHAR(255) NULL,
  key_where VARCHAR(255) NULL,
  text MEDIUMTEXT NULL,
  resp_on VARCHAR(255) NULL,
  ans_freq VARCHAR(255) NULL,
  mem_limit VARCHAR(255) NULL,
  subject TEXT NULL,
  reply_to VARCHAR(255) NULL,
  charset VARCHAR(255) NULL,
  content_type VARCHAR(255) NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_general_ci;

-- One row per rule and sender answered today. time_resp is filled by the
-- database on insert and left alone on update.
CREATE TABLE resp_freq (
  rn_id INT NULL,
  email VARCHAR(255) NULL,
  time_resp DATETIME NOT NULL DEFAULT CURRENT_TIMESTAMP,
  num INT NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_general_ci;

CREATE TABLE resp_forward (
  id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  rn_id INT NULL,
  address VARCHAR(255) NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_general_ci;

CREATE TABLE resp_attach (
  id INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  rn_id INT NULL,
  filename VARCHAR(255) NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_general_ci;

CREATE TABLE misc (
  param VARCHAR(255) NOT NULL PRIMARY KEY,
  val TEXT NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_general_ci;

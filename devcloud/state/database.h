// SQLite with owners: one connection, prepared statements, nested transactions, safe to use from
// several threads. Every failure is a std::runtime_error with SQLite's own text.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace devcloud {

class Database;

// A statement with its parameters. Holds the database's lock while it lives.
class Statement {
 public:
  Statement(Database& database, std::string_view sql);

  // Sets the next parameter, from the first one on.
  Statement& Bind(std::string_view text);
  Statement& Bind(std::int64_t number);
  Statement& Bind(int number) { return Bind(std::int64_t{number}); }
  Statement& Bind(bool flag) { return Bind(std::int64_t{flag ? 1 : 0}); }
  Statement& Bind(const std::string& text) { return Bind(std::string_view(text)); }
  Statement& Bind(const char* text) { return Bind(std::string_view(text)); }
  Statement& Bind(const std::optional<std::string>& text);

  // Goes to the next row; false when there is none.
  [[nodiscard]] bool Next();
  // Runs a statement that gives no rows; the number of rows it changed.
  int Run();

  // The columns of the row, from the first one on: each call takes the next.
  [[nodiscard]] std::string Text();
  [[nodiscard]] std::int64_t Number();
  [[nodiscard]] bool Flag() { return Number() != 0; }
  [[nodiscard]] std::optional<std::string> OptionalText();

 private:
  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const;
  };

  void Check(int result) const;

  std::unique_lock<std::recursive_mutex> lock_;
  sqlite3* connection_;
  std::unique_ptr<sqlite3_stmt, Finalizer> statement_;
  int next_parameter_ = 1;
  int next_column_ = 0;
};

class Database {
 public:
  // Opens or creates the file (mode 0600); ":memory:" for one that lives no longer than the object.
  explicit Database(const std::string& file);

  // Runs statements without parameters.
  void Execute(const std::string& sql);

  [[nodiscard]] std::int64_t LastInsertId();

 private:
  friend class Statement;
  friend class Transaction;
  struct Closer {
    void operator()(sqlite3* connection) const;
  };

  std::recursive_mutex mutex_;
  std::unique_ptr<sqlite3, Closer> connection_;
};

// Everything until Commit() happens whole or not at all; may be nested. Holds the database's lock
// while it lives, so nothing of another thread comes in between.
class Transaction {
 public:
  explicit Transaction(Database& database);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void Commit();

 private:
  std::unique_lock<std::recursive_mutex> lock_;
  Database& database_;
  bool open_ = true;
};

}  // namespace devcloud

#include "devcloud/state/database.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <stdexcept>

#include "base/unique_fd.h"

namespace devcloud {
namespace {

constexpr int kBusyMilliseconds = 5000;

std::runtime_error SqliteError(sqlite3* connection) {
  return std::runtime_error(std::string("database: ") + sqlite3_errmsg(connection));
}

// SQLite creates files by the process's umask; what stands in this one is nobody else's business.
void CreatePrivately(const std::string& file) {
  if (file == ":memory:") return;
  const base::UniqueFd created(
      ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!created) throw std::runtime_error("database: cannot open " + file);
}

}  // namespace

void Statement::Finalizer::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

void Database::Closer::operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }

Statement::Statement(Database& database, std::string_view sql)
    : lock_(database.mutex_), connection_(database.connection_.get()) {
  sqlite3_stmt* raw = nullptr;
  Check(sqlite3_prepare_v2(connection_, sql.data(), static_cast<int>(sql.size()), &raw, nullptr));
  statement_.reset(raw);
}

void Statement::Check(int result) const {
  if (result != SQLITE_OK) throw SqliteError(connection_);
}

Statement& Statement::Bind(std::string_view text) {
  const char* data = text.data() == nullptr ? "" : text.data();
  Check(sqlite3_bind_text(statement_.get(), next_parameter_++, data, static_cast<int>(text.size()),
                          SQLITE_TRANSIENT));
  return *this;
}

Statement& Statement::Bind(std::int64_t number) {
  Check(sqlite3_bind_int64(statement_.get(), next_parameter_++, number));
  return *this;
}

Statement& Statement::Bind(const std::optional<std::string>& text) {
  if (text) return Bind(std::string_view(*text));
  Check(sqlite3_bind_null(statement_.get(), next_parameter_++));
  return *this;
}

bool Statement::Next() {
  next_column_ = 0;
  const int result = sqlite3_step(statement_.get());
  if (result != SQLITE_ROW && result != SQLITE_DONE) throw SqliteError(connection_);
  return result == SQLITE_ROW;
}

int Statement::Run() {
  while (Next()) {
  }
  return sqlite3_changes(connection_);
}

std::string Statement::Text() {
  const int column = next_column_++;
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_.get(), column));
  const int size = sqlite3_column_bytes(statement_.get(), column);
  return text == nullptr ? std::string() : std::string(text, static_cast<std::size_t>(size));
}

std::int64_t Statement::Number() { return sqlite3_column_int64(statement_.get(), next_column_++); }

std::optional<std::string> Statement::OptionalText() {
  if (sqlite3_column_type(statement_.get(), next_column_) == SQLITE_NULL) {
    ++next_column_;
    return std::nullopt;
  }
  return Text();
}

Database::Database(const std::string& file) {
  CreatePrivately(file);
  sqlite3* raw = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  const int result = sqlite3_open_v2(file.c_str(), &raw, flags, nullptr);
  connection_.reset(raw);
  if (result != SQLITE_OK) throw SqliteError(raw);
  sqlite3_busy_timeout(raw, kBusyMilliseconds);
  Execute(
      "PRAGMA foreign_keys = ON; PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
      "PRAGMA trusted_schema = OFF;");
}

void Database::Execute(const std::string& sql) {
  const std::lock_guard lock(mutex_);
  if (sqlite3_exec(connection_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    throw SqliteError(connection_.get());
  }
}

std::int64_t Database::LastInsertId() {
  const std::lock_guard lock(mutex_);
  return sqlite3_last_insert_rowid(connection_.get());
}

Transaction::Transaction(Database& database) : lock_(database.mutex_), database_(database) {
  database_.Execute("SAVEPOINT step");
}

Transaction::~Transaction() {
  if (!open_) return;
  // A failure here means that SQLite has rolled back already.
  sqlite3_exec(database_.connection_.get(), "ROLLBACK TO step; RELEASE step", nullptr, nullptr,
               nullptr);
}

void Transaction::Commit() {
  database_.Execute("RELEASE step");
  open_ = false;
}

}  // namespace devcloud

#include "devcloud/state/request_log.h"

#include <json/value.h>

#include "devcloud/http/json_text.h"

namespace devcloud {
namespace {

constexpr std::int64_t kKeptEntries = 10000;

constexpr char kSchema[] = R"sql(
CREATE TABLE IF NOT EXISTS requests(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  time INTEGER NOT NULL,
  method TEXT NOT NULL,
  target TEXT NOT NULL,
  path TEXT NOT NULL,
  query TEXT NOT NULL,
  headers TEXT NOT NULL,
  body TEXT NOT NULL,
  sni TEXT NOT NULL,
  tls_version TEXT NOT NULL,
  peer_port INTEGER NOT NULL,
  status INTEGER NOT NULL,
  answer TEXT NOT NULL,
  fault TEXT
) STRICT;
CREATE INDEX IF NOT EXISTS requests_by_path ON requests(path, id);
)sql";

constexpr char kSelect[] =
    "SELECT id, time, method, target, path, query, headers, body, sni, tls_version, peer_port,"
    " status, answer, fault FROM requests";

std::string HeadersToText(const std::vector<Header>& headers) {
  Json::Value list(Json::arrayValue);
  for (const Header& header : headers) {
    list.append(header.name);
    list.append(header.value);
  }
  return ToCompactText(list);
}

std::vector<Header> HeadersFromText(const std::string& text) {
  std::vector<Header> headers;
  const Json::Value list = ParseJson(text).value_or(Json::Value());
  for (Json::ArrayIndex i = 0; i + 1 < list.size(); i += 2) {
    headers.push_back({list[i].asString(), list[i + 1].asString()});
  }
  return headers;
}

Request ReadRequest(Statement& row) {
  Request request;
  request.method = row.Text();
  request.target = row.Text();
  request.path = row.Text();
  request.query = row.Text();
  request.headers = HeadersFromText(row.Text());
  request.body = row.Text();
  request.sni = row.Text();
  request.tls_version = row.Text();
  request.peer_port = static_cast<std::uint16_t>(row.Number());
  return request;
}

LogEntry ReadEntry(Statement& row) {
  LogEntry entry;
  entry.id = row.Number();
  entry.time = row.Number();
  entry.request = ReadRequest(row);
  entry.status = static_cast<int>(row.Number());
  entry.answer = row.Text();
  if (const std::optional<std::string> fault = row.OptionalText()) entry.fault = std::stoll(*fault);
  return entry;
}

std::vector<LogEntry> ReadAll(Statement& select) {
  std::vector<LogEntry> entries;
  while (select.Next()) entries.push_back(ReadEntry(select));
  return entries;
}

}  // namespace

RequestLog::RequestLog(Database& database) : database_(database) { database_.Execute(kSchema); }

std::int64_t RequestLog::Add(const LogEntry& entry) {
  Transaction transaction(database_);
  const Request& request = entry.request;
  Statement insert(database_,
                   "INSERT INTO requests(time, method, target, path, query, headers, body, sni,"
                   " tls_version, peer_port, status, answer, fault)"
                   " VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?)");
  insert.Bind(entry.time).Bind(request.method).Bind(request.target).Bind(request.path);
  insert.Bind(request.query).Bind(HeadersToText(request.headers)).Bind(request.body);
  insert.Bind(request.sni).Bind(request.tls_version).Bind(int{request.peer_port});
  insert.Bind(entry.status).Bind(entry.answer);
  insert.Bind(entry.fault ? std::optional(std::to_string(*entry.fault)) : std::nullopt).Run();
  const std::int64_t id = database_.LastInsertId();
  Statement(database_, "DELETE FROM requests WHERE id <= ?").Bind(id - kKeptEntries).Run();
  transaction.Commit();
  const std::lock_guard lock(mutex_);
  ++additions_;
  changed_.notify_all();
  return id;
}

std::vector<LogEntry> RequestLog::Read(std::int64_t after, const std::string& path) {
  Statement select(database_,
                   std::string(kSelect) + " WHERE id > ?1 AND (?2 = '' OR path = ?2) ORDER BY id");
  return ReadAll(select.Bind(after).Bind(path));
}

std::vector<LogEntry> RequestLog::Newest(int most) {
  Statement select(database_, std::string(kSelect) + " ORDER BY id DESC LIMIT ?");
  return ReadAll(select.Bind(most));
}

std::vector<LogEntry> RequestLog::WaitAndRead(std::int64_t after, const std::string& path,
                                              std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    std::unique_lock lock(mutex_);
    const std::int64_t seen = additions_;
    lock.unlock();
    std::vector<LogEntry> entries = Read(after, path);
    if (!entries.empty()) return entries;
    lock.lock();
    const auto woken = [&] { return closed_ || additions_ != seen; };
    if (!changed_.wait_until(lock, deadline, woken) || closed_) return entries;
  }
}

void RequestLog::Clear() { database_.Execute("DELETE FROM requests"); }

void RequestLog::Close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

}  // namespace devcloud

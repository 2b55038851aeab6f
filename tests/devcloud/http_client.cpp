#include "tests/devcloud/http_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <stdexcept>
#include <utility>

#include "base/unique_fd.h"

namespace devcloud_test {
namespace {

constexpr long kSafetySeconds = 30;

using HeaderList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

struct Sink {
  std::string text = {};
  std::size_t most = 0;
};

std::size_t Collect(char* data, std::size_t size, std::size_t count, void* target) {
  auto* sink = static_cast<Sink*>(target);
  sink->text.append(data, size * count);
  return sink->text.size() > sink->most ? 0 : size * count;
}

HeaderList MakeHeaders(const std::vector<std::string>& headers) {
  HeaderList list(nullptr, &curl_slist_free_all);
  for (const std::string& header : headers) {
    curl_slist* grown = curl_slist_append(list.get(), header.c_str());
    (void)list.release();
    list.reset(grown);
  }
  return list;
}

void SetTrust(CURL* handle, const std::string& pem) {
  curl_blob blob{};
  blob.data = const_cast<char*>(pem.data());
  blob.len = pem.size();
  blob.flags = CURL_BLOB_COPY;
  curl_easy_setopt(handle, CURLOPT_CAINFO_BLOB, &blob);
}

void SetRequest(CURL* handle, const ClientRequest& request) {
  curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(handle, CURLOPT_TIMEOUT, kSafetySeconds);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_PROXY, "");
  if (request.body) {
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.body->size()));
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body->data());
  }
  if (!request.method.empty()) {
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
}

}  // namespace

std::string ClientAnswer::Header(std::string_view name) const {
  const std::string start = "\r\n" + std::string(name) + ": ";
  const std::size_t found = head.find(start);
  if (found == std::string::npos) return {};
  const std::size_t from = found + start.size();
  return head.substr(from, head.find("\r\n", from) - from);
}

HttpClient::HttpClient(std::string authority_pem)
    : authority_pem_(std::move(authority_pem)), handle_(curl_easy_init()) {
  if (handle_ == nullptr) throw std::runtime_error("no curl handle");
}

ClientAnswer HttpClient::Send(const ClientRequest& request) {
  CURL* handle = handle_.get();
  curl_easy_reset(handle);
  SetRequest(handle, request);
  if (!authority_pem_.empty()) SetTrust(handle, authority_pem_);
  const HeaderList headers = MakeHeaders(request.headers);
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
  Sink body{.most = request.most_bytes};
  Sink head{.most = request.most_bytes};
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Collect);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &Collect);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &head);
  ClientAnswer answer;
  answer.result = curl_easy_perform(handle);
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &answer.status);
  curl_easy_getinfo(handle, CURLINFO_NUM_CONNECTS, &answer.connections);
  answer.head = std::move(head.text);
  answer.body = std::move(body.text);
  return answer;
}

std::string ExchangeRaw(std::uint16_t port, std::string_view bytes) {
  const base::UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port);
  peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(socket.get(), reinterpret_cast<sockaddr*>(&peer), sizeof peer) != 0) {
    throw std::runtime_error("cannot connect");
  }
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) break;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  std::string answer;
  std::array<char, 4096> chunk{};
  ssize_t got = 0;
  while ((got = ::recv(socket.get(), chunk.data(), chunk.size(), 0)) > 0) {
    answer.append(chunk.data(), static_cast<std::size_t>(got));
  }
  return answer;
}

}  // namespace devcloud_test

#include "devcloud/http/https_server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "devcloud/http/event.h"
#include "devcloud/http/listener.h"
#include "devcloud/http/response_writer.h"

namespace devcloud {
namespace {

// Threads started in its scope get no signals: those belong to the program's own threads, and a
// write to a peer that is gone must not end the process.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) {
      sigdelset(&all, fault);  // crashes are to be reported where they happen
    }
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

struct Worker {
  std::atomic<bool> done{false};
  std::thread thread;
};

Response ErrorFor(ReadOutcome outcome) {
  switch (outcome) {
    case ReadOutcome::kHeaderTooLarge: return {.status = 431};
    case ReadOutcome::kBodyTooLarge: return {.status = 413};
    case ReadOutcome::kRequest:
    case ReadOutcome::kClosed:
    case ReadOutcome::kMalformed: break;
  }
  return {.status = 400};
}

}  // namespace

class HttpsServer::Impl {
 public:
  Impl(ServerOptions options, Handler handler);
  ~Impl() { Stop(); }

  void Stop();
  void SetTls(const TlsSettings& settings);

  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] bool has_tls() const { return options_.tls.has_value(); }
  [[nodiscard]] std::vector<Request> requests() const;
  void ClearRequests();
  [[nodiscard]] std::size_t connections() const;
  [[nodiscard]] std::size_t failed_handshakes() const;

  template <typename Condition>
  bool WaitUntil(std::chrono::milliseconds limit, Condition condition) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return condition(*this); });
  }

  std::size_t seen_ = 0;  // requests since the start or the last clearing; like all counters
  std::size_t failed_handshakes_ = 0;  // under the lock

 private:
  void AcceptLoop();
  [[nodiscard]] bool WaitForPeer() const;
  void BackOff() const;
  void StartWorker(base::UniqueFd socket);
  void ReapWorkers();
  void Serve(base::UniqueFd socket);
  void Converse(Connection& connection);
  [[nodiscard]] bool StartTls(Connection& connection);
  [[nodiscard]] AfterAnswer AnswerNext(Connection& connection, RequestReader& reader);
  [[nodiscard]] Response Handle(const Request& request);
  void Record(const Request& request);

  ServerOptions options_;
  Handler handler_;
  Event stop_event_;
  base::UniqueFd listener_;
  std::uint16_t port_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::deque<Request> recorded_;
  std::size_t connections_ = 0;
  std::shared_ptr<SSL_CTX> tls_;

  std::mutex handler_mutex_;
  std::list<Worker> workers_;  // touched by the accepting thread, and by Stop() once that is gone
  std::thread acceptor_;
};

HttpsServer::Impl::Impl(ServerOptions options, Handler handler)
    : options_(std::move(options)),
      handler_(std::move(handler)),
      listener_(Listen(options_.address, options_.port)),
      port_(BoundPort(listener_.get())) {
  if (options_.tls) SetTls(*options_.tls);
  const SignalsBlocked blocked;
  acceptor_ = std::thread([this] { AcceptLoop(); });
}

void HttpsServer::Impl::Stop() {
  if (!acceptor_.joinable()) return;
  stop_event_.Signal();
  acceptor_.join();
  for (Worker& worker : workers_) worker.thread.join();
  workers_.clear();
  listener_ = base::UniqueFd();
}

void HttpsServer::Impl::SetTls(const TlsSettings& settings) {
  std::shared_ptr<SSL_CTX> context(MakeServerContext(settings));
  const std::lock_guard lock(mutex_);
  tls_ = std::move(context);
}

std::vector<Request> HttpsServer::Impl::requests() const {
  const std::lock_guard lock(mutex_);
  return {recorded_.begin(), recorded_.end()};
}

void HttpsServer::Impl::ClearRequests() {
  const std::lock_guard lock(mutex_);
  recorded_.clear();
  seen_ = 0;
}

std::size_t HttpsServer::Impl::connections() const {
  const std::lock_guard lock(mutex_);
  return connections_;
}

std::size_t HttpsServer::Impl::failed_handshakes() const {
  const std::lock_guard lock(mutex_);
  return failed_handshakes_;
}

bool HttpsServer::Impl::WaitForPeer() const {
  for (;;) {
    std::array<pollfd, 2> watched{{{stop_event_.fd(), POLLIN, 0}, {listener_.get(), POLLIN, 0}}};
    const int ready = ::poll(watched.data(), watched.size(), -1);
    if (ready < 0 && errno == EINTR) continue;
    return ready > 0 && watched[0].revents == 0;
  }
}

// Out of descriptors, most likely: the waiting peer would wake us again at once.
void HttpsServer::Impl::BackOff() const {
  constexpr int kMilliseconds = 20;
  pollfd stop{stop_event_.fd(), POLLIN, 0};
  (void)::poll(&stop, 1, kMilliseconds);
}

void HttpsServer::Impl::AcceptLoop() {
  while (WaitForPeer()) {
    base::UniqueFd socket(
        ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    ReapWorkers();
    if (!socket) {
      BackOff();
    } else if (workers_.size() < options_.max_connections) {
      StartWorker(std::move(socket));
    }
  }
}

void HttpsServer::Impl::StartWorker(base::UniqueFd socket) {
  {
    const std::lock_guard lock(mutex_);
    ++connections_;
  }
  Worker& worker = workers_.emplace_back();
  try {
    worker.thread = std::thread([this, &worker, owned = std::move(socket)]() mutable {
      Serve(std::move(owned));
      worker.done = true;
    });
  } catch (const std::system_error&) {
    workers_.pop_back();  // no thread to be had: the peer sees the connection closed
  }
}

void HttpsServer::Impl::ReapWorkers() {
  workers_.remove_if([](Worker& worker) {
    if (!worker.done) return false;
    worker.thread.join();
    return true;
  });
}

void HttpsServer::Impl::Serve(base::UniqueFd socket) {
  const int on = 1;
  (void)::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  Connection connection(std::move(socket), stop_event_.fd(), options_.idle_timeout);
  if (!options_.tls || StartTls(connection)) Converse(connection);
}

bool HttpsServer::Impl::StartTls(Connection& connection) {
  std::shared_ptr<SSL_CTX> context;
  {
    const std::lock_guard lock(mutex_);
    context = tls_;
  }
  if (connection.Handshake(context.get())) return true;
  const std::lock_guard lock(mutex_);
  ++failed_handshakes_;
  changed_.notify_all();
  return false;
}

void HttpsServer::Impl::Converse(Connection& connection) {
  RequestReader reader(connection, options_.limits);
  AfterAnswer after = AfterAnswer::kReuse;
  while (after == AfterAnswer::kReuse) after = AnswerNext(connection, reader);
  if (after == AfterAnswer::kCloseGently) connection.CloseGently();
}

AfterAnswer HttpsServer::Impl::AnswerNext(Connection& connection, RequestReader& reader) {
  Request request;
  bool keep_alive = false;
  const ReadOutcome outcome = reader.Next(request, keep_alive);
  if (outcome == ReadOutcome::kClosed) return AfterAnswer::kCut;
  if (outcome != ReadOutcome::kRequest) {
    return SendResponse(connection, request, ErrorFor(outcome), KeepAlive::kNo);
  }
  request.sni = connection.ServerName();
  request.tls_version = connection.TlsVersionName();
  request.peer_port = connection.PeerPort();
  Record(request);
  return SendResponse(connection, request, Handle(request),
                      keep_alive ? KeepAlive::kYes : KeepAlive::kNo);
}

void HttpsServer::Impl::Record(const Request& request) {
  const std::lock_guard lock(mutex_);
  ++seen_;
  recorded_.push_back(request);
  while (recorded_.size() > options_.max_recorded) recorded_.pop_front();
  changed_.notify_all();
}

Response HttpsServer::Impl::Handle(const Request& request) {
  std::unique_lock lock(handler_mutex_, std::defer_lock);
  if (options_.handler_calls == HandlerCalls::kOneAtATime) lock.lock();
  try {
    return handler_(request);
  } catch (const std::exception& error) {
    return {.status = 500, .body = std::string("internal error: ") + error.what() + "\n"};
  }
}

HttpsServer::HttpsServer(ServerOptions options, Handler handler)
    : impl_(std::make_unique<Impl>(std::move(options), std::move(handler))) {}

HttpsServer::~HttpsServer() = default;

void HttpsServer::Stop() { impl_->Stop(); }

std::uint16_t HttpsServer::port() const { return impl_->port(); }

std::string HttpsServer::Url(const std::string& host) const {
  const std::uint16_t usual = impl_->has_tls() ? 443 : 80;
  const std::string base = (impl_->has_tls() ? "https://" : "http://") + host;
  return port() == usual ? base : base + ":" + std::to_string(port());
}

void HttpsServer::SetTls(const TlsSettings& settings) { impl_->SetTls(settings); }

std::vector<Request> HttpsServer::requests() const { return impl_->requests(); }

void HttpsServer::ClearRequests() { impl_->ClearRequests(); }

bool HttpsServer::WaitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
  return impl_->WaitUntil(limit, [count](const Impl& impl) { return impl.seen_ >= count; });
}

std::size_t HttpsServer::connections() const { return impl_->connections(); }

std::size_t HttpsServer::failed_handshakes() const { return impl_->failed_handshakes(); }

bool HttpsServer::WaitForFailedHandshakes(std::size_t count,
                                          std::chrono::milliseconds limit) const {
  return impl_->WaitUntil(limit,
                          [count](const Impl& impl) { return impl.failed_handshakes_ >= count; });
}

}  // namespace devcloud

#include "support/raw_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace qortest {

namespace {

constexpr auto kSlice = std::chrono::milliseconds(20);

// Waits for the socket to become readable (or closed) in short slices, so that a stop is noticed.
bool waitReadable(int fd, const std::atomic<bool>& stopping) {
  while (!stopping) {
    pollfd entry{fd, POLLIN, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(kSlice.count()));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
  return false;
}

// The Content-Length of a request head, its name in any case; 0 if there is none.
std::size_t contentLength(std::string head) {
  for (char& c : head)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const std::size_t at = head.find("\r\ncontent-length:");
  return at == std::string::npos ? 0 : std::stoul(head.substr(at + 17));
}

}  // namespace

int boundLoopbackSocket(int& port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
    return fd;
  }
  if (fd >= 0) ::close(fd);
  return -1;
}

bool RawConnection::send(std::string_view bytes) {
  while (!bytes.empty()) {
    if (stopping_) return false;
    const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::size_t RawConnection::sendWhileTaken(const std::function<std::string()>& next,
                                          std::size_t limit) {
  std::size_t total = 0;
  while (total < limit) {
    const std::string piece = next();
    if (!send(piece)) break;
    total += piece.size();
  }
  return total;
}

RawBehaviour httpReply(int status, std::string body, std::string contentType) {
  return [status, body = std::move(body), contentType = std::move(contentType)](
             RawConnection& connection, const RawRequest&) {
    // The reason phrase means nothing to a client.
    const std::string head = "HTTP/1.1 " + std::to_string(status) +
                             " Reply\r\nContent-Type: " + contentType +
                             "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n";
    if (connection.send(head) && connection.send(body)) connection.keepOpen();
  };
}

RawBehaviour piecewiseReply(int status, std::vector<std::string> pieces, long declaredLength,
                            std::chrono::microseconds gap) {
  return [=](RawConnection& connection, const RawRequest&) {
    std::size_t size = 0;
    for (const std::string& piece : pieces)
      size += piece.size();
    const long length = declaredLength < 0 ? static_cast<long>(size) : declaredLength;
    const std::string framing =
        length == 0 ? "Connection: close" : "Content-Length: " + std::to_string(length);
    if (!connection.send("HTTP/1.1 " + std::to_string(status) + " Reply\r\n" + framing +
                         "\r\n\r\n")) {
      return;
    }
    for (const std::string& piece : pieces) {
      std::this_thread::sleep_for(gap);
      if (!connection.send(piece)) return;
    }
  };
}

struct RawServer::Impl {
  int listenFd = -1;
  std::atomic<bool> stopping{false};
  std::thread acceptor;
  mutable std::mutex mutex;
  std::vector<std::thread> workers;
  std::set<int> open;  // connections not yet closed, to shut down at the stop
  std::deque<RawBehaviour> queue;
  RawBehaviour fallback;
  std::size_t requests = 0;

  ~Impl() {
    stopping = true;
    if (acceptor.joinable()) acceptor.join();
    std::unique_lock lock(mutex);
    for (int fd : open)
      ::shutdown(fd, SHUT_RDWR);
    lock.unlock();
    // No worker is added once the acceptor has stopped.
    for (std::thread& worker : workers)
      worker.join();
    if (listenFd >= 0) ::close(listenFd);
  }

  void acceptLoop() {
    while (!stopping) {
      if (!waitReadable(listenFd, stopping)) continue;
      const int fd = ::accept(listenFd, nullptr, nullptr);
      if (fd < 0) continue;
      std::lock_guard lock(mutex);
      open.insert(fd);
      workers.emplace_back([this, fd] { serve(fd); });
    }
  }

  // Appends what arrives to pending; false when the peer closed or the server stops first.
  bool receive(int fd, std::string& pending) {
    char buffer[16384];
    if (!waitReadable(fd, stopping)) return false;
    const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
    if (got > 0) pending.append(buffer, static_cast<std::size_t>(got));
    return got > 0;
  }

  // Reads one request into request, keeping what follows it in pending.
  bool readRequest(int fd, std::string& pending, RawRequest& request) {
    std::size_t headEnd;
    while ((headEnd = pending.find("\r\n\r\n")) == std::string::npos)
      if (!receive(fd, pending)) return false;
    const std::string head = pending.substr(0, headEnd);
    const std::size_t space = head.find(' ');
    request.method = head.substr(0, space);
    request.target = head.substr(space + 1, head.find(' ', space + 1) - space - 1);
    const std::size_t bodySize = contentLength(head);
    pending.erase(0, headEnd + 4);
    while (pending.size() < bodySize)
      if (!receive(fd, pending)) return false;
    request.body = pending.substr(0, bodySize);
    pending.erase(0, bodySize);
    return true;
  }

  void serve(int fd) {
    std::string pending;
    for (;;) {
      RawRequest request;
      if (!readRequest(fd, pending, request)) break;
      RawBehaviour behaviour;
      {
        std::lock_guard lock(mutex);
        ++requests;
        behaviour = queue.empty() ? fallback : std::move(queue.front());
        if (!queue.empty()) queue.pop_front();
      }
      RawConnection connection(fd, stopping);
      behaviour(connection, request);
      if (!connection.keptOpen()) break;
    }
    std::lock_guard lock(mutex);
    open.erase(fd);
    ::close(fd);
  }
};

RawServer::RawServer(RawBehaviour fallback) : impl_(std::make_unique<Impl>()) {
  impl_->fallback = std::move(fallback);
  impl_->listenFd = boundLoopbackSocket(port_);
  if (impl_->listenFd < 0 || ::listen(impl_->listenFd, 16) != 0)
    throw std::runtime_error("raw server: cannot listen on 127.0.0.1");
  impl_->acceptor = std::thread([impl = impl_.get()] { impl->acceptLoop(); });
}

RawServer::~RawServer() = default;

void RawServer::enqueue(RawBehaviour behaviour) {
  std::lock_guard lock(impl_->mutex);
  impl_->queue.push_back(std::move(behaviour));
}

std::size_t RawServer::requestCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->requests;
}

std::function<std::string()> endlessGzipOfZeros() {
  const auto stream = std::shared_ptr<z_stream>(new z_stream{}, [](z_stream* s) {
    deflateEnd(s);
    delete s;
  });
  // Window bits past 15 ask for the gzip header; the stream is never finished.
  if (deflateInit2(stream.get(), Z_BEST_COMPRESSION, Z_DEFLATED, 16 + 15, 9, Z_DEFAULT_STRATEGY) !=
      Z_OK)
    throw std::runtime_error("raw server: deflateInit2 failed");
  return [stream] {
    static const std::string zeros(std::size_t{1} << 20, '\0');
    stream->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(zeros.data()));
    stream->avail_in = static_cast<uInt>(zeros.size());
    std::string out;
    char buffer[16384];
    do {
      stream->next_out = reinterpret_cast<Bytef*>(buffer);
      stream->avail_out = sizeof buffer;
      deflate(stream.get(), Z_SYNC_FLUSH);
      out.append(buffer, sizeof buffer - stream->avail_out);
    } while (stream->avail_out == 0);
    return out;
  };
}

}  // namespace qortest

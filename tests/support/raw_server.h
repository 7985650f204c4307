#pragma once
// A service on 127.0.0.1 writing raw bytes no proper HTTP server would: cut off, stalled, endless,
// oversized, not HTTP. Each request takes the next scripted behaviour, then the fallback. It runs
// in the test's process on an ephemeral port; stopping with the object ends every behaviour.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qortest {

struct RawRequest {
  std::string method;
  std::string target;
  std::string body;
};

class RawConnection {
 public:
  RawConnection(int fd, const std::atomic<bool>& stopping) : fd_(fd), stopping_(stopping) {}

  // Writes all the bytes; false once the peer is gone or the server stops.
  bool send(std::string_view bytes);
  // Writes next() again and again until the peer or server stops or limit bytes; gives the total.
  std::size_t sendWhileTaken(const std::function<std::string()>& next, std::size_t limit);
  // Keeps the connection for the next request once the behaviour is done; closed otherwise.
  void keepOpen() { keepOpen_ = true; }

  bool keptOpen() const { return keepOpen_; }

 private:
  int fd_;
  const std::atomic<bool>& stopping_;
  bool keepOpen_ = false;
};

using RawBehaviour = std::function<void(RawConnection& connection, const RawRequest& request)>;

// A well-formed HTTP/1.1 reply with a Content-Length; the connection stays open for the next one.
RawBehaviour httpReply(int status, std::string body, std::string contentType = "application/json");

// A reply whose body is written in the given pieces, gap apart; the head announces
// declaredLength bytes (the body's own length when negative, none when 0: the close ends it), and
// the connection closes after the last piece.
RawBehaviour piecewiseReply(int status, std::vector<std::string> pieces, long declaredLength = -1,
                            std::chrono::microseconds gap = std::chrono::milliseconds(30));

class RawServer {
 public:
  // Starts listening at once; every request gets the fallback until behaviours are queued.
  explicit RawServer(RawBehaviour fallback = httpReply(404, "", "text/plain"));
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  // The next request that arrives, on any connection, gets this behaviour.
  void enqueue(RawBehaviour behaviour);

  int port() const { return port_; }
  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::size_t requestCount() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
  int port_ = 0;
};

// A TCP socket bound to an ephemeral port of 127.0.0.1, not yet listening, and that port, or -1.
int boundLoopbackSocket(int& port);

// A gzip member inflating to endless zeros, zlib's deflate at about 1000 to 1. Each call gives
// the next piece, 1 MiB of zeros; the first starts with the gzip header.
std::function<std::string()> endlessGzipOfZeros();

}  // namespace qortest

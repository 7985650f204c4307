#pragma once
// An HTTP(S) server on 127.0.0.1 for the benchmarks: it answers every POST to one path with one
// fixed reply, whole or streamed, fast and on kept-alive connections, so that what is measured is
// the client.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
struct Response;
}  // namespace httplib

namespace qorbench {

// A reply written as a service streams one: chunked, one write a piece, nothing between them but
// a pause after the first piece.
struct StreamedReply {
  std::string contentType;
  std::vector<std::string> pieces;
  std::chrono::microseconds pauseAfterFirst{0};
};

class BenchServer {
 public:
  enum class Transport { Plain, Tls };
  using Clock = std::chrono::steady_clock;

  // Starts listening at once; throws std::runtime_error if it cannot. A TLS server uses a key and
  // a self-signed certificate for 127.0.0.1 made for this object.
  BenchServer(Transport transport, const std::string& path, std::string reply);
  BenchServer(Transport transport, const std::string& path, StreamedReply reply);
  ~BenchServer();
  BenchServer(const BenchServer&) = delete;
  BenchServer& operator=(const BenchServer&) = delete;

  std::string baseUrl() const;
  // The PEM certificate file to trust for a TLS server; empty for a plain one.
  const std::string& certificateFile() const { return certFile_.path; }
  // The size of the body of the last POST received and how many were received, so that a
  // benchmark can tell that a request arrived whole.
  std::size_t lastBodySize() const { return lastBodySize_.load(); }
  std::size_t postCount() const { return postCount_.load(); }
  // The latest streamed reply's first write: the clock read just before the write call and just
  // after it returned (the clock's epoch before any). Set before the pause, so both are there
  // once that reply has ended.
  struct Write {
    Clock::time_point started;
    Clock::time_point returned;
  };
  Write firstPieceWrite() const {
    return {Clock::time_point(Clock::duration(firstWriteStarted_.load())),
            Clock::time_point(Clock::duration(firstWriteReturned_.load()))};
  }

 private:
  void create(Transport transport);
  // Answers every POST to path with respond and starts listening.
  void serve(const std::string& path, std::function<void(httplib::Response&)> respond);

  // A file that is removed with its owner, even when the constructor fails later on.
  struct OwnedFile {
    OwnedFile() = default;
    OwnedFile(const OwnedFile&) = delete;
    OwnedFile& operator=(const OwnedFile&) = delete;
    ~OwnedFile();
    std::string path;
  };

  OwnedFile certFile_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  std::string scheme_ = "http://";
  int port_ = 0;
  std::atomic<std::size_t> lastBodySize_{0};
  std::atomic<std::size_t> postCount_{0};
  std::atomic<Clock::rep> firstWriteStarted_{0};
  std::atomic<Clock::rep> firstWriteReturned_{0};
};

}  // namespace qorbench

#pragma once
// An HTTP(S) server on 127.0.0.1 for the benchmarks: it answers every POST to one path with one
// fixed reply, fast and on kept-alive connections, so that what is measured is the client.

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace qorbench {

class BenchServer {
 public:
  enum class Transport { Plain, Tls };

  // Starts listening at once; throws std::runtime_error if it cannot. A TLS server uses a key and
  // a self-signed certificate for 127.0.0.1 made for this object.
  BenchServer(Transport transport, std::string path, std::string reply);
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

 private:
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
};

}  // namespace qorbench

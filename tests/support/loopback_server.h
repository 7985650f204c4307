#pragma once
// An HTTP(S) service on an ephemeral port of 127.0.0.1 in the test's process, stopping with the
// object: it records every request and answers what the test scripted.

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qortest {

using Pairs = std::vector<std::pair<std::string, std::string>>;

struct RecordedRequest {
  std::string method;
  std::string path;   // without the query
  std::string query;  // the raw query as received, without '?'
  Pairs headers;      // as received
  std::string body;
  int remotePort = 0;  // the client's port: one value per connection

  // The first header of that name, compared without case; empty if none.
  std::string header(std::string_view name) const;
};

struct ScriptedReply {
  int status = 200;
  std::string body{};
  std::string contentType = "application/json";
  Pairs headers{};
  std::chrono::milliseconds delay{0};  // before answering
};

class LoopbackServer {
 public:
  enum class Transport { Plain, Tls };

  // Starts listening at once; TLS uses a fresh self-signed certificate for 127.0.0.1, localhost.
  explicit LoopbackServer(Transport transport = Transport::Plain);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  // Requests with this method and path get this reply (the last call wins); others an empty 404.
  void answer(std::string method, std::string path, ScriptedReply reply);

  int port() const { return port_; }
  std::string baseUrl() const { return scheme_ + "127.0.0.1:" + std::to_string(port_); }
  // The PEM certificate file to trust for a TLS server; empty for a plain one.
  std::string certificateFile() const { return certFile_; }

  std::vector<RecordedRequest> requests() const;
  // The last request; fails the test if there was none.
  RecordedRequest lastRequest() const;
  std::size_t requestCount() const { return requests().size(); }
  std::size_t connectionCount() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
  int port_ = 0;
  std::string scheme_ = "http://";
  std::string certFile_;
};

// A loopback port on which nothing listens, so that connecting is refused.
int closedLoopbackPort();

// The text of a file of the wire corpus, such as "openai/models.json"; fails the test if missing.
std::string readWireFile(std::string_view relativePath);

}  // namespace qortest

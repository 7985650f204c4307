#include "support/loopback_server.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include "support/raw_server.h"

namespace qortest {

namespace {

void fail(const std::string& what) {
  throw std::runtime_error("loopback server: " + what);
}

}  // namespace

std::string RecordedRequest::header(std::string_view name) const {
  const auto found = std::ranges::find_if(headers, [&](const auto& entry) {
    return entry.first.size() == name.size() &&
           strncasecmp(entry.first.data(), name.data(), name.size()) == 0;
  });
  return found == headers.end() ? std::string() : found->second;
}

struct LoopbackServer::Impl {
  std::unique_ptr<httplib::Server> server;
  std::thread thread;
  std::string certFolder;  // of a TLS server's key and certificate
  mutable std::mutex mutex;
  std::condition_variable stopped;  // wakes delayed replies when the server goes away
  bool stopping = false;
  std::map<std::pair<std::string, std::string>, ScriptedReply> replies;
  std::vector<RecordedRequest> requests;

  ~Impl() {
    std::unique_lock lock(mutex);
    stopping = true;
    lock.unlock();
    stopped.notify_all();
    if (server) server->stop();
    if (thread.joinable()) thread.join();
    if (!certFolder.empty()) std::filesystem::remove_all(certFolder);
  }

  void handle(const httplib::Request& req, httplib::Response& res) {
    const std::size_t mark = req.target.find('?');
    const std::string query = mark == std::string::npos ? "" : req.target.substr(mark + 1);
    Pairs headers;
    // httplib adds the peer's and its own address; they never came over the wire.
    for (const auto& [name, value] : req.headers)
      if (!name.starts_with("REMOTE_") && !name.starts_with("LOCAL_"))
        headers.emplace_back(name, value);
    std::unique_lock lock(mutex);
    requests.push_back(
        {req.method, req.path, query, std::move(headers), req.body, req.remote_port});
    const auto found = replies.find({req.method, req.path});
    const ScriptedReply reply =
        found != replies.end() ? found->second : ScriptedReply{404, "", "text/plain"};
    // Waits like a slow service, but not past the test, so the destructor does not wait too.
    stopped.wait_for(lock, reply.delay, [this] { return stopping; });
    lock.unlock();
    res.status = reply.status;
    for (const auto& [name, value] : reply.headers)
      res.set_header(name, value);
    res.set_content(reply.body, reply.contentType);
  }
};

LoopbackServer::LoopbackServer(Transport transport) : impl_(std::make_unique<Impl>()) {
  if (transport == Transport::Tls) {
    // A fresh P-256 key and a self-signed certificate for 127.0.0.1 and localhost, by openssl.
    std::string folder = (std::filesystem::temp_directory_path() / "qor-loopback-XXXXXX");
    if (::mkdtemp(folder.data()) == nullptr) fail("cannot create " + folder);
    impl_->certFolder = folder;
    const std::string key = folder + "/key.pem";
    certFile_ = folder + "/cert.pem";
    const std::string openssl =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 "
        "-subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1,DNS:localhost -keyout '" +
        key + "' -out '" + certFile_ + "' >/dev/null 2>&1";
    if (std::system(openssl.c_str()) != 0) fail("openssl cannot make a certificate");
    impl_->server = std::make_unique<httplib::SSLServer>(certFile_.c_str(), key.c_str());
    scheme_ = "https://";
  } else {
    impl_->server = std::make_unique<httplib::Server>();
  }
  httplib::Server& server = *impl_->server;
  if (!server.is_valid()) fail("setup failed");
  // Short, so that a connection a test leaves open does not hold up the destructor for long.
  server.set_keep_alive_timeout(1);
  const auto handler = [impl = impl_.get()](const httplib::Request& req, httplib::Response& res) {
    impl->handle(req, res);
  };
  server.Get(".*", handler).Post(".*", handler);

  port_ = server.bind_to_any_port("127.0.0.1");
  if (port_ <= 0) fail("cannot bind to 127.0.0.1");
  impl_->thread = std::thread([&server] { server.listen_after_bind(); });
  for (int waited = 0; waited < 5000 && !server.is_running(); ++waited)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (!server.is_running()) ADD_FAILURE() << "the loopback server did not start";
}

LoopbackServer::~LoopbackServer() = default;

void LoopbackServer::answer(std::string method, std::string path, ScriptedReply reply) {
  std::lock_guard lock(impl_->mutex);
  impl_->replies[{std::move(method), std::move(path)}] = std::move(reply);
}

std::vector<RecordedRequest> LoopbackServer::requests() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->requests;
}

RecordedRequest LoopbackServer::lastRequest() const {
  const std::vector<RecordedRequest> all = requests();
  if (all.empty()) ADD_FAILURE() << "the loopback server received no request";
  return all.empty() ? RecordedRequest() : all.back();
}

std::size_t LoopbackServer::connectionCount() const {
  std::set<int> ports;
  for (const RecordedRequest& request : requests())
    ports.insert(request.remotePort);
  return ports.size();
}

int closedLoopbackPort() {
  // Bound but never listening, and then closed: connecting to it is refused.
  int port = 1;
  const int fd = boundLoopbackSocket(port);
  if (fd < 0) ADD_FAILURE() << "cannot reserve a loopback port";
  if (fd >= 0) ::close(fd);
  return port;
}

std::string readWireFile(std::string_view relativePath) {
  std::ifstream file(std::filesystem::path(QOR_TEST_WIRE_DIR) / relativePath, std::ios::binary);
  if (!file) ADD_FAILURE() << "missing wire file " << relativePath;
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace qortest

#include "support/loopback_server.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>

#include "support/raw_server.h"

namespace qortest {

namespace {

void fail(const std::string& what) {
  throw std::runtime_error("loopback server: " + what);
}

using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using CertPtr = std::unique_ptr<X509, decltype(&X509_free)>;

// A P-256 key and a self-signed certificate for 127.0.0.1 and localhost, valid from an hour ago.
std::pair<KeyPtr, CertPtr> makeCertificate() {
  KeyPtr key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  CertPtr owner(X509_new(), X509_free);
  if (!key || !owner) fail("cannot make a key and a certificate");
  X509* cert = owner.get();
  X509_NAME* name = X509_get_subject_name(cert);
  bool ok = X509_set_version(cert, X509_VERSION_3) == 1 &&
            ASN1_INTEGER_set(X509_get_serialNumber(cert), (std::random_device()() >> 1) | 1) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(cert), -3600) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(cert), 24L * 3600) != nullptr &&
            X509_set_pubkey(cert, key.get()) == 1 &&
            X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                       reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1,
                                       0) == 1 &&
            X509_set_issuer_name(cert, name) == 1;
  X509V3_CTX context{};
  X509V3_set_ctx(&context, cert, cert, nullptr, nullptr, 0);
  for (const auto& [nid, value] : {std::pair{NID_basic_constraints, "critical,CA:TRUE"},
                                   {NID_key_usage, "critical,digitalSignature,keyCertSign"},
                                   {NID_ext_key_usage, "serverAuth"},
                                   {NID_subject_key_identifier, "hash"},
                                   {NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost"}}) {
    X509_EXTENSION* extension = ok ? X509V3_EXT_conf_nid(nullptr, &context, nid, value) : nullptr;
    ok = extension != nullptr && X509_add_ext(cert, extension, -1) == 1;
    X509_EXTENSION_free(extension);
  }
  if (!ok || X509_sign(cert, key.get(), EVP_sha256()) == 0) fail("cannot make a certificate");
  return {std::move(key), std::move(owner)};
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
  std::string certFile;
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
    if (!certFile.empty()) std::remove(certFile.c_str());
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
    const auto [key, cert] = makeCertificate();
    std::string path = (std::filesystem::temp_directory_path() / "qor-loopback-XXXXXX.pem");
    const int fd = ::mkstemps(path.data(), 4);
    FILE* file = fd < 0 ? nullptr : ::fdopen(fd, "w");
    if (file == nullptr) fail("cannot create " + path);
    impl_->certFile = certFile_ = path;
    const bool written = PEM_write_X509(file, cert.get()) == 1;
    if (std::fclose(file) != 0 || !written) fail("cannot write " + path);
    impl_->server = std::make_unique<httplib::SSLServer>(cert.get(), key.get());
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

#include "support/loopback_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace qortest {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

// httplib adds the peer's and its own address to the request's headers; they never came over
// the wire, so the record leaves them out.
bool isHttplibPseudoHeader(const std::string& name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
         name == "LOCAL_PORT";
}

// httplib keeps the parameters in a map sorted by name; the record wants them in wire order.
Pairs decodeQuery(const std::string& query) {
  Pairs params;
  std::size_t start = 0;
  while (start <= query.size() && !query.empty()) {
    std::size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    const std::string item = query.substr(start, end - start);
    if (!item.empty()) {
      const std::size_t equals = item.find('=');
      const std::string name = item.substr(0, equals);
      const std::string value = equals == std::string::npos ? "" : item.substr(equals + 1);
      params.emplace_back(httplib::detail::decode_url(name, true),
                          httplib::detail::decode_url(value, true));
    }
    start = end + 1;
  }
  return params;
}

template <typename T, void (*Free)(T*)>
struct OpenSslDeleter {
  void operator()(T* p) const { Free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY, EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, OpenSslDeleter<X509, X509_free>>;

void fail(const char* what) {
  throw std::runtime_error(std::string("loopback TLS: ") + what);
}

void addExtension(X509* cert, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, cert, cert, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  if (extension == nullptr) fail("extension");
  const int added = X509_add_ext(cert, extension, -1);
  X509_EXTENSION_free(extension);
  if (added != 1) fail("add extension");
}

void writePem(const std::filesystem::path& path, const std::function<int(FILE*)>& write) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) fail("open PEM file");
  const int written = write(file);
  if (std::fclose(file) != 0 || written != 1) fail("write PEM file");
}

// A P-256 key and a self-signed certificate for 127.0.0.1 and localhost, valid from an hour ago
// for a day, written as PEM files into the folder.
void makeCertificate(const std::filesystem::path& certFile, const std::filesystem::path& keyFile) {
  KeyPtr key(EVP_EC_gen("P-256"));
  if (!key) fail("key");
  CertPtr cert(X509_new());
  if (!cert) fail("certificate");

  std::uint64_t serial = 0;
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) != 1) fail("serial");
  serial >>= 1;  // positive, as serial numbers must be
  if (X509_set_version(cert.get(), X509_VERSION_3) != 1 ||
      ASN1_INTEGER_set_uint64(X509_get_serialNumber(cert.get()), serial) != 1 ||
      X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) == nullptr ||
      X509_gmtime_adj(X509_getm_notAfter(cert.get()), 24 * 3600) == nullptr ||
      X509_set_pubkey(cert.get(), key.get()) != 1) {
    fail("certificate fields");
  }
  X509_NAME* name = X509_get_subject_name(cert.get());
  if (X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                 reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1,
                                 0) != 1 ||
      X509_set_issuer_name(cert.get(), name) != 1) {
    fail("certificate name");
  }
  addExtension(cert.get(), NID_basic_constraints, "critical,CA:TRUE");
  addExtension(cert.get(), NID_key_usage, "critical,digitalSignature,keyCertSign");
  addExtension(cert.get(), NID_ext_key_usage, "serverAuth");
  addExtension(cert.get(), NID_subject_key_identifier, "hash");
  addExtension(cert.get(), NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
  if (X509_sign(cert.get(), key.get(), EVP_sha256()) == 0) fail("sign");

  writePem(keyFile, [&](FILE* file) {
    return PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  });
  writePem(certFile, [&](FILE* file) { return PEM_write_X509(file, cert.get()); });
}

std::filesystem::path makeTempFolder() {
  static std::atomic<unsigned> counter{0};
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::ostringstream name;
    name << "qor-loopback-" << ::getpid() << '-' << counter++ << '-' << std::hex << random();
    const std::filesystem::path path = std::filesystem::temp_directory_path() / name.str();
    if (std::filesystem::create_directory(path)) return path;
  }
  fail("temporary folder");
  return {};
}

}  // namespace

std::string RecordedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (equalsIgnoringCase(key, name)) return value;
  }
  return {};
}

bool RecordedRequest::hasHeader(std::string_view name) const {
  for (const auto& entry : headers) {
    if (equalsIgnoringCase(entry.first, name)) return true;
  }
  return false;
}

std::string RecordedRequest::queryParam(std::string_view name) const {
  for (const auto& [key, value] : queryParams) {
    if (key == name) return value;
  }
  return {};
}

struct LoopbackServer::Impl {
  Transport transport = Transport::Plain;
  std::filesystem::path folder;
  std::string certFile;
  std::unique_ptr<httplib::Server> server;
  std::thread thread;
  int port = 0;

  mutable std::mutex mutex;
  std::condition_variable stopped;  // wakes delayed replies when the server goes away
  bool stopping = false;
  std::map<std::pair<std::string, std::string>, ScriptedReply> replies;
  ScriptedReply others{404, "", "text/plain", {}, std::chrono::milliseconds(0)};
  std::vector<RecordedRequest> requests;
  std::set<int> remotePorts;

  void handle(const httplib::Request& req, httplib::Response& res) {
    RecordedRequest record;
    record.method = req.method;
    record.path = req.path;
    const std::size_t mark = req.target.find('?');
    if (mark != std::string::npos) record.query = req.target.substr(mark + 1);
    record.queryParams = decodeQuery(record.query);
    for (const auto& [name, value] : req.headers) {
      if (!isHttplibPseudoHeader(name)) record.headers.emplace_back(name, value);
    }
    record.body = req.body;
    record.remotePort = req.remote_port;

    ScriptedReply reply;
    {
      std::unique_lock lock(mutex);
      remotePorts.insert(req.remote_port);
      requests.push_back(std::move(record));
      const auto found = replies.find({req.method, req.path});
      reply = found != replies.end() ? found->second : others;
      if (reply.delay.count() > 0) {
        // Waits like a slow service, but gives up at once when the test is over so that the
        // destructor does not wait for a client that has long stopped listening.
        stopped.wait_for(lock, reply.delay, [this] { return stopping; });
      }
    }
    res.status = reply.status;
    for (const auto& [name, value] : reply.headers)
      res.set_header(name, value);
    res.set_content(reply.body, reply.contentType);
  }
};

LoopbackServer::LoopbackServer(Transport transport) : impl_(std::make_unique<Impl>()) {
  impl_->transport = transport;
  if (transport == Transport::Tls) {
    impl_->folder = makeTempFolder();
    const std::filesystem::path certFile = impl_->folder / "cert.pem";
    const std::filesystem::path keyFile = impl_->folder / "key.pem";
    try {
      makeCertificate(certFile, keyFile);
    } catch (...) {
      std::error_code ignored;
      std::filesystem::remove_all(impl_->folder, ignored);
      throw;
    }
    impl_->certFile = certFile.string();
    impl_->server = std::make_unique<httplib::SSLServer>(certFile.c_str(), keyFile.c_str());
  } else {
    impl_->server = std::make_unique<httplib::Server>();
  }
  httplib::Server& server = *impl_->server;
  if (!server.is_valid()) fail("server setup");
  // Short, so that a connection a test leaves open does not hold up the destructor for long.
  server.set_keep_alive_timeout(1);

  const auto handler = [impl = impl_.get()](const httplib::Request& req, httplib::Response& res) {
    impl->handle(req, res);
  };
  server.Get(".*", handler);
  server.Post(".*", handler);
  server.Put(".*", handler);
  server.Patch(".*", handler);
  server.Delete(".*", handler);
  server.Options(".*", handler);

  impl_->port = server.bind_to_any_port("127.0.0.1");
  if (impl_->port <= 0) throw std::runtime_error("loopback: cannot bind to 127.0.0.1");
  impl_->thread = std::thread([&server] { server.listen_after_bind(); });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!server.is_running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!server.is_running()) ADD_FAILURE() << "the loopback server did not start";
}

LoopbackServer::~LoopbackServer() {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->stopping = true;
  }
  impl_->stopped.notify_all();
  impl_->server->stop();
  if (impl_->thread.joinable()) impl_->thread.join();
  impl_->server.reset();
  if (!impl_->folder.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(impl_->folder, ignored);
  }
}

void LoopbackServer::answer(std::string method, std::string path, ScriptedReply reply) {
  std::lock_guard lock(impl_->mutex);
  impl_->replies[{std::move(method), std::move(path)}] = std::move(reply);
}

void LoopbackServer::answerOthers(ScriptedReply reply) {
  std::lock_guard lock(impl_->mutex);
  impl_->others = std::move(reply);
}

int LoopbackServer::port() const {
  return impl_->port;
}

std::string LoopbackServer::hostAndPort() const {
  return "127.0.0.1:" + std::to_string(impl_->port);
}

std::string LoopbackServer::baseUrl() const {
  return (impl_->transport == Transport::Tls ? "https://" : "http://") + hostAndPort();
}

std::string LoopbackServer::certificateFile() const {
  return impl_->certFile;
}

std::vector<RecordedRequest> LoopbackServer::requests() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->requests;
}

RecordedRequest LoopbackServer::lastRequest() const {
  std::lock_guard lock(impl_->mutex);
  if (impl_->requests.empty()) {
    ADD_FAILURE() << "the loopback server received no request";
    return {};
  }
  return impl_->requests.back();
}

std::size_t LoopbackServer::requestCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->requests.size();
}

std::size_t LoopbackServer::connectionCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->remotePorts.size();
}

int closedLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) {
    ADD_FAILURE() << "socket() failed";
    return 1;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  int port = 1;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  } else {
    ADD_FAILURE() << "cannot reserve a loopback port";
  }
  // Bound but never listening, and then closed: connecting to it is refused.
  ::close(fd);
  return port;
}

std::string readWireFile(std::string_view relativePath) {
  const std::filesystem::path path = std::filesystem::path(QOR_TEST_WIRE_DIR) / relativePath;
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    ADD_FAILURE() << "missing wire file " << relativePath;
    return {};
  }
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace qortest

// The benchmarks' loopback server on cpp-httplib, with a self-signed certificate for TLS.

#include "bench_server.h"

#include <httplib.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <random>
#include <stdexcept>
#include <utility>

namespace qorbench {

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error("bench server: " + what);
}

using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using CertPtr = std::unique_ptr<X509, decltype(&X509_free)>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)>;

// A P-256 key and a self-signed certificate for 127.0.0.1, valid from an hour ago for a day.
std::pair<KeyPtr, CertPtr> makeCertificate() {
  KeyPtr key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  CertPtr cert(X509_new(), X509_free);
  if (!key || !cert) fail("cannot make a key and a certificate");
  X509_NAME* name = X509_get_subject_name(cert.get());
  bool ok =
      X509_set_version(cert.get(), X509_VERSION_3) == 1 &&
      ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), (std::random_device()() >> 1) | 1) == 1 &&
      X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr &&
      X509_gmtime_adj(X509_getm_notAfter(cert.get()), 24L * 3600) != nullptr &&
      X509_set_pubkey(cert.get(), key.get()) == 1 &&
      X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                 reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1,
                                 0) == 1 &&
      X509_set_issuer_name(cert.get(), name) == 1;
  X509V3_CTX context{};
  X509V3_set_ctx(&context, cert.get(), cert.get(), nullptr, nullptr, 0);
  for (const auto& [nid, value] : {std::pair{NID_basic_constraints, "critical,CA:TRUE"},
                                   {NID_key_usage, "critical,digitalSignature,keyCertSign"},
                                   {NID_subject_alt_name, "IP:127.0.0.1"}}) {
    if (!ok) break;
    const ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value),
                                 X509_EXTENSION_free);
    ok = extension != nullptr && X509_add_ext(cert.get(), extension.get(), -1) == 1;
  }
  if (!ok || X509_sign(cert.get(), key.get(), EVP_sha256()) == 0) {
    fail("cannot make a certificate");
  }
  return {std::move(key), std::move(cert)};
}

// Writes the certificate to a new temporary file, whose path goes to the owner at once.
void writeCertificate(X509* cert, std::string& owned) {
  std::string path = (std::filesystem::temp_directory_path() / "qor-bench-XXXXXX.pem").string();
  const int fd = ::mkstemps(path.data(), 4);
  if (fd < 0) fail("cannot create " + path);
  owned = path;
  using FilePtr = std::unique_ptr<FILE, decltype(&std::fclose)>;
  FilePtr file(::fdopen(fd, "w"), &std::fclose);
  if (!file) {
    ::close(fd);
    fail("cannot open " + path);
  }
  if (PEM_write_X509(file.get(), cert) != 1 || std::fclose(file.release()) != 0) {
    fail("cannot write " + path);
  }
}

}  // namespace

BenchServer::BenchServer(Transport transport, const std::string& path, std::string reply) {
  create(transport);
  serve(path, [reply = std::move(reply)](httplib::Response& response) {
    // Not plain "application/json": the server would compress the reply for a client that
    // offers a coding, and only one side of a comparison does.
    response.set_content(reply, "application/json; charset=utf-8");
  });
}

BenchServer::BenchServer(Transport transport, const std::string& path, StreamedReply reply) {
  create(transport);
  serve(path, [this, reply = std::move(reply)](httplib::Response& response) {
    // Each piece the provider hands over leaves at once as one chunk in one send; the content
    // types of streams are ones the server never compresses.
    response.set_chunked_content_provider(
        reply.contentType, [this, &reply](std::size_t, httplib::DataSink& sink) {
          for (std::size_t i = 0; i < reply.pieces.size(); ++i) {
            const Clock::time_point started = Clock::now();
            if (!sink.write(reply.pieces[i].data(), reply.pieces[i].size())) return false;
            if (i == 0) {
              firstWriteReturned_.store(Clock::now().time_since_epoch().count());
              firstWriteStarted_.store(started.time_since_epoch().count());
              std::this_thread::sleep_for(reply.pauseAfterFirst);
            }
          }
          sink.done();
          return true;
        });
  });
}

void BenchServer::create(Transport transport) {
  if (transport == Transport::Tls) {
    const auto [key, cert] = makeCertificate();
    writeCertificate(cert.get(), certFile_.path);
    server_ = std::make_unique<httplib::SSLServer>(cert.get(), key.get());
    scheme_ = "https://";
  } else {
    server_ = std::make_unique<httplib::Server>();
  }
  if (!server_->is_valid()) fail("setup failed");
  // One connection serves the whole run: no reconnect, and no Nagle delay on the replies.
  server_->set_keep_alive_max_count(std::size_t{1} << 30);
  server_->set_keep_alive_timeout(60);
  server_->set_tcp_nodelay(true);
}

void BenchServer::serve(const std::string& path, std::function<void(httplib::Response&)> respond) {
  server_->Post(path, [this, respond = std::move(respond)](const httplib::Request& request,
                                                           httplib::Response& response) {
    lastBodySize_.store(request.body.size());
    postCount_.fetch_add(1);
    respond(response);
  });
  port_ = server_->bind_to_any_port("127.0.0.1");
  if (port_ <= 0) fail("cannot bind to 127.0.0.1");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  for (int waited = 0; waited < 5000 && !server_->is_running(); ++waited)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (!server_->is_running()) {
    server_->stop();
    thread_.join();
    fail("did not start");
  }
}

BenchServer::~BenchServer() {
  server_->stop();
  if (thread_.joinable()) thread_.join();
}

BenchServer::OwnedFile::~OwnedFile() {
  std::error_code ignored;
  if (!path.empty()) std::filesystem::remove(path, ignored);
}

std::string BenchServer::baseUrl() const {
  return scheme_ + "127.0.0.1:" + std::to_string(port_);
}

}  // namespace qorbench

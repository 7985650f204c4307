// Services that misbehave on the wire, each against a chat and a listing of an assistant of each
// gate (OpenAI looks at the reply first, Google at the exchange first): the failure text, the
// history left as it was, memory bounded by the reply size limit, and the next exchange on the
// same pool answered correctly.

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "qor_library.h"
#include "qor_test_util.h"
#include "support/raw_server.h"

namespace {

using namespace qortest;
using namespace std::chrono_literals;

// The largest reply accepted in these tests: small enough to keep the huge bodies cheap, large
// enough that the memory the client needs besides the body does not matter next to it.
constexpr std::size_t kLimit = std::size_t{16} << 20;

// Peak memory growth allowed during one faulty exchange: twice the limit for the body, whose
// buffer grows by doubling (a body that reaches the limit exactly has its old and its new buffer
// alive at once), and 1 MiB for what the client needs whatever the body (curl's buffers, the
// headers). Under AddressSanitizer every freed buffer of the doubling stays in its quarantine and
// every byte has a shadow, which comes to some five times the limit: the bound there only catches
// a body kept beyond the limit. ThreadSanitizer's shadow is several times the memory itself, so
// nothing is measured under it.
#if defined(__SANITIZE_THREAD__)
constexpr std::size_t kPeakBound = 0;
#elif defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kPeakBound = 8 * kLimit;
#else
constexpr std::size_t kPeakBound = 2 * kLimit + (std::size_t{1} << 20);
#endif

std::string curlText(std::int32_t curlCode) {
  return errorText(YLErrorCode::kCurlCodeBase + curlCode);
}

// Reads a field of /proc/self/status in bytes; 0 if missing.
std::size_t statusBytes(const std::string& field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field + ":")) return std::stoul(line.substr(field.size() + 1)) * 1024;
  }
  return 0;
}

// The growth of the peak resident set while the function runs. Writing 5 to clear_refs sets the
// peak back to the current size (Linux 4.0 on); without it nothing can be measured.
std::optional<std::size_t> peakGrowthDuring(const std::function<void()>& run) {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5" << std::flush;
  if (!clear) {
    run();
    return std::nullopt;
  }
  const std::size_t before = statusBytes("VmRSS");
  run();
  const std::size_t peak = statusBytes("VmHWM");
  return peak > before ? peak - before : 0;
}

// The service's side of one test: how a normal reply looks for each gate, "@" standing for the
// reply's text or the model's name.
struct Service {
  QORAssistantType type;
  const char* name;
  const char* chatBody;
  const char* modelsBody;
  const char* chatTail;        // of the library's own failure sentences
  Listing listingWithoutJson;  // a 200 reply without usable JSON
  std::string body(bool chat, const std::string& text) const {
    std::string body = chat ? chatBody : modelsBody;
    return body.replace(body.find('@'), 1, text);
  }
  friend void PrintTo(const Service& service, std::ostream* out) { *out << service.name; }
};

const Service kServices[] = {
    {QORAssistantType::OPENAI_v1, "OpenAI",
     R"~({"choices":[{"message":{"role":"assistant","content":"@"}}]})~",
     R"~({"object":"list","data":[{"id":"@","object":"model","created":1,"owned_by":"o"}]})~",
     ": p/v1/chat/completions", Listing({}, "")},
    {QORAssistantType::GOOGLE, "Google",
     R"~({"candidates":[{"content":{"role":"model","parts":[{"text":"@"}]}}]})~",
     R"~({"models":[{"name":"models/@","supportedGenerationMethods":["generateContent"]}]})~",
     ": p/v1beta/models/m:generateContent", Listing({}, "Invalid response: g/v1beta/models")},
};

// What a faulty exchange comes to.
enum class Expected {
  kFailure,   // the exchange fails with one of the texts, for a chat and a listing alike
  kNoJson,    // a 200 reply without usable JSON: each gate's own way
  kRawBytes,  // a reply whose text (and model name) holds invalid UTF-8, passed on as it is
};

struct Fault {
  const char* name;
  // Makes the behaviour for a chat or a listing of the service.
  std::function<RawBehaviour(const Service&, bool chat)> behaviour;
  Expected expected;
  std::vector<std::string> texts{};  // kFailure: the texts that are as good as each other
  bool huge = false;                 // a body of unbounded size: the memory is measured
  long totalTimeoutMs = 30000;       // the exchange's whole time limit
};

std::string head(const std::string& fields) {
  return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n" + fields + "\r\n";
}

std::string zeros() {
  return std::string(std::size_t{64} * 1024, '0');
}

const std::string kInvalidUtf8 = "bad \xff\xfe\xc3( \xed\xa0\x80 end";

std::vector<Fault> faults() {
  const auto plain = [](const RawBehaviour& behaviour) {
    return [behaviour](const Service&, bool) { return behaviour; };
  };
  const std::string tooLarge = errorText(YLErrorCode::kResponseTooLarge);
  return {
      {"reset in the middle of the body",
       plain([](RawConnection& c, const RawRequest&) {
         c.send(head("Content-Length: 100000\r\n") + std::string(1000, '['));
         std::this_thread::sleep_for(50ms);
         c.reset();
       }),
       Expected::kFailure,
       {curlText(56)}},
      {"a stall after the headers past the total time limit",
       plain([](RawConnection& c, const RawRequest&) {
         c.send(head("Content-Length: 100\r\n"));
         c.waitForPeerClose(10s);
       }),
       Expected::kFailure,
       {curlText(28)},
       false,
       700},
      {"Content-Length of 1 GiB",
       plain([](RawConnection& c, const RawRequest&) {
         c.send(head("Content-Length: 1073741824\r\n"));
         c.sendWhileTaken(zeros, std::size_t{1} << 30);
       }),
       Expected::kFailure,
       {tooLarge},
       true},
      {"an endless chunked body",
       plain([](RawConnection& c, const RawRequest&) {
         c.send(head("Transfer-Encoding: chunked\r\n"));
         static const std::string piece = "10000\r\n" + zeros() + "\r\n";
         c.sendWhileTaken([] { return piece; }, std::size_t{1} << 30);
       }),
       Expected::kFailure,
       {tooLarge},
       true},
      {"a gzip body that inflates to 1 GiB",
       plain([](RawConnection& c, const RawRequest&) {
         c.send(head("Content-Encoding: gzip\r\nConnection: close\r\n"));
         // 13 bits on the wire for every 258 bytes: about 6.5 MiB make 1 GiB.
         c.sendWhileTaken(endlessGzipOfZeros(), (std::size_t{1} << 30) / 258 * 13 / 8);
       }),
       Expected::kFailure,
       {tooLarge},
       true},
      {"Content-Length larger than the body",
       [](const Service& service, bool chat) -> RawBehaviour {
         const std::string body = service.body(chat, "cut");
         return [body](RawConnection& c, const RawRequest&) {
           c.send(head("Content-Length: " + std::to_string(body.size() + 1000) + "\r\n") + body);
         };
       },
       Expected::kFailure,
       {curlText(18)}},
      {"Content-Length smaller than the body",
       [](const Service& service, bool chat) -> RawBehaviour {
         const std::string body = service.body(chat, "long");
         return [body](RawConnection& c, const RawRequest&) {
           // The rest of the body stays on the connection, where the next reply would follow.
           if (c.send(head("Content-Length: 10\r\n") + body)) c.keepOpen();
         };
       },
       Expected::kNoJson},
      {"20 MB of headers",
       plain([](RawConnection& c, const RawRequest&) {
         c.send("HTTP/1.1 200 OK\r\n");
         std::size_t line = 0;
         c.sendWhileTaken(
             [&line] {
               std::string lines;
               for (int i = 0; i < 512; ++i)
                 lines +=
                     "X-Filler-" + std::to_string(line++) + ": " + std::string(100, 'h') + "\r\n";
               return lines;
             },
             20'000'000);
       }),
       // The client refuses more than 1 MiB of headers; libcurl 7.88 with the fix for
       // CVE-2023-38039 refuses them already at 300 KiB, as a failure to receive.
       Expected::kFailure,
       {tooLarge, curlText(56)},
       true},
      {"a reply that is not HTTP",
       plain([](RawConnection& c, const RawRequest&) {
         c.send("SSH-2.0-OpenSSH_9.2p1 Debian-2\r\n\x01\x02\x03");
       }),
       Expected::kFailure,
       {curlText(1)}},
      {"invalid UTF-8 in the body",
       [](const Service& service, bool chat) {
         return httpReply(200, service.body(chat, kInvalidUtf8));
       },
       Expected::kRawBytes},
      {"10^6-deep nesting in the body",
       plain(httpReply(200, std::string(1'000'000, '[') + std::string(1'000'000, ']'))),
       Expected::kNoJson},
  };
}

class Faults : public ::testing::TestWithParam<Service> {
 protected:
  void SetUp() override {
    saved_ = qorGlobalRestSettings();
    // glibc raises its mmap threshold as large blocks are freed, and then serves them from a heap
    // that keeps freed blocks resident: a body that grows by doubling would leave every smaller
    // size in the resident set. A fixed threshold gives every large block a mapping of its own,
    // returned when freed, so that the resident peak follows the memory actually in use.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  }
  void TearDown() override { QORSetHTTPSettings(saved_); }

 private:
  YLRestGlobalSettings saved_;
};

TEST_P(Faults, FailCleanlyAndLeaveThePoolUsable) {
  const Service& service = GetParam();
  RawServer server([&](RawConnection& c, const RawRequest& request) {
    const bool chat = request.method == "POST";
    httpReply(200, service.body(chat, chat ? "fine" : "model-1"))(c, request);
  });
  AssistantPtr assistant = create(service.type, server.baseUrl());
  setModel(*assistant);

  for (const Fault& fault : faults()) {
    SCOPED_TRACE(fault.name);
    YLRestGlobalSettings settings;
    settings.maxResponseBytes = kLimit;
    settings.totalTimeoutMs = fault.totalTimeoutMs;
    QORSetHTTPSettings(settings);

    for (const bool chat : {true, false}) {
      SCOPED_TRACE(chat ? "chat" : "listing");
      server.enqueue(fault.behaviour(service, chat));
      const Turns history = historyOf(*assistant);
      const std::size_t requests = server.requestCount();
      MessagePtr message;
      Listing listing;
      const auto start = std::chrono::steady_clock::now();
      const std::optional<std::size_t> growth = peakGrowthDuring([&] {
        if (chat) {
          std::tie(message, listing.second) = qortest::chat(*assistant, "q");
        } else {
          listing = assistant->obtainAvailableModels();
        }
      });
      EXPECT_EQ(server.requestCount(), requests + 1);

      // A chat's failure is in listing.second, as a listing's is.
      const std::string text(message ? message->obtainSections().at(0)->obtainText() : "");
      switch (fault.expected) {
        case Expected::kFailure:
          EXPECT_EQ(message, nullptr);
          EXPECT_TRUE(listing.first.empty());
          EXPECT_NE(std::find(fault.texts.begin(), fault.texts.end(), listing.second),
                    fault.texts.end())
              << listing.second;
          break;
        case Expected::kNoJson:
          EXPECT_EQ(message, nullptr);
          EXPECT_EQ(listing, chat ? Listing({}, std::string("Invalid response") + service.chatTail)
                                  : service.listingWithoutJson);
          break;
        case Expected::kRawBytes:
          EXPECT_EQ(listing, chat ? Listing({}, "") : Listing({kInvalidUtf8}, ""));
          EXPECT_EQ(text, chat ? kInvalidUtf8 : "");
          break;
      }
      Turns expectedHistory = history;
      if (message != nullptr)
        expectedHistory.insert(expectedHistory.end(),
                               {{kChatRoleUser, "q"}, {kChatRoleAssistant, text}});
      EXPECT_EQ(historyOf(*assistant), expectedHistory);
      if (fault.totalTimeoutMs < 30000) {
        EXPECT_LT(std::chrono::steady_clock::now() - start,
                  std::chrono::milliseconds(fault.totalTimeoutMs) + 2s)
            << "the exchange ends at the time limit";
      }
      if (fault.huge && growth && kPeakBound != 0) {
        EXPECT_LT(*growth, kPeakBound) << "peak memory growth in bytes";
      }

      // The next exchange on the same pool gets the service's normal reply.
      if (chat) {
        expectChat(*assistant, replied("fine"));
      } else {
        EXPECT_EQ(assistant->obtainAvailableModels(), Listing({"model-1"}, ""));
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Gates, Faults, ::testing::ValuesIn(kServices),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace

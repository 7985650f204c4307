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
#include <vector>

#include "qor_library.h"
#include "qor_test_util.h"
#include "support/raw_server.h"

namespace {

using namespace qortest;
using namespace std::chrono_literals;

// The largest reply accepted here: small enough to keep the huge bodies cheap, large enough that
// what the client needs besides the body does not matter next to it.
constexpr std::size_t kLimit = std::size_t{16} << 20;

// Peak memory growth allowed during one faulty exchange: twice the limit, as the body's buffer
// grows by doubling, and 1 MiB for curl's buffers and the headers. AddressSanitizer keeps freed
// buffers in quarantine and shadows every byte (some five times the limit): there the bound only
// catches a body kept beyond the limit. ThreadSanitizer's shadow is too large to measure under.
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

// A field of /proc/self/status in bytes; 0 if missing.
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
  const std::size_t before = statusBytes("VmRSS");
  run();
  const std::size_t peak = statusBytes("VmHWM");
  if (!clear) return std::nullopt;
  return peak > before ? peak - before : 0;
}

// The service's side: a normal reply for each gate, "@" standing for the reply's text or the
// model's name.
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
  Expected expected;
  std::vector<std::string> texts;  // kFailure: the texts that are as good as each other
  bool huge;                       // a body of unbounded size: the memory is measured
  long totalTimeoutMs;             // the exchange's whole time limit
  // Makes the behaviour for a chat or a listing of the service.
  std::function<RawBehaviour(const Service&, bool chat)> behaviour;
};

std::string head(const std::string& fields) {
  return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n" + fields + "\r\n";
}

std::string zeros() {
  return std::string(std::size_t{64} * 1024, '0');
}

const std::string kInvalidUtf8 = "bad \xff\xfe\xc3( \xed\xa0\x80 end";

std::vector<Fault> faults() {
  std::vector<Fault> all;
  const auto add = [&all](const char* name, Expected expected, std::vector<std::string> texts,
                          bool huge, long totalTimeoutMs, const RawBehaviour& behaviour) {
    all.push_back({name, expected, std::move(texts), huge, totalTimeoutMs,
                   [behaviour](const Service&, bool) { return behaviour; }});
  };
  const std::string tooLarge = errorText(YLErrorCode::kResponseTooLarge);
  constexpr long kDefault = 30000;
  add("reset in the middle of the body", Expected::kFailure, {curlText(56)}, false, kDefault,
      [](RawConnection& c, const RawRequest&) {
        c.send(head("Content-Length: 100000\r\n") + std::string(1000, '['));
        std::this_thread::sleep_for(50ms);
        c.reset();
      });
  add("a stall after the headers past the total time limit", Expected::kFailure, {curlText(28)},
      false, 700, [](RawConnection& c, const RawRequest&) {
        c.send(head("Content-Length: 100\r\n"));
        c.waitForPeerClose(10s);
      });
  add("Content-Length of 1 GiB", Expected::kFailure, {tooLarge}, true, kDefault,
      [](RawConnection& c, const RawRequest&) {
        c.send(head("Content-Length: 1073741824\r\n"));
        c.sendWhileTaken(zeros, std::size_t{1} << 30);
      });
  add("an endless chunked body", Expected::kFailure, {tooLarge}, true, kDefault,
      [](RawConnection& c, const RawRequest&) {
        c.send(head("Transfer-Encoding: chunked\r\n"));
        static const std::string piece = "10000\r\n" + zeros() + "\r\n";
        c.sendWhileTaken([] { return piece; }, std::size_t{1} << 30);
      });
  add("a gzip body that inflates to 1 GiB", Expected::kFailure, {tooLarge}, true, kDefault,
      [](RawConnection& c, const RawRequest&) {
        c.send(head("Content-Encoding: gzip\r\nConnection: close\r\n"));
        // 13 bits on the wire for every 258 bytes: about 6.5 MiB make 1 GiB.
        c.sendWhileTaken(endlessGzipOfZeros(), (std::size_t{1} << 30) / 258 * 13 / 8);
      });
  // The client refuses more than 1 MiB of headers; libcurl 7.88 with the fix for CVE-2023-38039
  // refuses them already at 300 KiB, as a failure to receive.
  add("20 MB of headers", Expected::kFailure, {tooLarge, curlText(56)}, true, kDefault,
      [](RawConnection& c, const RawRequest&) {
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
      });
  add("a reply that is not HTTP", Expected::kFailure, {curlText(1)}, false, kDefault,
      [](RawConnection& c, const RawRequest&) {
        c.send("SSH-2.0-OpenSSH_9.2p1 Debian-2\r\n\x01\x02\x03");
      });
  add("10^6-deep nesting in the body", Expected::kNoJson, {}, false, kDefault,
      httpReply(200, std::string(1'000'000, '[') + std::string(1'000'000, ']')));

  // The service's normal reply under a Content-Length that is off by the given amount. The rest
  // of a body longer than announced stays on the connection, where the next reply would follow.
  const auto misannounced = [](long off) {
    return [off](const Service& service, bool chat) -> RawBehaviour {
      const std::string body = service.body(chat, "cut");
      return [body, off](RawConnection& c, const RawRequest&) {
        const std::string length = std::to_string(static_cast<long>(body.size()) + off);
        if (c.send(head("Content-Length: " + length + "\r\n") + body) && off < 0) c.keepOpen();
      };
    };
  };
  all.push_back({"Content-Length larger than the body",
                 Expected::kFailure,
                 {curlText(18)},
                 false,
                 kDefault,
                 misannounced(1000)});
  all.push_back({"Content-Length smaller than the body",
                 Expected::kNoJson,
                 {},
                 false,
                 kDefault,
                 misannounced(-10)});
  all.push_back({"invalid UTF-8 in the body",
                 Expected::kRawBytes,
                 {},
                 false,
                 kDefault,
                 [](const Service& service, bool chat) {
                   return httpReply(200, service.body(chat, kInvalidUtf8));
                 }});
  return all;
}

// What the fault comes to, a chat's outcome written as a listing's: the reply's text as the one
// name, or the failure. A failure may have any of the fault's texts, given the one that came.
Listing expectedOutcome(const Fault& fault, const Service& service, bool chat,
                        const std::string& came) {
  switch (fault.expected) {
    case Expected::kFailure: {
      const bool known =
          std::find(fault.texts.begin(), fault.texts.end(), came) != fault.texts.end();
      return {{}, known ? came : fault.texts.at(0)};
    }
    case Expected::kNoJson:
      return chat ? Listing({}, std::string("Invalid response") + service.chatTail)
                  : service.listingWithoutJson;
    case Expected::kRawBytes:
      break;
  }
  return {{kInvalidUtf8}, ""};
}

class Faults : public ::testing::TestWithParam<Service> {
 protected:
  // glibc raises its mmap threshold as large blocks are freed and then keeps freed blocks
  // resident: a body that grows by doubling would leave every smaller size in the resident set.
  // A fixed threshold gives every large block a mapping of its own, returned when freed.
  void SetUp() override { mallopt(M_MMAP_THRESHOLD, 128 * 1024); }
  void TearDown() override { QORSetHTTPSettings(saved_); }

 private:
  YLRestGlobalSettings saved_ = qorGlobalRestSettings();
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
      Turns history = historyOf(*assistant);
      const std::size_t requests = server.requestCount();
      Listing outcome;
      const auto start = std::chrono::steady_clock::now();
      const std::optional<std::size_t> growth = peakGrowthDuring([&] {
        if (!chat) {
          outcome = assistant->obtainAvailableModels();
          return;
        }
        auto [message, failure] = qortest::chat(*assistant, "q");
        outcome.second = failure;
        if (message) outcome.first.emplace_back(message->obtainSections().at(0)->obtainText());
      });
      EXPECT_EQ(server.requestCount(), requests + 1);

      EXPECT_EQ(outcome, expectedOutcome(fault, service, chat, outcome.second));
      if (chat && !outcome.first.empty())
        history.insert(history.end(),
                       {{kChatRoleUser, "q"}, {kChatRoleAssistant, outcome.first[0]}});
      EXPECT_EQ(historyOf(*assistant), history);
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

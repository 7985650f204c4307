// A service that misbehaves on the wire: the failure text, the history kept, memory bounded by the
// reply size limit, and the pool still usable.

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <optional>
#include <thread>

#include "qor_library.h"
#include "qor_test_util.h"
#include "support/raw_server.h"

namespace {

using namespace qortest;
using namespace std::chrono_literals;

// Small enough to keep the huge bodies cheap, large enough to dwarf the client's other needs.
constexpr std::size_t kLimit = std::size_t{16} << 20;

// Twice the limit (the body's buffer doubles) and 1 MiB for curl; under ASan (quarantine, shadow)
// only a body kept past the limit shows; TSan's shadow is too large to measure under.
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

std::size_t statusBytes(const std::string& field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field + ":")) return std::stoul(line.substr(field.size() + 1)) * 1024;
  }
  return 0;
}

// Writing 5 to clear_refs resets the peak resident set (Linux 4.0 on); without it, no measure.
std::optional<std::size_t> peakGrowthDuring(const std::function<void()>& run) {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5" << std::flush;
  const std::size_t before = statusBytes("VmRSS");
  run();
  const std::size_t peak = statusBytes("VmHWM");
  if (!clear) return std::nullopt;
  return peak > before ? peak - before : 0;
}

std::string normalBody(const std::string& text) {
  return R"~({"candidates":[{"content":{"role":"model","parts":[{"text":")~" + text +
         R"~("}]}}]})~";
}

// A failure with any of the texts; no text: a 200 without usable JSON; kRawBytes: the reply passed
// on with its invalid UTF-8 as it is.
const std::string kInvalidUtf8 = "bad \xff\xfe\xc3( \xed\xa0\x80 end";
const std::vector<std::string> kRawBytes = {kInvalidUtf8};

struct Fault {
  const char* name;
  std::vector<std::string> texts;
  RawBehaviour behaviour;
  bool huge = false;  // a body of unbounded size: the memory is measured
  long totalTimeoutMs = 30000;
};

std::string head(const std::string& fields) {
  return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n" + fields + "\r\n";
}

std::string zeros() {
  return std::string(std::size_t{64} * 1024, '0');
}

// A normal reply under a Content-Length off by `off`; the rest of a longer body stays on the
// connection, where the next reply would follow.
RawBehaviour normal(const std::string& text, long off = 0) {
  return [body = normalBody(text), off](RawConnection& c, const RawRequest&) {
    const std::string length = std::to_string(static_cast<long>(body.size()) + off);
    if (c.send(head("Content-Length: " + length + "\r\n") + body) && off <= 0) c.keepOpen();
  };
}

std::vector<Fault> faults() {
  const std::string tooLarge = errorText(YLErrorCode::kResponseTooLarge);
  return {
      {"a body that trickles past the total time limit",
       {curlText(28)},
       [](RawConnection& c, const RawRequest&) {
         c.send(head("Content-Length: 100\r\n"));
         c.sendWhileTaken(
             [] {
               std::this_thread::sleep_for(100ms);
               return std::string(1, '[');
             },
             100);
       },
       false,
       700},
      {"Content-Length of 1 GiB",
       {tooLarge},
       [](RawConnection& c, const RawRequest&) {
         c.send(head("Content-Length: 1073741824\r\n"));
         c.sendWhileTaken(zeros, std::size_t{1} << 30);
       },
       true},
      {"an endless chunked body",
       {tooLarge},
       [](RawConnection& c, const RawRequest&) {
         c.send(head("Transfer-Encoding: chunked\r\n"));
         static const std::string piece = "10000\r\n" + zeros() + "\r\n";
         c.sendWhileTaken([] { return piece; }, std::size_t{1} << 30);
       },
       true},
      {"a gzip body that inflates to 1 GiB",
       {tooLarge},
       [](RawConnection& c, const RawRequest&) {
         c.send(head("Content-Encoding: gzip\r\nConnection: close\r\n"));
         // Deflate's best, about 1 to 1000: 1 MiB on the wire makes 1 GiB.
         c.sendWhileTaken(endlessGzipOfZeros(), std::size_t{1} << 20);
       },
       true},
      // The client refuses more than 1 MiB of headers; libcurl 7.88 with the fix for
      // CVE-2023-38039 refuses them already at 300 KiB, as a failure to receive.
      {"20 MB of headers",
       {tooLarge, curlText(56)},
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
       },
       true},
      {"10^6-deep nesting in the body",
       {},
       httpReply(200, std::string(1'000'000, '[') + std::string(1'000'000, ']'))},
      {"Content-Length larger than the body", {curlText(18)}, normal("cut", 1000)},
      {"Content-Length smaller than the body", {}, normal("cut", -10)},
      {"invalid UTF-8 in the body", kRawBytes, normal(kInvalidUtf8)},
  };
}

Listing expectedOutcome(const Fault& fault, const std::string& came) {
  if (fault.texts == kRawBytes) return {kRawBytes, ""};
  if (fault.texts.empty()) return {{}, "Invalid response: p/v1beta/models/m:generateContent"};
  const bool known = std::find(fault.texts.begin(), fault.texts.end(), came) != fault.texts.end();
  return {{}, known ? came : fault.texts.at(0)};
}

class Faults : public ::testing::Test {
 protected:
  // A fixed mmap threshold: glibc's rising one would keep every smaller doubling size resident.
  void SetUp() override { mallopt(M_MMAP_THRESHOLD, 128 * 1024); }
  void TearDown() override { QORSetHTTPSettings(saved_); }

 private:
  YLRestGlobalSettings saved_ = qorGlobalRestSettings();
};

TEST_F(Faults, FailCleanlyAndLeaveThePoolUsable) {
  RawServer server(httpReply(200, normalBody("fine")));
  AssistantPtr assistant = create(QORAssistantType::GOOGLE, server.baseUrl());
  setModel(*assistant);

  for (const Fault& fault : faults()) {
    SCOPED_TRACE(fault.name);
    YLRestGlobalSettings settings;
    settings.maxResponseBytes = kLimit;
    settings.totalTimeoutMs = fault.totalTimeoutMs;
    QORSetHTTPSettings(settings);
    server.enqueue(fault.behaviour);
    Turns history = historyOf(*assistant);
    const std::size_t requests = server.requestCount();
    Listing outcome;
    const auto start = std::chrono::steady_clock::now();
    const std::optional<std::size_t> growth = peakGrowthDuring([&] {
      auto [message, failure] = chat(*assistant, "q");
      outcome.second = failure;
      if (message) outcome.first.emplace_back(message->obtainSections().at(0)->obtainText());
    });
    EXPECT_EQ(server.requestCount(), requests + 1);

    EXPECT_EQ(outcome, expectedOutcome(fault, outcome.second));
    if (!outcome.first.empty())
      history.insert(history.end(), {{kChatRoleUser, "q"}, {kChatRoleAssistant, outcome.first[0]}});
    EXPECT_EQ(historyOf(*assistant), history);
    if (fault.totalTimeoutMs < 30000) {
      EXPECT_LT(std::chrono::steady_clock::now() - start,
                std::chrono::milliseconds(fault.totalTimeoutMs) + 2s)
          << "the exchange ends at the time limit";
    }
    if (fault.huge && growth && kPeakBound != 0) {
      EXPECT_LT(*growth, kPeakBound) << "peak memory growth in bytes";
    }
    expectChat(*assistant, replied("fine"));
  }
}

}  // namespace

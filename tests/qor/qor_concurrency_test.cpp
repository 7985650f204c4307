// Separate assistants with their own pools on threads of their own, and a cancel through a pool
// from another thread; the tsan preset runs these under ThreadSanitizer, against the raw loopback
// server (the HTTP library behind the other one is not instrumented and draws reports of its own).

#include <atomic>
#include <chrono>
#include <map>
#include <thread>

#include "qor_test_util.h"
#include "support/raw_server.h"

namespace {

using namespace qortest;

TEST(Threads, TwoAssistantsWithTheirOwnPoolsChatAndListAtOnce) {
  constexpr int kRounds = 10;
  const std::vector<WireService> services = {kWireServices[0], kWireServices[1]};
  std::map<std::string, std::string> replies;  // by method and path
  for (const WireService& service : services) {
    replies[std::string("GET ") + service.modelsPath] = readWireFile(service.modelsFile);
    replies[std::string("POST ") + service.chatPath] = readWireFile(service.chatFile);
  }
  RawServer server([&replies](RawConnection& connection, const RawRequest& request) {
    const std::string path = request.target.substr(0, request.target.find('?'));
    const auto found = replies.find(request.method + " " + path);
    if (found == replies.end()) return httpReply(404, "", "text/plain")(connection, request);
    httpReply(200, found->second)(connection, request);
  });

  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  threads.reserve(services.size());
  for (const WireService& service : services) {
    threads.emplace_back([&server, &ready, &services, service] {
      AssistantPtr assistant = create(service.type, server.baseUrl());
      assistant->updateProperties([](IQORProperties* p) {
        p->setValue("model", YLVariant("m"));
        p->setValue("db_structure", YLVariant(R"~([{"catalog_name":"shop","schemas":[]}])~"));
        p->setValue("user_instructions", YLVariant("Answer in SQL."));
      });
      ++ready;
      while (ready < static_cast<int>(services.size()))
        std::this_thread::yield();
      for (int round = 0; round < kRounds; ++round) {
        EXPECT_EQ(assistant->obtainAvailableModels().first.size(), service.modelCount);
        expectChat(*assistant, replied(service.reply));
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(server.requestCount(), services.size() * 2 * kRounds);
}

TEST(Cancel, ACancelledChatFailsAndLeavesTheHistoryAlone) {
  const WireService& service = kWireServices[0];
  LoopbackServer server;
  server.answer("POST", service.chatPath,
                {.body = readWireFile(service.chatFile), .delay = std::chrono::seconds(5)});
  HostMemory memory;
  memory.history = {{kChatRoleUser, "earlier"}, {kChatRoleAssistant, "answer"}};
  auto* pool = new YLHTTPPoolCenter;
  AssistantPtr assistant(QORCreateAssistant(service.type, pool, "k", server.baseUrl(), &memory));
  ASSERT_NE(assistant, nullptr);
  setModel(*assistant);

  std::thread canceller([pool] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    pool->cancel();
  });
  const auto start = std::chrono::steady_clock::now();
  expectChat(*assistant, failed("Cancelled"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  canceller.join();
  EXPECT_EQ(server.requestCount(), 1u);
  server.answer("POST", service.chatPath, {.body = readWireFile(service.chatFile)});
  expectChat(*assistant, replied(service.reply));
}

}  // namespace

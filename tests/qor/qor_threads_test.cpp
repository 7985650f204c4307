// What qor.h allows to run at once: separate assistants, each with its own pool, on threads of
// their own. The tsan preset runs this under ThreadSanitizer (.ci/run), which reports any race.
//
// The service is the raw loopback server, built with the tests and so watched by ThreadSanitizer
// as well: the HTTP library behind the other loopback server is not instrumented, and its own
// threads draw reports that say nothing about this library.

#include <atomic>
#include <map>
#include <thread>
#include <vector>

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

  // Both threads start their exchanges together, so that they overlap from the first one on.
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  threads.reserve(services.size());
  for (const WireService& service : services) {
    threads.emplace_back([&server, &ready, &services, service] {
      AssistantPtr assistant = create(service.type, server.baseUrl());
      assistant->updateProperties([](IQORProperties* p) {
        p->setValue("model", YLVariant("m"));
        p->setValue(
            "db_structure",
            YLVariant(
                R"~([{"catalog_name":"shop","schemas":[{"schema_name":"s","tables":[)~"
                R"~({"name":"t","fields":[{"name":"id","type":"int"}],"pkeys":["id"]}]}]}])~"));
        p->setValue("user_instructions", YLVariant("Answer in SQL."));
      });
      ++ready;
      while (ready < static_cast<int>(services.size()))
        std::this_thread::yield();
      // Each round adds its two turns to this assistant's history, and nothing of the other's.
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

}  // namespace

// A host cancels an assistant's exchange through the pool it gave the assistant.

#include <chrono>
#include <thread>

#include "qor_test_util.h"

namespace {

using namespace qortest;

std::string completion(const std::string& content) {
  return R"~({"choices":[{"message":{"role":"assistant","content":")~" + content + R"~("}}]})~";
}

TEST(Cancel, ACancelledChatFailsAndLeavesTheHistoryAlone) {
  LoopbackServer server;
  const std::string path = "/v1/chat/completions";
  server.answer("POST", path, {.body = completion("late"), .delay = std::chrono::seconds(5)});
  HostMemory memory;
  memory.history = {{kChatRoleUser, "earlier"}, {kChatRoleAssistant, "answer"}};
  auto* pool = new YLHTTPPoolCenter;
  AssistantPtr assistant(
      QORCreateAssistant(QORAssistantType::OPENAI_v1, pool, "sk-test", server.baseUrl(), &memory));
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

  // The assistant carries on as before.
  server.answer("POST", path, {.body = completion("now")});
  expectChat(*assistant, replied("now"));
}

}  // namespace

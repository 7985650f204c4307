// Every service kind through the exported functions: create, list the models, chat, take the
// memory over, and free it all with QORFreeObject (the sanitizer build reports anything left
// behind); and the exact bodies each service's chat requests carry.

#include <strings.h>

#include "qor_test_util.h"

namespace {

using namespace qortest;

class AllServices : public ::testing::TestWithParam<WireService> {};

// Where a request carries the key: the headers that hold it or are meant for a key, and the query.
std::string credentialsIn(const RecordedRequest& request, const std::string& key) {
  std::string found;
  for (const auto& [name, value] : request.headers) {
    if (value.find(key) != std::string::npos || strcasecmp(name.c_str(), "Authorization") == 0 ||
        strcasecmp(name.c_str(), "x-api-key") == 0)
      found.append(name).append(": ").append(value);
  }
  return request.query.empty() ? found : found + "?" + request.query;
}

TEST_P(AllServices, ListChatAndFreeThroughTheExports) {
  const WireService& service = GetParam();
  LoopbackServer server;
  server.answer("GET", service.modelsPath, {.body = readWireFile(service.modelsFile)});
  server.answer("POST", service.chatPath, {.body = readWireFile(service.chatFile)});
  // Characters that a query must encode.
  const std::string key = "AIza k&y=/+%";
  AssistantPtr assistant = create(service.type, server.baseUrl(), nullptr, key);
  ASSERT_NE(assistant, nullptr);

  const auto [models, failure] = assistant->obtainAvailableModels();
  EXPECT_EQ(failure, "");
  ASSERT_EQ(models.size(), service.modelCount);
  EXPECT_EQ(models.front(), service.firstModel);
  EXPECT_EQ(server.lastRequest().body, "");

  // Without a temperature, instructions or history, the body holds only what the service needs.
  setModel(*assistant);
  expectChat(*assistant, replied(service.reply));
  EXPECT_EQ(server.lastRequest().body, service.plain);

  // Everything set; a turn of the host's with a role of its own is the user's.
  HostMemory memory;
  memory.history = {{7, "hi"}, {kChatRoleAssistant, "R1"}};
  AssistantPtr full = create(service.type, server.baseUrl(), &memory, key);
  full->updateProperties([](IQORProperties* p) {
    p->setValue("model", YLVariant("m"));
    p->setValue("temperature", YLVariant(0.5));
    p->setValue("user_instructions", YLVariant("Be brief."));
  });
  ASSERT_EQ(chat(*full, "q").second, "");
  const bool parts = service.type == QORAssistantType::GOOGLE;
  const std::string turns =
      parts
          ? R"~({"role":"user","parts":[{"text":"hi"}]},{"role":"model","parts":[{"text":"R1"}]},)~"
            R"~({"role":"user","parts":[{"text":"q"}]})~"
          : R"~({"role":"user","content":"hi"},{"role":"assistant","content":"R1"},)~"
            R"~({"role":"user","content":"q"})~";
  std::string expected = service.full;
  expected.replace(expected.find("<turns>"), 7, turns);
  EXPECT_EQ(server.lastRequest().body, expected);

  // All on one kept-alive connection per assistant, each with the key where the service wants it.
  ASSERT_EQ(server.requestCount(), 3u);
  EXPECT_EQ(server.connectionCount(), 2u);
  std::string credential = service.credential;
  if (const std::size_t at = credential.find('@'); at != std::string::npos)
    credential.replace(at, 1, key);
  for (const RecordedRequest& request : server.requests())
    EXPECT_EQ(credentialsIn(request, key), credential) << request.method;

  std::unique_ptr<IQORAssistantMemory, Free> taken(assistant->detachMemory());
  assistant.reset();  // the memory taken over outlives the assistant
  EXPECT_EQ(taken->obtainHistory(20).size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Kinds, AllServices, ::testing::ValuesIn(kWireServices),
                         [](const auto& info) { return std::string(info.param.name); });

// Any other number gives no assistant.
TEST(AllServices, CreateAnswersTheSevenTypesAndNothingElse) {
  EXPECT_EQ(std::size(kWireServices), 7u);
  YLHTTPPoolCenter pool;
  for (std::int32_t type : {7, -1, 1000})
    EXPECT_EQ(QORCreateAssistant(static_cast<QORAssistantType>(type), &pool, "k", "", nullptr),
              nullptr);
  QORFreeObject(nullptr);
}

}  // namespace

// Every service through the exports, with the exact bodies of its requests; the object protocol
// of qor.h and the translation of the library's sentences.

#include <strings.h>

#include <atomic>
#include <cstring>
#include <ctime>

#include "qor_library.h"
#include "qor_message.h"
#include "qor_message_text_section.h"
#include "qor_test_util.h"

namespace {
std::atomic<std::time_t> fixedTime{0};
}  // namespace

// Every call in this binary, the library's included, reaches this time(): fixedTime when not 0.
extern "C" std::time_t time(std::time_t* out) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  const std::time_t fixed = fixedTime.load();
  const std::time_t result = fixed != 0 ? fixed : now.tv_sec;
  if (out != nullptr) *out = result;
  return result;
}

namespace {

using namespace qortest;

class AllServices : public ::testing::TestWithParam<WireService> {};

// The headers that hold the key or are meant for one or its version, and the query.
std::string credentialsIn(const RecordedRequest& request, const std::string& key) {
  std::string found;
  for (const auto& [name, value] : request.headers) {
    if (value.find(key) != std::string::npos || strcasecmp(name.c_str(), "Authorization") == 0 ||
        strcasecmp(name.c_str(), "x-api-key") == 0 ||
        strcasecmp(name.c_str(), "anthropic-version") == 0)
      found.append(name).append(": ").append(value);
  }
  return request.query.empty() ? found : found + "?" + request.query;
}

TEST_P(AllServices, ListChatAndFreeThroughTheExports) {
  const WireService& service = GetParam();
  LoopbackServer server;
  const std::string host = server.baseUrl() + "/proxy/";
  server.answer("GET", std::string("/proxy") + service.modelsPath,
                {.body = readWireFile(service.modelsFile)});
  server.answer("POST", std::string("/proxy") + service.chatPath,
                {.body = readWireFile(service.chatFile)});
  const std::string key = "AIza k&y=/+%";  // to be encoded in a query
  AssistantPtr assistant = create(service.type, host, nullptr, key);
  ASSERT_NE(assistant, nullptr);

  const auto [models, failure] = assistant->obtainAvailableModels();
  EXPECT_EQ(failure, "");
  ASSERT_EQ(models.size(), service.modelCount);
  EXPECT_EQ(models.front(), service.firstModel);
  EXPECT_EQ(server.lastRequest().body, "");

  setModel(*assistant);
  expectChat(*assistant, replied(service.reply));
  EXPECT_EQ(server.lastRequest().body, service.plain);

  // The host's memory gives more than the 20 turns asked for: all go out, a role of the host's own
  // as the user's.
  const bool parts = service.type == QORAssistantType::GOOGLE;
  const auto turn = [parts](bool fromAssistant, const std::string& text) {
    const std::string role = fromAssistant ? (parts ? "model" : "assistant") : "user";
    return R"~({"role":")~" + role +
           (parts ? R"~(","parts":[{"text":")~" + text + R"~("}]})~"
                  : R"~(","content":")~" + text + R"~("})~");
  };
  HostMemory memory;
  std::string turns;
  for (int i = 0; i < 23; ++i) {
    memory.history.push_back(
        {i % 2 == 1 ? kChatRoleAssistant : i % 4 * 3, "t" + std::to_string(i)});
    turns += turn(i % 2 == 1, "t" + std::to_string(i)) + ",";
  }
  AssistantPtr full = create(service.type, host, &memory, key);
  full->updateProperties([](IQORProperties* p) {
    p->setValue("model", YLVariant("m"));
    p->setValue("temperature", YLVariant(1.0));  // the default, still sent once set
    p->setValue("user_instructions", YLVariant("Be brief."));
  });
  ASSERT_EQ(chat(*full, "q").second, "");
  std::string expected = service.full;
  expected.replace(expected.find("<turns>"), 7, turns + turn(false, "q"));
  EXPECT_EQ(server.lastRequest().body, expected);
  EXPECT_EQ(memory.calls, (std::vector<std::string>{"structure", "history 20", "add", "add"}));
  EXPECT_EQ(memory.history.back().text, service.reply);

  ASSERT_EQ(server.requestCount(), 3u);
  EXPECT_EQ(server.connectionCount(), 2u);
  std::string credential = service.credential;
  if (const std::size_t at = credential.find('@'); at != std::string::npos)
    credential.replace(at, 1, key);
  for (const RecordedRequest& request : server.requests())
    EXPECT_EQ(credentialsIn(request, key), credential) << request.method;
  EXPECT_EQ(create(service.type, host, nullptr, "")->obtainAvailableModels().second, "");
  EXPECT_EQ(credentialsIn(server.lastRequest(), "\n"), service.emptyKey);

  std::unique_ptr<IQORAssistantMemory, Free> taken(assistant->detachMemory());
  assistant.reset();  // the memory taken over outlives the assistant
  EXPECT_EQ(taken->obtainHistory(20).size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Kinds, AllServices, ::testing::ValuesIn(kWireServices),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(AllServices, CreateAnswersTheSevenTypesAndNothingElse) {
  EXPECT_EQ(std::size(kWireServices), 7u);
  YLHTTPPoolCenter pool;
  for (std::int32_t type : {7, -1, 1000})
    EXPECT_EQ(QORCreateAssistant(static_cast<QORAssistantType>(type), &pool, "k", "", nullptr),
              nullptr);
  QORFreeObject(nullptr);
}

std::vector<std::string> seen;
std::string answer;
void translate(const char* key, void* record) {
  ASSERT_STREQ(key, "QORLocalizeString");
  auto* info = static_cast<QORCallbackLocalizationInfo*>(record);
  for (char c : info->translation)
    ASSERT_EQ(c, 0) << "the record arrives zeroed";
  seen.emplace_back(info->source);
  std::memcpy(info->translation, answer.data(), answer.size());
}

TEST(Localization, OnlyTheLibrarysSentencesGoThroughTheHostsCallback) {
  LoopbackServer server;
  AssistantPtr assistant = create(QORAssistantType::OPENAI_v1, server.baseUrl());
  const std::string tail = ": p/v1/chat/completions";
  seen.clear();
  answer.clear();
  EXPECT_EQ(chat(*assistant, "q").second, "Model is empty" + tail);  // no callback
  QORRegisterCallback(&translate);
  EXPECT_EQ(chat(*assistant, "q").second, "Model is empty" + tail);  // it writes nothing
  answer = "Modell fehlt";
  EXPECT_EQ(chat(*assistant, "q").second, "Modell fehlt" + tail) << "never the tail";

  // A service's text is its own, even when it reads like one of the library's sentences.
  setModel(*assistant);
  answer = "Réponse invalide";
  server.answer("POST", "/v1/chat/completions", {.body = "<html>"});
  EXPECT_EQ(chat(*assistant, "q").second, "Réponse invalide" + tail);
  server.answer("POST", "/v1/chat/completions", {.status = 400, .body = "Invalid response"});
  EXPECT_EQ(chat(*assistant, "q").second, "Invalid response");
  // Asked anew every time: nothing is cached.
  EXPECT_EQ(seen,
            (std::vector<std::string>{"Model is empty", "Model is empty", "Invalid response"}));

  // A translation may fill the record but its last byte; the empty text is never asked for.
  answer = std::string(1023, 'x');
  EXPECT_EQ(obtainLocalizedText("Invalid response"), answer);
  EXPECT_EQ(obtainLocalizedText(""), "");
  QORRegisterCallback(nullptr);
  EXPECT_EQ(obtainLocalizedText("Unsupported data format"), "Unsupported data format");
  EXPECT_EQ(seen.size(), 4u);
}

TEST(Boundary, MessagesAreStampedByTimeAndOwnTheirSections) {
  // From time(), which hosts compare it with: other clocks run up to a tick ahead of it.
  fixedTime = 1234567890;
  QORMessage* message = QORMessage::makeTextReply(std::string("a\0b", 3));
  fixedTime = 0;
  EXPECT_EQ(message->obtainCreationTime(), 1234567890);

  ASSERT_EQ(message->obtainSections().size(), 1u);
  EXPECT_EQ(message->obtainSections()[0]->obtainText().size(), 3u);
  message->sections.push_back(nullptr);  // skipped by the destructor
  message->sections.push_back(new QORMessageTextSection);
  QORFreeObject(message);  // the leak checker of the sanitizer run holds the rest
}

}  // namespace

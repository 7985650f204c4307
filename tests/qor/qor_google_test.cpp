// The Google assistant over real HTTP: the key in the query of every request and in no header,
// the model in the path, "contents" of "parts", replies from "candidates", failure tails that
// name the model, and the listing of the models that generate content.

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "qor.h"
#include "qor_assistant.h"
#include "support/loopback_server.h"

namespace {

using qortest::LoopbackServer;
using qortest::readWireFile;
using qortest::RecordedRequest;
using qortest::ScriptedReply;
using Names = std::vector<std::string>;
using Listing = std::pair<Names, std::string>;
using Turns = std::vector<std::pair<ChatRole, std::string>>;

const std::string kModelsPath = "/v1beta/models";
const std::string kModelsTail = ": g/v1beta/models";

std::string chatPath(const std::string& model) {
  return "/v1beta/models/" + model + ":generateContent";
}
std::string chatTail(const std::string& model) {
  return ": p" + chatPath(model);
}

struct Deleter {
  void operator()(IQORObject* object) const { QORFreeObject(object); }
};
using AssistantPtr = std::unique_ptr<IQORAssistant, Deleter>;
using MessagePtr = std::unique_ptr<IQORMessage, Deleter>;

std::string httpStatusText(std::int32_t status) {
  return YL::obtainAppFactory()
      ->obtainErrorService()
      ->obtainErrorCatalogue()
      ->obtainErrorRecord(status)
      .text;
}

std::string textReply(const std::string& text) {
  return R"~({"candidates":[{"content":{"role":"model","parts":[{"text":")~" + text +
         R"~("}]}}]})~";
}

Turns turnsOf(const std::vector<QORHistoryEntry>& history) {
  Turns turns;
  for (const QORHistoryEntry& entry : history)
    turns.emplace_back(entry.role, entry.text);
  return turns;
}

// A store of the host's that records the limits it is asked for.
class HostMemory final : public IQORAssistantMemory {
 public:
  void setDatabaseStructure(const std::string& structure) override { structure_ = structure; }
  std::string obtainDatabaseStructure() override { return structure_; }
  void addHistoryEntry(ChatRole role, const std::string& text) override {
    history.push_back({role, text});
  }
  std::vector<QORHistoryEntry> obtainHistory(std::int32_t limit) override {
    limits.push_back(limit);
    return history;
  }
  std::vector<QORHistoryEntry> history;
  std::vector<std::int32_t> limits;

 private:
  std::string structure_;
};

class GoogleAssistant : public ::testing::Test {
 protected:
  AssistantPtr create(IQORAssistantMemory* memory = nullptr, const std::string& key = "g-key",
                      const std::string& host = "") {
    return AssistantPtr(QORCreateAssistant(QORAssistantType::GOOGLE, new YLHTTPPoolCenter, key,
                                           host.empty() ? server.baseUrl() : host, memory));
  }
  AssistantPtr createOffline(IQORAssistantMemory* memory = nullptr) {
    return create(memory, "g-key",
                  "http://127.0.0.1:" + std::to_string(qortest::closedLoopbackPort()));
  }

  static void setModel(IQORAssistant& assistant, const std::string& model) {
    assistant.updateProperties([&](IQORProperties* p) { p->setValue("model", YLVariant(model)); });
  }

  static std::pair<MessagePtr, std::string> chat(IQORAssistant& assistant,
                                                 const std::string& text) {
    auto [message, failure] = assistant.addMessage(text);
    return {MessagePtr(message), failure};
  }

  static Turns historyOf(IQORAssistant& assistant) {
    return turnsOf(static_cast<QORAssistant&>(assistant).memory->obtainHistory(0));
  }

  // One assistant for the tests that need no other.
  IQORAssistant* assistant() {
    if (!shared_)
      shared_ = create();
    return shared_.get();
  }

  LoopbackServer server;

 private:
  AssistantPtr shared_;
};

TEST_F(GoogleAssistant, TheKeyTravelsInTheQueryOnly) {
  // Characters that must be encoded come back whole.
  const std::string key = "AIza k&y=/+%";
  const std::string encoded = "key=AIza%20k%26y%3D%2F%2B%25";
  AssistantPtr assistant = create(nullptr, key);
  const YLRestSession& session = *static_cast<QORAssistant&>(*assistant).session;
  EXPECT_EQ(session.authorizationHeaderValue(), "");
  EXPECT_TRUE(session.headerParams().empty());

  server.answer("GET", kModelsPath, {.body = R"~({"models":[]})~"});
  EXPECT_EQ(assistant->obtainAvailableModels(), Listing({}, ""));
  setModel(*assistant, "gemini-x");
  server.answer("POST", chatPath("gemini-x"), {.body = textReply("ok")});
  ASSERT_EQ(chat(*assistant, "hi").second, "");

  const std::vector<RecordedRequest> requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].path, kModelsPath);
  EXPECT_EQ(requests[1].method, "POST");
  EXPECT_EQ(requests[1].path, chatPath("gemini-x"));
  for (const RecordedRequest& request : requests) {
    EXPECT_EQ(request.query, encoded) << request.method;
    EXPECT_EQ(request.queryParams, (qortest::Pairs{{"key", key}})) << request.method;
    EXPECT_FALSE(request.hasHeader("Authorization")) << request.method;
    EXPECT_FALSE(request.hasHeader("x-goog-api-key")) << request.method;
    for (const auto& [name, value] : request.headers)
      EXPECT_EQ(value.find("AIza"), std::string::npos) << name << ": " << value;
    EXPECT_EQ(request.body.find("AIza"), std::string::npos) << request.method;
  }

  // An empty key is sent all the same.
  AssistantPtr keyless = create(nullptr, "");
  EXPECT_EQ(keyless->obtainAvailableModels(), Listing({}, ""));
  EXPECT_EQ(server.lastRequest().query, "key=");
  setModel(*keyless, "gemini-x");
  ASSERT_EQ(chat(*keyless, "hi").second, "");
  EXPECT_EQ(server.lastRequest().query, "key=");
  EXPECT_EQ(server.lastRequest().queryParams, (qortest::Pairs{{"key", ""}}));
  EXPECT_FALSE(server.lastRequest().hasHeader("Authorization"));
}

TEST_F(GoogleAssistant, BodiesAreExact) {
  HostMemory memory;
  AssistantPtr assistant = create(&memory);
  setModel(*assistant, "gemini-x");

  // A new assistant: only "contents", with the new text; no model in the body.
  server.answer("POST", chatPath("gemini-x"), {.body = textReply("R1")});
  auto [first, failure] = chat(*assistant, "hi");
  ASSERT_EQ(failure, "");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(server.lastRequest().header("Content-Type"), "application/json");
  EXPECT_EQ(server.lastRequest().body,
            R"~({"contents":[{"role":"user","parts":[{"text":"hi"}]}]})~");
  EXPECT_EQ(memory.limits, std::vector<std::int32_t>{20});
  EXPECT_EQ(turnsOf(memory.history), (Turns{{0, "hi"}, {1, "R1"}}));

  // The temperature, the instructions ("parts" an object there), then the history with the
  // assistant's turns as "model".
  assistant->updateProperties([](IQORProperties* p) {
    p->setValue("temperature", YLVariant(0.5));
    p->setValue("user_instructions", YLVariant("Be brief."));
  });
  server.answer("POST", chatPath("gemini-x"), {.body = textReply("R2")});
  ASSERT_EQ(chat(*assistant, "again").second, "");
  EXPECT_EQ(server.lastRequest().body,
            R"~({"generationConfig":{"temperature":0.5},)~"
            R"~("system_instruction":{"parts":{"text":"Be brief.\n\n"}},)~"
            R"~("contents":[{"role":"user","parts":[{"text":"hi"}]},)~"
            R"~({"role":"model","parts":[{"text":"R1"}]},)~"
            R"~({"role":"user","parts":[{"text":"again"}]}]})~");

  // Above 2.0 the temperature is held at 2.0; the default goes out once set; a turn of the
  // host's with another role is the user's; an empty text is sent.
  memory.history = {{7, "odd"}};
  assistant->updateProperties([](IQORProperties* p) {
    p->setValue("temperature", YLVariant(2.5));
    p->setValue("user_instructions", YLVariant(""));
  });
  server.answer("POST", chatPath("gemini-x"), {.body = textReply("R3")});
  ASSERT_EQ(chat(*assistant, "").second, "");
  EXPECT_EQ(server.lastRequest().body, R"~({"generationConfig":{"temperature":2.0},)~"
                                       R"~("contents":[{"role":"user","parts":[{"text":"odd"}]},)~"
                                       R"~({"role":"user","parts":[{"text":""}]}]})~");
  assistant->updateProperties(
      [](IQORProperties* p) { p->setValue("temperature", YLVariant(1.0)); });
  ASSERT_EQ(chat(*assistant, "t").second, "");
  EXPECT_TRUE(
      server.lastRequest().body.starts_with(R"~({"generationConfig":{"temperature":1.0},)~"))
      << server.lastRequest().body;

  // A new model moves the request.
  setModel(*assistant, "gemini-y");
  server.answer("POST", chatPath("gemini-y"), {.body = textReply("R4")});
  ASSERT_EQ(chat(*assistant, "y").second, "");
  EXPECT_EQ(server.lastRequest().path, chatPath("gemini-y"));
}

TEST_F(GoogleAssistant, RepliesJoinTheModelsParts) {
  struct Case {
    const char* name;
    std::string body;
    std::string text;
  };
  const Case cases[] = {
      {"simple", readWireFile("gemini/chat_simple_recorded.json"), "2 + 2 = **4**"},
      {"two candidates", readWireFile("gemini/chat_multi.json"),
       "Mountain View, California.Google is headquartered in Mountain View."},
      {"empty candidates", readWireFile("gemini/chat_empty_candidates_prompt_feedback.json"), ""},
      {"empty content", readWireFile("gemini/chat_empty_content.json"), ""},
      {"function call only", readWireFile("gemini/chat_function_call_only.json"), ""},
      {"no parts", readWireFile("gemini/chat_max_tokens_no_parts.json"), ""},
      {"no content", readWireFile("gemini/chat_no_content_finish_other.json"), ""},
      {"safety, no content", readWireFile("gemini/chat_safety_no_content.json"), ""},
      // Text without a role counts for nothing.
      {"no role", readWireFile("gemini/chat_safety_partial_text_no_role.json"), ""},
      {"mixed",
       R"~({"candidates":[
           {"content":{"role":"user","parts":[{"text":"u"}]}},
           {"content":{"role":"model","parts":[{"text":1},{"text":"a"},{"inline":"x"},"s",
             {"text":"b"}]}},
           "candidate",
           {"content":"text"},
           {"content":{"role":"Model","parts":[{"text":"c"}]}},
           {"content":{"role":"model","parts":{"text":"d"}}},
           {"content":{"role":"model","parts":[{"text":"e"}]}}]})~",
       "abe"},
  };
  for (const Case& c : cases) {
    AssistantPtr assistant = create();
    setModel(*assistant, "gemini-x");
    server.answer("POST", chatPath("gemini-x"), {.body = c.body});
    auto [message, failure] = chat(*assistant, "q");
    ASSERT_NE(message, nullptr) << c.name << ": " << failure;
    EXPECT_EQ(failure, "") << c.name;
    EXPECT_EQ(message->obtainRole(), 1) << c.name;
    ASSERT_EQ(message->obtainSections().size(), 1u) << c.name;
    EXPECT_EQ(message->obtainSections()[0]->obtainText(), c.text) << c.name;
    EXPECT_EQ(historyOf(*assistant), (Turns{{0, "q"}, {1, c.text}})) << c.name;
  }

  // Long replies: the thought part and the answer are joined with nothing between them.
  AssistantPtr assistant = create();
  setModel(*assistant, "gemini-x");
  server.answer("POST", chatPath("gemini-x"),
                {.body = readWireFile("gemini/chat_thought_summary.json")});
  auto [message, failure] = chat(*assistant, "q");
  ASSERT_NE(message, nullptr) << failure;
  const std::string text(message->obtainSections()[0]->obtainText());
  EXPECT_TRUE(text.starts_with("**Thinking About Google's Headquarters**\n\n")) << text;
  EXPECT_TRUE(
      text.ends_with("Let's get that information to them quickly and move on.\n"
                     "Mountain View"))
      << text;
}

TEST_F(GoogleAssistant, FailedChatsNameTheModelAndStoreNothing) {
  HostMemory memory;
  memory.history = {{0, "earlier"}, {1, "answer"}};
  const Turns kept = turnsOf(memory.history);
  AssistantPtr assistant = create(&memory);

  // Without a model there is none to name: one fixed tail, and nothing goes out.
  auto [none, empty] = chat(*assistant, "q");
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(empty, "Model is empty: p/v1beta/models/generateContent");
  EXPECT_EQ(server.requestCount(), 0u);

  const std::string model = "gemini-2.5-flash";
  setModel(*assistant, model);
  struct Case {
    ScriptedReply reply;
    std::string failure;
  };
  const Case cases[] = {
      // Only a string at error.message counts, never the raw body.
      {{.status = 400, .body = readWireFile("gemini/error_400_bad_key.json")},
       "API key not valid. Please pass a valid API key."},
      {{.status = 404, .body = readWireFile("gemini/error_404_unknown_model.json")},
       "models/gemini-5.0-flash is not found for API version v1, or is not supported for "
       "generateContent. Call ListModels to see the list of available models and their "
       "supported methods."},
      {{.status = 500, .body = R"~({"error":"plain"})~"}, httpStatusText(500)},
      {{.status = 429, .body = R"~({"error":{"code":429,"message":7}})~"}, httpStatusText(429)},
      {{.status = 503, .body = "busy", .contentType = "text/plain"}, httpStatusText(503)},
      {{.status = 502, .body = ""}, httpStatusText(502)},
      // A successful exchange with a reply that can't be read.
      {{.body = "<html>", .contentType = "text/html"}, "Invalid response" + chatTail(model)},
      {{.body = ""}, "Invalid response" + chatTail(model)},
      {{.body = readWireFile("gemini/chat_prompt_blocked.json")},
       "Unsupported data format" + chatTail(model)},
      {{.body = R"~({"candidates":{}})~"}, "Unsupported data format" + chatTail(model)},
      {{.body = R"~({"error":{"message":"not read on success"}})~"},
       "Unsupported data format" + chatTail(model)},
  };
  for (const Case& c : cases) {
    server.answer("POST", chatPath(model), c.reply);
    auto [message, failure] = chat(*assistant, "q");
    EXPECT_EQ(message, nullptr) << c.reply.status << " " << c.reply.body;
    EXPECT_EQ(failure, c.failure) << c.reply.status << " " << c.reply.body;
    EXPECT_EQ(turnsOf(memory.history), kept) << c.reply.status << " " << c.reply.body;
  }
  EXPECT_EQ(server.requestCount(), std::size(cases)) << "one request each, no retry";

  AssistantPtr offline = createOffline(&memory);
  setModel(*offline, model);
  auto [message, failure] = chat(*offline, "q");
  EXPECT_EQ(message, nullptr);
  EXPECT_EQ(failure, "Couldn't connect to server");
  EXPECT_EQ(turnsOf(memory.history), kept);
}

// Translates the library's sentences; the tail, model included, stays as it is.
void toGerman(const char* key, void* record) {
  auto* info = static_cast<QORCallbackLocalizationInfo*>(record);
  if (std::strcmp(key, "QORLocalizeString") != 0)
    return;
  if (std::strcmp(info->source, "Unsupported data format") == 0)
    std::strcpy(info->translation, "Nicht unterstütztes Format");
  if (std::strcmp(info->source, "Model is empty") == 0)
    std::strcpy(info->translation, "Kein Modell");
}

TEST_F(GoogleAssistant, OnlyTheSentenceOfAFailureIsTranslated) {
  QORRegisterCallback(&toGerman);
  EXPECT_EQ(assistant()->addMessage("q").second, "Kein Modell: p/v1beta/models/generateContent");
  setModel(*assistant(), "gemini-x");
  server.answer("POST", chatPath("gemini-x"), {.body = "{}"});
  EXPECT_EQ(assistant()->addMessage("q").second,
            "Nicht unterstütztes Format: p/v1beta/models/gemini-x:generateContent");
  server.answer("GET", kModelsPath, {.body = "{}"});
  EXPECT_EQ(assistant()->obtainAvailableModels(),
            Listing({}, "Nicht unterstütztes Format: g/v1beta/models"));
  QORRegisterCallback(nullptr);
}

TEST_F(GoogleAssistant, ModelsThatGenerateContentInReplyOrder) {
  server.answer("GET", kModelsPath, {.body = readWireFile("gemini/models.json")});
  EXPECT_EQ(assistant()->obtainAvailableModels(),
            Listing({"gemini-2.5-flash",
                     "gemini-2.5-pro",
                     "gemini-2.0-flash",
                     "gemini-2.0-flash-001",
                     "gemini-2.0-flash-exp-image-generation",
                     "gemini-2.0-flash-lite-001",
                     "gemini-2.0-flash-lite",
                     "gemini-exp-1206",
                     "gemini-2.5-flash-preview-tts",
                     "gemini-2.5-pro-preview-tts",
                     "gemma-3-1b-it",
                     "gemma-3-4b-it",
                     "gemma-3-12b-it",
                     "gemma-3-27b-it",
                     "gemma-3n-e4b-it",
                     "gemma-3n-e2b-it",
                     "gemini-flash-latest",
                     "gemini-flash-lite-latest",
                     "gemini-pro-latest",
                     "gemini-2.5-flash-lite",
                     "gemini-2.5-flash-image",
                     "gemini-2.5-flash-preview-09-2025",
                     "gemini-2.5-flash-lite-preview-09-2025",
                     "gemini-3-pro-preview",
                     "gemini-3-flash-preview",
                     "gemini-3-pro-image-preview",
                     "nano-banana-pro-preview",
                     "gemini-robotics-er-1.5-preview",
                     "gemini-2.5-computer-use-preview-10-2025",
                     "deep-research-pro-preview-12-2025"},
                    ""));

  // A page with a token for the next: one request, no paging asked for or followed.
  server.answer("GET", kModelsPath, {.body = readWireFile("gemini/models_paged.json")});
  const std::size_t before = server.requestCount();
  EXPECT_EQ(assistant()->obtainAvailableModels(),
            Listing({"gemini-2.5-flash", "gemini-2.5-pro", "gemini-2.0-flash"}, ""));
  EXPECT_EQ(server.requestCount(), before + 1);
  EXPECT_EQ(server.lastRequest().queryParams, (qortest::Pairs{{"key", "g-key"}}));

  server.answer("GET", kModelsPath, {.body = R"~({"models":[
      {"name":"models/late","supportedGenerationMethods":["countTokens",1,"generateContent"]},
      {"name":"models/first","supportedGenerationMethods":["generateContent"]},
      {"name":"models/embed","supportedGenerationMethods":["embedContent"]},
      {"name":"models/cased","supportedGenerationMethods":["GenerateContent","generateContent "]},
      {"name":"tunedModels/mine","supportedGenerationMethods":["generateContent"]},
      {"name":"my-models/x","supportedGenerationMethods":["generateContent"]},
      {"name":"models/models/nested","supportedGenerationMethods":["generateContent"]},
      {"name":"plain","supportedGenerationMethods":["generateContent"]},
      {"name":7,"supportedGenerationMethods":["generateContent"]},
      {"name":"models/string-methods","supportedGenerationMethods":"generateContent"},
      {"name":"models/no-methods"},
      {"supportedGenerationMethods":["generateContent"]},
      "models/bare",
      {"name":"models/first","supportedGenerationMethods":["generateContent"]}]})~"});
  EXPECT_EQ(assistant()->obtainAvailableModels(),
            Listing({"late", "first", "tunedModels/mine", "my-models/x", "models/nested", "plain",
                     "first"},
                    ""));
}

TEST_F(GoogleAssistant, FailedListingsEndAtTheExchange) {
  const std::string models =
      R"~({"models":[{"name":"models/a","supportedGenerationMethods":["generateContent"]}]})~";
  struct Case {
    ScriptedReply reply;
    Listing expected;
  };
  const Case cases[] = {
      // A failed exchange ends the listing, with error.message or the exchange's text.
      {{.status = 400, .body = readWireFile("gemini/error_400_bad_key.json")},
       {{}, "API key not valid. Please pass a valid API key."}},
      {{.status = 403, .body = readWireFile("gemini/error_403_api_not_enabled.json")},
       {{},
        "Generative Language API has not been used in project 12345678 before or it is "
        "disabled. Enable it by visiting "
        "https://console.developers.google.com/apis/api/generativelanguage.googleapis.com/"
        "overview?project=12345678 then retry. If you enabled this API recently, wait a few "
        "minutes for the action to propagate to our systems and retry."}},
      {{.status = 500, .body = R"~({"error":"plain"})~"}, {{}, httpStatusText(500)}},
      {{.status = 503, .body = "busy", .contentType = "text/plain"}, {{}, httpStatusText(503)}},
      {{.status = 500, .body = models}, {{}, httpStatusText(500)}},
      // A successful exchange without JSON is an invalid response.
      {{.body = "<html>", .contentType = "text/html"}, {{}, "Invalid response" + kModelsTail}},
      {{.body = ""}, {{}, "Invalid response" + kModelsTail}},
      // "models" missing or not an array; an "error" isn't looked at after success.
      {{.body = R"~({"models":{}})~"}, {{}, "Unsupported data format" + kModelsTail}},
      {{.body = R"~({"error":{"message":"E"}})~"}, {{}, "Unsupported data format" + kModelsTail}},
      {{.body = "[]"}, {{}, "Unsupported data format" + kModelsTail}},
      // Nothing that counts is a success.
      {{.body = R"~({"models":[]})~"}, {{}, ""}},
  };
  for (const Case& c : cases) {
    server.answer("GET", kModelsPath, c.reply);
    EXPECT_EQ(assistant()->obtainAvailableModels(), c.expected)
        << c.reply.status << " " << c.reply.body;
  }

  EXPECT_EQ(createOffline()->obtainAvailableModels(), Listing({}, "Couldn't connect to server"));
}

}  // namespace

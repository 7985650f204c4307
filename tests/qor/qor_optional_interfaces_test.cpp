// The optional interfaces through dynamic_cast: how each service's reply ended and what it cost,
// from the wire corpus and edits of it; the whole model catalogue beside obtainAvailableModels.

#include <algorithm>

#include "qor_test_util.h"

namespace {

using namespace qortest;
using T = QORAssistantType;

// A body: a file of the wire corpus with its first `from` replaced by `to`, or JSON text itself.
struct Body {
  T type;
  const char* file;
  std::string_view from{}, to{};
  std::string text() const {
    std::string body = file[0] == '{' ? file : readWireFile(file);
    const std::size_t at = from.empty() ? std::string::npos : body.find(from);
    EXPECT_EQ(from.empty(), at == std::string::npos) << from;
    return at == std::string::npos ? body : body.replace(at, from.size(), to);
  }
  const WireService& service() const { return kWireServices[static_cast<int>(type)]; }
};

// "end end-text input output" for a reply; "name created capability..." for a model.
std::string describe(const IQORReplyDetails& d) {
  const char* ends[] = {"Unknown", "Complete", "LengthLimit", "Filtered"};
  return std::string(ends[static_cast<int>(d.obtainReplyEnd())]) + " " + d.obtainReplyEndText() +
         " " + std::to_string(d.obtainUsage().inputTokens) + " " +
         std::to_string(d.obtainUsage().outputTokens);
}
std::string describe(const QORModelEntry& entry) {
  std::string text = entry.name + " " + std::to_string(entry.created);
  for (const std::string& capability : entry.capabilities)
    text += " " + capability;
  return text;
}

TEST(ReplyDetails, EachServiceSaysHowItsReplyEndedAndWhatItCost) {
  const std::pair<Body, const char*> cases[] = {
      {{T::OPENAI_v1, "openai/chat_simple.json"}, "Complete stop 19 10"},
      {{T::OPENAI_v1, "openai/chat_simple.json", "\"stop\"", "\"content_filter\""},
       "Filtered content_filter 19 10"},
      {{T::OPENAI_v1, "openai/chat_simple.json", "\"stop\"", "7"}, "Unknown  19 10"},
      {{T::DEEPSEEK, "deepseek/chat_tool_calls.json"}, "Unknown tool_calls 284 39"},
      {{T::X, "x/chat_simple.json"}, "Complete stop 156 23"},
      {{T::ALIBABA, "alibaba/chat_simple.json", "\"usage\"", "\"usage_\""}, "Complete stop -1 -1"},
      {{T::ANTHROPIC, "anthropic/chat_simple.json"}, "Complete end_turn 705 25"},
      {{T::ANTHROPIC, "anthropic/chat_simple.json", "end_turn", "max_tokens"},
       "LengthLimit max_tokens 705 25"},
      {{T::ANTHROPIC, "anthropic/chat_thinking_refusal.json"}, "Filtered refusal 28 106"},
      {{T::GOOGLE, "google/chat_simple_recorded.json"}, "Complete STOP 10 8"},
      {{T::GOOGLE, "google/chat_max_tokens_no_parts.json"}, "LengthLimit MAX_TOKENS 333780 2048"},
      {{T::GOOGLE, "google/chat_safety_no_content.json"}, "Filtered SAFETY 8 -1"},
      {{T::GOOGLE, "google/chat_no_content_finish_other.json"}, "Unknown OTHER -1 -1"},
      {{T::OLLAMA, "ollama/chat_simple.json"}, "Unknown  26 298"},
      {{T::OLLAMA, "ollama/chat_tool_calls.json", "\"stop\"", "\"length\""},
       "LengthLimit length 169 18"},
      {{T::OLLAMA, "ollama/chat_tool_calls.json", "169", "\"169\""}, "Complete stop -1 18"},
  };
  LoopbackServer server;
  for (const auto& [body, expected] : cases) {
    SCOPED_TRACE(std::string(body.file) + " " + std::string(body.to));
    server.answer("POST", body.service().chatPath, {.body = body.text()});
    AssistantPtr assistant = create(body.type, server.baseUrl());
    setModel(*assistant);
    auto [message, failure] = chat(*assistant, "q");
    ASSERT_EQ(failure, "");
    const auto* details = dynamic_cast<const IQORReplyDetails*>(message.get());
    ASSERT_NE(details, nullptr);
    EXPECT_EQ(describe(*details), expected);
  }
}

TEST(ModelCatalogue, EveryNamedModelInTheListingsOrderAndItsFailuresAsTheListings) {
  const std::pair<Body, std::vector<std::string>> cases[] = {
      {{T::OPENAI_v1, R"({"data":[{"id":"a","object":"model"},{"id":7},{"object":"model"},)"
                      R"({"id":"b","object":"model","created":5},{"id":"c","created":"x"}]})"},
       {"a -1", "b 5", "c -1"}},
      {{T::OPENAI_v1, "openai/models.json"}, {"gpt-4-0613 1686588896", "gpt-4 1687882411"}},
      {{T::GOOGLE, "google/models.json"},
       {"gemini-2.5-flash -1 generateContent countTokens createCachedContent "
        "batchGenerateContent"}},
      {{T::DEEPSEEK, "deepseek/models.json"}, {"deepseek-chat -1", "deepseek-reasoner -1"}},
      {{T::OLLAMA, "ollama/models.json",
        "\"model\":", R"("capabilities":["completion",7],"model":)"},
       {"deepseek-r1:latest -1 completion", "llama3.2:latest -1"}},
      {{T::X, "x/models.json"}, {"grok-2-vision-1212 1733961600"}},
      {{T::ANTHROPIC, "anthropic/models.json"}, {"claude-opus-4-6 1770163200"}},
      {{T::ANTHROPIC, "anthropic/models.json", "2026-02-04T00:00:00Z", "2026-02-04"},
       {"claude-opus-4-6 -1"}},
      {{T::ALIBABA, "alibaba/models.json"}, {"qwen-max 1752741600"}},
  };
  LoopbackServer server;
  for (const auto& [body, head] : cases) {
    SCOPED_TRACE(std::string(body.file) + " " + std::string(body.to));
    server.answer("GET", body.service().modelsPath, {.body = body.text()});
    AssistantPtr assistant = create(body.type, server.baseUrl());
    const auto [entries, failure] =
        dynamic_cast<IQORModelCatalogue&>(*assistant).obtainModelCatalogue();
    EXPECT_EQ(failure, "");
    std::vector<std::string> described;
    for (const QORModelEntry& entry : entries)
      described.push_back(describe(entry));
    ASSERT_GE(described.size(), head.size());
    EXPECT_EQ(std::vector(described.begin(), described.begin() + head.size()), head);
    for (const std::string& name : assistant->obtainAvailableModels().first)
      EXPECT_EQ(std::count_if(entries.begin(), entries.end(),
                              [&name](const QORModelEntry& e) { return e.name == name; }),
                1);

    for (const auto& [status, reply] : {std::pair{401, R"({"error":{"message":"bad key"}})"},
                                        {200, "<html>"},
                                        {200, R"({"error":"busy"})"},
                                        {200, "{}"}}) {
      server.answer("GET", body.service().modelsPath, {.status = status, .body = reply});
      const Listing listing = assistant->obtainAvailableModels();
      const RecordedRequest request = server.lastRequest();
      const auto [none, text] =
          dynamic_cast<IQORModelCatalogue&>(*assistant).obtainModelCatalogue();
      EXPECT_TRUE(none.empty());
      EXPECT_EQ(text, listing.second) << reply;
      EXPECT_EQ(server.lastRequest().path + server.lastRequest().query,
                request.path + request.query);
    }
  }
}

}  // namespace

// Streamed replies through IQORStreamingAssistant: each service's published stream, whole, a byte
// at a time and cut at random, gives one text and one set of details; the request differs from
// addMessage's by the stream flag alone; errors, cuts and cancels fail with the history untouched.

#include <random>

#include "qor_test_util.h"
#include "support/raw_server.h"

namespace {

using namespace qortest;
using T = QORAssistantType;
using Pieces = std::vector<std::string>;

std::string describe(const IQORMessage& message) {
  const auto& d = dynamic_cast<const IQORReplyDetails&>(message);
  const char* ends[] = {"Unknown", "Complete", "LengthLimit", "Filtered"};
  return std::string(message.obtainSections()[0]->obtainText()) + " | " +
         ends[static_cast<int>(d.obtainReplyEnd())] + " " + d.obtainReplyEndText() + " " +
         std::to_string(d.obtainUsage().inputTokens) + " " +
         std::to_string(d.obtainUsage().outputTokens);
}

struct Streamed {
  MessagePtr message;
  std::string failure;
  Pieces fragments;
};

// One streamed "q" to a new assistant of the type on the server; cancelAt cancels the pool at
// that fragment.
Streamed stream(T type, const std::string& host, std::size_t cancelAt = SIZE_MAX) {
  auto* pool = new YLHTTPPoolCenter;
  AssistantPtr assistant(QORCreateAssistant(type, pool, "k", host, nullptr));
  setModel(*assistant);
  Streamed got;
  auto* streaming = dynamic_cast<IQORStreamingAssistant*>(assistant.get());
  EXPECT_NE(streaming, nullptr);
  auto [message, failure] = streaming->addMessageStreaming("q", [&](std::string_view fragment) {
    got.fragments.emplace_back(fragment);
    if (got.fragments.size() == cancelAt) pool->cancel();
  });
  got.message.reset(message);
  got.failure = failure;
  const Turns expected =
      message ? Turns{{0, "q"}, {1, std::string(message->obtainSections()[0]->obtainText())}}
              : Turns{};
  EXPECT_EQ(historyOf(*assistant), expected) << "the history grows only after a success";
  return got;
}

std::string withLineEnds(const std::string& body, const std::string& end) {
  std::string ended;
  for (char c : body)
    ended += c == '\n' ? end : std::string(1, c);
  return ended;
}

// The body whole, a byte at a time (its lines ended by LF, CR or CRLF, as servers may end them),
// and cut at random into pieces of 1 to 64 bytes.
std::vector<Pieces> cuttings(const std::string& body) {
  std::vector<Pieces> all{{body}};
  for (const std::string& ended : {body, withLineEnds(body, "\r"), withLineEnds(body, "\r\n")}) {
    Pieces bytes;
    for (char c : ended)
      bytes.emplace_back(1, c);
    all.push_back(std::move(bytes));
  }
  Pieces random;
  std::minstd_rand draw(static_cast<unsigned>(body.size()));
  for (std::size_t at = 0; at < body.size();) {
    const std::size_t size = std::uniform_int_distribution<std::size_t>(1, 64)(draw);
    random.push_back(body.substr(at, size));
    at += size;
  }
  all.push_back(std::move(random));
  return all;
}

TEST(Streaming, EachServicesStreamGivesOneTextAndDetailsHoweverItIsCut) {
  const std::tuple<T, const char*, const char*> cases[] = {
      {T::OPENAI_v1, "openai/stream_simple_docs.sse", "Hello | Complete stop -1 -1"},
      {T::DEEPSEEK, "deepseek/stream_simple_docs.sse",
       "Hello! How can I assist you today? | Complete stop 17 9"},
      {T::X, "x/stream_simple_docs.sse", "Ah, | Unknown  41 2"},
      {T::X, "x/stream_reasoning_docs.sse", "Ah, | Unknown  41 2"},
      {T::ALIBABA, "alibaba/stream_reasoning_usage_docs.sse", " | Complete stop 10 360"},
      {T::OLLAMA, "ollama/stream_chat_docs_example.ndjson", "The | Unknown  26 282"},
      {T::ANTHROPIC, "anthropic/stream_simple.sse", "Hello! | Complete end_turn 25 15"},
      {T::ANTHROPIC, "anthropic/stream_text_and_tool_use.sse",
       "Okay, let's check the weather for San Francisco, CA: | Unknown tool_use 472 89"},
      {T::ANTHROPIC, "anthropic/stream_thinking.sse",
       "The greatest common divisor of 1071 and 462 is **21**. | Complete end_turn -1 -1"},
      {T::GOOGLE, "google/stream_simple_cookbook.sse", "| Complete STOP -1 -1"},
  };
  for (const auto& [type, file, expected] : cases) {
    const std::string body = readWireFile(file);
    for (const Pieces& pieces : cuttings(body)) {
      SCOPED_TRACE(std::string(file) + " in " + std::to_string(pieces.size()) + " pieces");
      RawServer server;
      server.enqueue(piecewiseReply(200, pieces, -1, std::chrono::microseconds(50)));
      const Streamed got = stream(type, server.baseUrl());
      ASSERT_EQ(got.failure, "");
      const std::string text(got.message->obtainSections()[0]->obtainText());
      std::string joined;
      for (const std::string& fragment : got.fragments)
        joined += fragment;
      EXPECT_EQ(joined, text) << "the fragments make the reply";
      const std::string described = describe(*got.message);
      if (type == T::GOOGLE) {
        EXPECT_TRUE(text.starts_with("In the quaint, sunlit cottage") &&
                    text.ends_with("for adventure stronger than ever."))
            << text;
        EXPECT_EQ(got.fragments.size(), 6u);
        EXPECT_EQ(described.substr(described.find(" | ") + 1), expected);
      } else {
        EXPECT_EQ(described, expected);
      }
    }
  }
}

TEST(Streaming, TheRequestDiffersFromAddMessagesByTheStreamFlagAlone) {
  for (const WireService& service : kWireServices) {
    SCOPED_TRACE(service.name);
    std::string body = service.plain;
    std::string target = service.chatPath;
    if (service.type == T::OLLAMA) {
      body.replace(body.find("false"), 5, "true");
    } else if (service.type == T::ANTHROPIC) {
      body.insert(body.size() - 1, R"(,"stream":true)");
    } else if (service.type == T::GOOGLE) {
      target = "/v1beta/models/m:streamGenerateContent?key=k&alt=sse";
    } else {
      body.insert(body.size() - 1, R"(,"stream":true,"stream_options":{"include_usage":true})");
    }
    RawRequest seen;
    RawServer server;
    server.enqueue([&seen](RawConnection& connection, const RawRequest& request) {
      seen = request;
      httpReply(400, "{}")(connection, request);
    });
    (void)stream(service.type, server.baseUrl());
    EXPECT_EQ(seen.body, body);
    EXPECT_EQ(seen.target, target);
  }
}

// A whole JSON text as one server-sent event, each of its lines a data line.
std::string asEvent(const std::string& json) {
  std::string event = "data: ";
  for (char c : json)
    event += c == '\n' ? std::string("\ndata: ") : std::string(1, c);
  return event + "\n\n";
}

TEST(Streaming, ErrorsCutsAndCancelsFailWithWhatArrivedHandedOnAndTheHistoryUntouched) {
  const std::string simple = readWireFile("openai/stream_simple_docs.sse");
  const std::string halfSimple = simple.substr(0, simple.find("data: {", 10));
  const std::string cancelled = errorText(YLErrorCode::kCancelled);
  const std::string cut = errorText(YLErrorCode::kCurlCodeBase + 18);
  const std::string invalid = "Invalid response: p/v1/chat/completions";
  struct Case {
    T type;
    RawBehaviour reply;
    std::size_t cancelAt;
    std::string failure;
    Pieces fragments;
  };
  const Case cases[] = {
      {T::ANTHROPIC,
       piecewiseReply(200, {readWireFile("anthropic/stream_error_midstream_overloaded.sse")}),
       SIZE_MAX,
       "Overloaded",
       {"Hello", "!"}},
      {T::ANTHROPIC,
       piecewiseReply(200, {readWireFile("anthropic/stream_error_overloaded_event.sse")}),
       SIZE_MAX,
       "Overloaded",
       {}},
      {T::OLLAMA,
       piecewiseReply(200, {readWireFile("ollama/stream_generate_error_midstream.ndjson")}),
       SIZE_MAX,
       R"({"error":"an error was encountered while running the model"})",
       {}},
      {T::OPENAI_v1, piecewiseReply(200, {halfSimple}, 0), SIZE_MAX, invalid, {}},
      {T::OPENAI_v1,
       piecewiseReply(
           200, {halfSimple, "data: {\"choices\":[{\"delta\":{\"content\":\"Hel\"}}]}\n\n"}, 900),
       SIZE_MAX,
       cut,
       {"Hel"}},
      {T::OPENAI_v1,
       piecewiseReply(200, {readWireFile("openai/chat_simple.json")}),
       SIZE_MAX,
       invalid,
       {}},
      {T::GOOGLE,
       piecewiseReply(200, {asEvent(readWireFile("google/chat_prompt_blocked.json"))}),
       SIZE_MAX,
       "Unsupported data format: p/v1beta/models/m:streamGenerateContent",
       {}},
      {T::OPENAI_v1,
       httpReply(401, readWireFile("openai/error_401_bad_key.json")),
       SIZE_MAX,
       "Incorrect API key provided: invalid-key. You can find your API key at "
       "https://platform.openai.com/account/api-keys.",
       {}},
      {T::DEEPSEEK,
       piecewiseReply(200, {simple.substr(0, 400), simple.substr(400, 300), simple.substr(700)}),
       1,
       cancelled,
       {"Hello"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.failure);
    RawServer server;
    server.enqueue(c.reply);
    const Streamed got = stream(c.type, server.baseUrl(), c.cancelAt);
    EXPECT_EQ(got.message, nullptr);
    EXPECT_EQ(got.failure, c.failure);
    EXPECT_EQ(got.fragments, c.fragments);
  }
}

}  // namespace

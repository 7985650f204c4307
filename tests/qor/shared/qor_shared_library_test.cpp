// A host of the built libqor.so, linking nothing of the library's internals: the optional
// interfaces are reached with dynamic_cast across the boundary, though the library hides its own
// type information (each side holds its own copy; they match by name).

#include <gtest/gtest.h>

#include <memory>

#include "qor.h"
#include "support/loopback_server.h"

namespace {

struct Free {
  void operator()(IQORObject* object) const { QORFreeObject(object); }
};

TEST(SharedLibrary, HostsReachTheOptionalInterfacesByDynamicCast) {
  qortest::LoopbackServer server;
  server.answer("POST", "/api/chat",
                {.body = qortest::readWireFile("ollama/chat_tool_calls.json")});
  for (std::int32_t type = 0; type <= 6; ++type) {
    std::unique_ptr<IQORAssistant, Free> assistant(QORCreateAssistant(
        static_cast<QORAssistantType>(type), new YLHTTPPoolCenter, "k", server.baseUrl(), nullptr));
    EXPECT_NE(dynamic_cast<IQORModelCatalogue*>(assistant.get()), nullptr) << type;
    EXPECT_EQ(dynamic_cast<IQORReplyDetails*>(assistant.get()), nullptr) << type;
  }
  std::unique_ptr<IQORAssistant, Free> ollama(QORCreateAssistant(
      QORAssistantType::OLLAMA, new YLHTTPPoolCenter, "", server.baseUrl(), nullptr));
  ollama->updateProperties([](IQORProperties* p) { p->setValue("model", YLVariant("m")); });
  std::unique_ptr<IQORMessage, Free> message(ollama->addMessage("q").first);
  const auto* details = dynamic_cast<const IQORReplyDetails*>(message.get());
  ASSERT_NE(details, nullptr);
  EXPECT_EQ(details->obtainReplyEndText(), "stop");
  EXPECT_EQ(details->obtainUsage().inputTokens, 169);
}

}  // namespace

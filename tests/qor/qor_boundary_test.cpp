// The object protocol of qor.h and the translation of the library's sentences.

#include <cstring>
#include <string>
#include <vector>

#include "qor_library.h"
#include "qor_message.h"
#include "qor_message_text_section.h"
#include "qor_test_util.h"

namespace {

using namespace qortest;

// What the host's callback saw and what it answers.
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

TEST(Boundary, LocalizationRecordCopiesAllItsBytes) {
  QORCallbackLocalizationInfo a;
  a.source = "sentence";
  std::memset(a.translation, 'z', sizeof a.translation);
  QORCallbackLocalizationInfo b;
  b = a;
  EXPECT_EQ(b.source, a.source);
  EXPECT_EQ(std::memcmp(b.translation, a.translation, sizeof a.translation), 0);
  QORCallbackLocalizationInfo c;
  QORCallbackLocalizationInfo& result = (c = std::move(a));
  EXPECT_EQ(&result, &c);
  EXPECT_EQ(c.source, b.source);
  // The moved-from record stays as it was.
  EXPECT_EQ(a.source, b.source);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(a.translation[1023], 'z');
  EXPECT_EQ(std::memcmp(c.translation, b.translation, sizeof b.translation), 0);
}

TEST(Boundary, MessagesOwnTheirSections) {
  QORMessage* message = QORMessage::makeTextReply(std::string("a\0b", 3));
  ASSERT_EQ(message->obtainSections().size(), 1u);
  EXPECT_EQ(message->obtainSections()[0]->obtainText().size(), 3u);
  message->sections.push_back(nullptr);  // skipped by the destructor
  message->sections.push_back(new QORMessageTextSection);
  QORFreeObject(message);  // the leak checker of the sanitizer run holds the rest
}

}  // namespace

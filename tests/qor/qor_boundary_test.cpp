// The exported functions, the object protocol and the translation of the library's sentences.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "qor.h"
#include "qor_library.h"
#include "qor_message.h"
#include "qor_message_text_section.h"

namespace {

// What the host's callback saw and what it answers.
struct Translator {
  static std::vector<std::string>& seen() {
    static std::vector<std::string> all;
    return all;
  }
  static std::string& answer() {
    static std::string text;
    return text;
  }
  static void callback(const char* key, void* record) {
    ASSERT_STREQ(key, "QORLocalizeString");
    auto* info = static_cast<QORCallbackLocalizationInfo*>(record);
    for (char c : info->translation)
      ASSERT_EQ(c, 0) << "the record arrives zeroed";
    seen().emplace_back(info->source);
    std::memcpy(info->translation, answer().data(), answer().size());
  }
};

class Localization : public ::testing::Test {
 protected:
  void SetUp() override {
    Translator::seen().clear();
    Translator::answer().clear();
  }
  void TearDown() override { QORRegisterCallback(nullptr); }
};

TEST_F(Localization, RoundTripsThroughTheHostsCallback) {
  EXPECT_EQ(obtainLocalizedText("Model is empty"), "Model is empty");  // no callback

  QORRegisterCallback(&Translator::callback);
  EXPECT_EQ(obtainLocalizedText("Model is empty"), "Model is empty");  // callback writes nothing
  EXPECT_EQ(Translator::seen(), std::vector<std::string>{"Model is empty"});

  Translator::answer() = "Le modèle est vide";
  EXPECT_EQ(obtainLocalizedText("Model is empty"), "Le modèle est vide");
  Translator::answer() = std::string(1023, 'x');
  EXPECT_EQ(obtainLocalizedText("Invalid response"), std::string(1023, 'x'));
  // Asked anew every time: nothing is cached.
  Translator::answer() = "Autre";
  EXPECT_EQ(obtainLocalizedText("Invalid response"), "Autre");
  EXPECT_EQ(Translator::seen().size(), 4u);

  // The empty text never reaches the callback.
  EXPECT_EQ(obtainLocalizedText(""), "");
  EXPECT_EQ(Translator::seen().size(), 4u);

  // Registering null removes the callback.
  QORRegisterCallback(nullptr);
  EXPECT_EQ(obtainLocalizedText("Unsupported data format"), "Unsupported data format");
  EXPECT_EQ(Translator::seen().size(), 4u);
}

TEST_F(Localization, ModelIsEmptyIsTranslatedButNotItsTail) {
  IQORAssistant* assistant =
      QORCreateAssistant(QORAssistantType::OPENAI_v1, new YLHTTPPoolCenter, "k", "", nullptr);
  auto [message, text] = assistant->addMessage("hello");
  EXPECT_EQ(message, nullptr);
  EXPECT_EQ(text, "Model is empty: p/v1/chat/completions");

  QORRegisterCallback(&Translator::callback);
  Translator::answer() = "Modell fehlt";
  std::tie(message, text) = assistant->addMessage("hello");
  EXPECT_EQ(text, "Modell fehlt: p/v1/chat/completions");
  EXPECT_EQ(Translator::seen(), std::vector<std::string>{"Model is empty"});
  QORFreeObject(assistant);
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
  EXPECT_EQ(a.source, b.source);  // the moved-from record stays as it was
  EXPECT_EQ(a.translation[1023], 'z');
  EXPECT_EQ(std::memcmp(c.translation, b.translation, sizeof b.translation), 0);
}

TEST(Boundary, CreateAnswersTheSevenTypesAndNothingElse) {
  for (std::int32_t type = 0; type <= 6; ++type) {
    IQORAssistant* assistant = QORCreateAssistant(static_cast<QORAssistantType>(type),
                                                  new YLHTTPPoolCenter, "k", "", nullptr);
    EXPECT_NE(assistant, nullptr) << type;
    QORFreeObject(assistant);
  }
  YLHTTPPoolCenter pool;
  for (std::int32_t type : {7, -1, 1000}) {
    EXPECT_EQ(QORCreateAssistant(static_cast<QORAssistantType>(type), &pool, "k", "", nullptr),
              nullptr);
  }
  QORFreeObject(nullptr);
}

TEST(Boundary, MessagesOwnTheirSections) {
  QORMessage* message = QORMessage::makeTextReply(std::string("a\0b", 3));
  EXPECT_EQ(message->obtainRole(), 1);
  EXPECT_GT(message->obtainCreationTime(), 1700000000);
  ASSERT_EQ(message->obtainSections().size(), 1u);
  const IQORMessageSection* section = message->obtainSections()[0];
  EXPECT_EQ(section->obtainSectionType(), 0);
  EXPECT_EQ(section->obtainText().size(), 3u);
  message->sections.push_back(nullptr);  // skipped by the destructor
  message->sections.push_back(new QORMessageTextSection);
  QORFreeObject(message);  // the leak checker of the sanitizer run holds the rest
}

}  // namespace

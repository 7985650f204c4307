// The property record: keys, the record of what was set, hosts, clamping, copies and memories.

#include <tuple>

#include "qor_assistant_properties.h"
#include "qor_assistant_properties_anthropic.h"
#include "qor_default_assistant_memory.h"
#include "qor_test_util.h"

namespace {

using namespace qortest;
using Report = AssertionRecorder::Report;

QORAssistantProperties& liveRecord(IQORAssistant& assistant) {
  return *static_cast<QORAssistant&>(assistant).properties;
}

TEST(Properties, EveryKeyHasItsTypeTakesNothingElseAndRecordsWhatWasSet) {
  QORDefaultAssistantMemory memory;
  QORAssistantProperties record(&memory, "svc.example");
  AssertionRecorder assertions;
  using Type = YLVariant::ValueType;
  // The catalogue's order and descriptions, the type read, and a value refused and reported once.
  const std::tuple<const char*, const char*, Type, YLVariant> keys[] = {
      {"api_host", "string", Type::String, YLVariant(1)},
      {"model", "string", Type::String, YLVariant(2.0)},
      {"temperature", "double", Type::Double, YLVariant(1)},
      {"user_instructions", "string", Type::String, YLVariant()},
      {"system_instructions", "YLVariantMap(string, string)", Type::Map, YLVariant("a")},
      {"db_structure", "YLVariant - ", Type::List, YLVariant("{not json")},
      {"combined_instructions", "string - read only", Type::String, YLVariant("x")},
  };
  const auto catalogue = record.obtainPropertyCatalogue();
  ASSERT_EQ(catalogue.size(), std::size(keys));
  for (std::size_t i = 0; i < catalogue.size(); ++i) {
    const auto& [key, description, type, refused] = keys[i];
    EXPECT_EQ(catalogue[i].first, key);
    EXPECT_TRUE(catalogue[i].second.starts_with(description)) << catalogue[i].second;
    EXPECT_EQ(record.obtainValue(key).getValueType(), type) << key;
    EXPECT_FALSE(record.setValue(key, refused)) << key;
    const auto reports = assertions.take();
    EXPECT_EQ(reports.size(), kAssertionsReported ? 1u : 0u) << key;
    for (const Report& report : reports)
      EXPECT_EQ(report.second, "qor_assistant_properties") << key;
  }
  // The structure is described by a sample of itself.
  EXPECT_TRUE(YLJson(catalogue[5].second.substr(12)).getIsValidJson()) << catalogue[5].second;

  // Defaults; names are exact; refused in silence, and nothing refused counts as set.
  EXPECT_EQ(record.obtainValue("temperature"), YLVariant(1.0));
  EXPECT_EQ(record.obtainValue("system_instructions"), YLVariant(YLVariantMap{}));
  EXPECT_TRUE(record.obtainValue("Model").isNull());
  EXPECT_FALSE(record.setValue("Model", YLVariant("m")));
  EXPECT_FALSE(record.setValue("unknown", YLVariant("x")));
  EXPECT_TRUE(assertions.take().empty());
  EXPECT_TRUE(record.changedKeys.empty());
  EXPECT_EQ(memory.databaseStructure, "");

  // Values read back as set (the temperature unclamped, blanks kept), and their keys count as set.
  const std::pair<const char*, YLVariant> values[] = {{"model", YLVariant("gpt")},
                                                      {"temperature", YLVariant(7.5)},
                                                      {"user_instructions", YLVariant(" b ")}};
  for (const auto& [key, value] : values) {
    EXPECT_TRUE(record.setValue(key, value));
    EXPECT_EQ(record.obtainValue(key), value) << key;
  }
  EXPECT_EQ(record.changedKeys,
            (std::set<std::string, std::less<>>{"model", "temperature", "user_instructions"}));

  // The catalogue holds no value of the record; Anthropic's live record adds one key.
  memory.setDatabaseStructure("[]");
  EXPECT_EQ(record.obtainPropertyCatalogue(), catalogue);
  EXPECT_EQ(QORAssistantProperties_ANTHROPIC(&memory).obtainPropertyCatalogue().back(),
            (std::pair<std::string, std::string>("max_tokens", "integer")));
}

TEST(Properties, DatabaseStructureGoesToTheSharedMemory) {
  QORDefaultAssistantMemory memory;
  QORAssistantProperties record(&memory);
  QORAssistantProperties copy(record);

  // Through a copy, the structure is the one the record sees.
  const char* text = R"~([ {"catalog_name": "x", "schemas": []} ])~";
  EXPECT_TRUE(copy.setValue("db_structure", YLVariant(text)));
  EXPECT_EQ(memory.databaseStructure, text);  // the host's own text, not a rendering
  EXPECT_EQ(record.obtainDatabaseInstructions(), "USE CATALOG `x`\n");

  // A list is turned into JSON; the empty list clears, the empty string does not.
  YLVariantMap catalog{{"catalog_name", "y"}, {"schemas", YLVariantList{}}};
  EXPECT_TRUE(record.setValue("db_structure", YLVariantList{catalog}));
  EXPECT_EQ(record.obtainDatabaseInstructions(), "USE CATALOG `y`\n");
  EXPECT_FALSE(record.setValue("db_structure", YLVariant("")));
  EXPECT_EQ(record.obtainDatabaseInstructions(), "USE CATALOG `y`\n");
  EXPECT_TRUE(record.setValue("db_structure", YLVariantList{}));
  EXPECT_EQ(memory.databaseStructure, "[]");
  EXPECT_EQ(record.obtainValue("db_structure"), YLVariant(YLVariantList{}));

  // Other types store nothing but are taken.
  EXPECT_TRUE(record.setValue("db_structure", YLVariant(YLVariantMap{{"a", "b"}})));
  EXPECT_TRUE(record.setValue("db_structure", YLVariant()));
  EXPECT_EQ(memory.databaseStructure, "[]");
}

TEST(Properties, HostsAreNormalisedToTheServicesOwn) {
  // Trimmed and given https:// in front; an emptied host goes back to the default: the record's,
  // or the service's on an assistant's live record and on copies of it.
  QORDefaultAssistantMemory memory;
  QORAssistantProperties record(&memory, "api.example.com");
  for (const auto& [given, stored] : Pairs{{"  my.host  ", "https://my.host"},
                                           {"HTTP://h", "https://HTTP://h"},
                                           {" \t\n", "https://api.example.com"}}) {
    QORAssistantProperties copy(record);
    EXPECT_TRUE(copy.setValue("api_host", YLVariant(given)));
    EXPECT_EQ(copy.obtainValue("api_host"), YLVariant(stored)) << given;
  }
  EXPECT_FALSE(record.hasChanged("api_host"));
  for (const auto& [type, host] : {std::pair{QORAssistantType::OLLAMA, "https://localhost:11434"},
                                   {QORAssistantType::OPENAI_v1, "https://api.openai.com"}}) {
    AssistantPtr assistant = create(type, "");
    EXPECT_EQ(liveRecord(*assistant).apiHost, host);
    assistant->updateProperties([](IQORProperties* p) { p->setValue("api_host", YLVariant(" ")); });
    EXPECT_EQ(liveRecord(*assistant).apiHost, host);
    PropertiesPtr copy(assistant->obtainProperties());
    copy->setValue("api_host", YLVariant("elsewhere"));
    copy->setValue("api_host", YLVariant(""));
    EXPECT_EQ(copy->obtainValue("api_host"), YLVariant(host));
  }
}

TEST(Properties, UpdatesClampTemperaturesPerService) {
  using enum QORAssistantType;
  const std::tuple<QORAssistantType, double, double> rows[] = {
      {OPENAI_v1, 3.5, 2.0},   {GOOGLE, 3.5, 2.0},     {DEEPSEEK, 3.5, 2.0},
      {OLLAMA, 3.5, 2.0},      {ANTHROPIC, 3.5, 1.0},  {X, 3.5, 1.0},
      {X, 0.7, 0.7},           {ALIBABA, 3.5, 1.99},   {ALIBABA, 2.0, 1.99},
      {ALIBABA, 1.995, 1.995}, {OPENAI_v1, -0.5, 0.0}, {ANTHROPIC, -0.5, 0.0},
      {ALIBABA, -1.0, 0.0},
  };
  for (const auto& [type, set, kept] : rows) {
    AssistantPtr assistant = create(type, "");
    const YLVariant value(set);
    EXPECT_EQ(assistant->updateProperties(
                  [&value](IQORProperties* p) { p->setValue("temperature", value); }),
              "");
    EXPECT_DOUBLE_EQ(liveRecord(*assistant).temperature, kept)
        << static_cast<int>(type) << " " << set;
  }

  EXPECT_THROW(create(OPENAI_v1, "")->updateProperties(nullptr), std::bad_function_call);
}

TEST(Properties, AnthropicsMaxTokensGoOutAndBelongToTheLiveRecordAndMemoriesAreNotOwned) {
  // Anthropic's live record has max_tokens, sent in every request after a temperature held at 1.0,
  // also after a later update that sets something else; a value that isn't an Int is reported and
  // still taken.
  LoopbackServer server;
  server.answer("POST", "/v1/messages", {.body = R"~({"content":[]})~"});
  AssistantPtr anthropic = create(QORAssistantType::ANTHROPIC, server.baseUrl());
  for (const auto& [tokens, temperature, sent, reported] :
       {std::tuple{YLVariant(8192), 1.5, R"~({"model":"m","temperature":1.0,"max_tokens":8192,)~",
                   false},
        {YLVariant(300.9), -0.5, R"~({"model":"m","temperature":0.0,"max_tokens":300,)~", true}}) {
    AssertionRecorder assertions;
    anthropic->updateProperties([&](IQORProperties* p) {
      EXPECT_EQ(p->obtainPropertyCatalogue().size(), 8u);
      p->setValue("model", YLVariant("m"));
      EXPECT_TRUE(p->setValue("max_tokens", tokens));
      p->setValue("temperature", YLVariant(temperature));
    });
    const Report report{"value.getValueType() == YLVariant::ValueType::Int",
                        "qor_assistant_anthropic"};
    EXPECT_EQ(assertions.take(),
              std::vector<Report>(kAssertionsReported && reported ? 1 : 0, report));
    for (int i = 0; i < 2; ++i) {
      ASSERT_EQ(chat(*anthropic, "q").second, "");
      EXPECT_TRUE(server.lastRequest().body.starts_with(sent)) << server.lastRequest().body;
      setModel(*anthropic);
    }
  }
  // A copy is a plain record, with the host the live record was made with.
  AssistantPtr hosted = create(QORAssistantType::ANTHROPIC, "h");
  PropertiesPtr plain(hosted->obtainProperties());
  EXPECT_TRUE(plain->obtainValue("max_tokens").isNull());
  EXPECT_FALSE(plain->setValue("max_tokens", YLVariant(5)));
  EXPECT_EQ(plain->obtainPropertyCatalogue().size(), 7u);
  EXPECT_EQ(plain->obtainValue("api_host"), YLVariant("https://h"));

  // Memories: a detached one is the host's, and so is an attached one; copies keep the memory of
  // their moment.
  AssistantPtr assistant = create(QORAssistantType::DEEPSEEK, "");
  QORAssistant& base = static_cast<QORAssistant&>(*assistant);
  EXPECT_TRUE(base.ownsMemory());
  IQORAssistantMemory* own = assistant->detachMemory();
  EXPECT_EQ(assistant->detachMemory(), own);
  EXPECT_FALSE(base.ownsMemory());
  own->setDatabaseStructure(R"~([{"catalog_name": "old", "schemas": []}])~");
  PropertiesPtr before(assistant->obtainProperties());

  QORDefaultAssistantMemory other;
  other.setDatabaseStructure(R"~([{"catalog_name": "new", "schemas": []}])~");
  assistant->attachMemory(&other);
  EXPECT_EQ(liveRecord(*assistant).obtainDatabaseInstructions(), "USE CATALOG `new`\n");
  EXPECT_EQ(static_cast<QORAssistantProperties&>(*before).obtainDatabaseInstructions(),
            "USE CATALOG `old`\n");
  assistant.reset();
  QORFreeObject(own);
}

}  // namespace

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

  // Defaults; names are exact; refused in silence.
  EXPECT_EQ(record.obtainValue("temperature"), YLVariant(1.0));
  EXPECT_EQ(record.obtainValue("system_instructions"), YLVariant(YLVariantMap{}));
  EXPECT_TRUE(record.obtainValue("Model").isNull());
  EXPECT_FALSE(record.setValue("Model", YLVariant("m")));
  EXPECT_FALSE(record.setValue("db_structure", YLVariant("")));
  EXPECT_FALSE(record.setValue("unknown", YLVariant("x")));
  EXPECT_TRUE(assertions.take().empty());
  EXPECT_TRUE(record.changedKeys.empty());
  EXPECT_EQ(record.model, "");
  EXPECT_EQ(memory.databaseStructure, "");

  EXPECT_TRUE(record.setValue("model", YLVariant("gpt")));
  EXPECT_TRUE(record.setValue("temperature", YLVariant(7.5)));  // stored unclamped
  EXPECT_TRUE(record.setValue("user_instructions", YLVariant(" keep blanks ")));
  EXPECT_EQ(record.obtainValue("model"), YLVariant("gpt"));
  EXPECT_EQ(record.obtainValue("temperature"), YLVariant(7.5));
  EXPECT_EQ(record.obtainValue("user_instructions"), YLVariant(" keep blanks "));
  EXPECT_EQ(record.changedKeys,
            (std::set<std::string, std::less<>>{"model", "temperature", "user_instructions"}));

  // The catalogue holds no value of the record; Anthropic's live record adds one key.
  memory.setDatabaseStructure("[]");
  EXPECT_EQ(record.obtainPropertyCatalogue(), catalogue);
  EXPECT_EQ(QORAssistantProperties_ANTHROPIC(&memory).obtainPropertyCatalogue().back(),
            (std::pair<std::string, std::string>("max_tokens", "integer")));
}

TEST(Properties, SystemInstructionsMergeEntryByEntry) {
  QORDefaultAssistantMemory memory;
  QORAssistantProperties record(&memory);
  AssertionRecorder assertions;

  EXPECT_TRUE(record.setValue("system_instructions", YLVariantMap{{"a", "A"}, {"b", "B"}}));
  EXPECT_TRUE(record.setValue("system_instructions",
                              YLVariantMap{{"b", ""}, {"c", YLVariant(3)}, {"d", "D"}}));
  EXPECT_EQ(record.systemInstructions, (YLVariantMap{{"a", "A"}, {"d", "D"}}));
  if (kAssertionsReported) {
    EXPECT_EQ(assertions.take(),
              std::vector<Report>({{"kv.second.getValueType() == YLVariant::ValueType::String",
                                    "qor_assistant_properties"}}));
  }
  record.changedKeys.clear();
  EXPECT_TRUE(record.setValue("system_instructions", YLVariantMap{}));
  EXPECT_EQ(record.systemInstructions.size(), 2u);
  EXPECT_TRUE(record.hasChanged("system_instructions"));
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
  EXPECT_FALSE(record.hasChanged("db_structure"));
  EXPECT_TRUE(copy.hasChanged("db_structure"));

  // A list is turned into JSON; the empty list clears, the empty string does not.
  YLVariantMap catalog{{"catalog_name", "y"}, {"schemas", YLVariantList{}}};
  EXPECT_TRUE(record.setValue("db_structure", YLVariantList{catalog}));
  EXPECT_EQ(record.obtainDatabaseInstructions(), "USE CATALOG `y`\n");
  EXPECT_FALSE(record.setValue("db_structure", YLVariant("")));
  EXPECT_EQ(record.obtainDatabaseInstructions(), "USE CATALOG `y`\n");
  EXPECT_TRUE(record.setValue("db_structure", YLVariantList{}));
  EXPECT_EQ(memory.databaseStructure, "[]");
  EXPECT_EQ(record.obtainValue("db_structure"), YLVariant(YLVariantList{}));

  // Other types store nothing but count as set.
  record.changedKeys.clear();
  EXPECT_TRUE(record.setValue("db_structure", YLVariant(YLVariantMap{{"a", "b"}})));
  EXPECT_TRUE(record.setValue("db_structure", YLVariant()));
  EXPECT_EQ(memory.databaseStructure, "[]");
  EXPECT_TRUE(record.hasChanged("db_structure"));
}

TEST(Properties, HostsAreNormalisedToTheServicesOwn) {
  QORDefaultAssistantMemory memory;
  QORAssistantProperties record(&memory, "api.example.com");
  const std::pair<const char*, const char*> cases[] = {
      {"  my.host  ", "https://my.host"},
      {" http://127.0.0.1:8080/base/", "http://127.0.0.1:8080/base/"},
      {"HTTP://h", "https://HTTP://h"},
      {" \t\n", "https://api.example.com"},  // an emptied host goes back to the default
  };
  for (const auto& [given, stored] : cases) {
    QORAssistantProperties copy(record);
    EXPECT_TRUE(copy.setValue("api_host", YLVariant(given)));
    EXPECT_EQ(copy.obtainValue("api_host"), YLVariant(stored)) << given;
  }
  EXPECT_FALSE(record.hasChanged("api_host"));

  // An assistant's default is its service's, on the live record and on copies.
  EXPECT_EQ(liveRecord(*create(QORAssistantType::OLLAMA, "")).apiHost, "https://localhost:11434");
  AssistantPtr openai = create(QORAssistantType::OPENAI_v1, "");
  openai->updateProperties([](IQORProperties* p) { p->setValue("api_host", YLVariant("   ")); });
  EXPECT_EQ(liveRecord(*openai).apiHost, "https://api.openai.com");
  PropertiesPtr copy(openai->obtainProperties());
  copy->setValue("api_host", YLVariant("elsewhere"));
  copy->setValue("api_host", YLVariant(""));
  EXPECT_EQ(copy->obtainValue("api_host"), YLVariant("https://api.openai.com"));
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
    // Once set, every later update clamps again, also one that sets nothing.
    liveRecord(*assistant).temperature = 9.0;
    assistant->updateProperties([](IQORProperties*) {});
    EXPECT_LE(liveRecord(*assistant).temperature, 2.0);
  }

  // Never set: neither clamped nor recorded. A copy keeps what was set, unclamped.
  AssistantPtr assistant = create(OPENAI_v1, "");
  liveRecord(*assistant).temperature = 9.0;
  assistant->updateProperties([](IQORProperties*) {});
  EXPECT_EQ(liveRecord(*assistant).temperature, 9.0);
  PropertiesPtr copy(assistant->obtainProperties());
  copy->setValue("temperature", YLVariant(5.0));
  EXPECT_EQ(copy->obtainValue("temperature"), YLVariant(5.0));

  EXPECT_THROW(assistant->updateProperties(nullptr), std::bad_function_call);
}

TEST(Properties, AnthropicsMaxTokensAndMemoriesBelongToTheLiveRecord) {
  // Anthropic's live record has max_tokens (its values are in the Anthropic tests); a copy is a
  // plain record that still knows the key was set.
  AssistantPtr anthropic = create(QORAssistantType::ANTHROPIC, "h");
  anthropic->updateProperties([](IQORProperties* p) {
    EXPECT_EQ(p->obtainPropertyCatalogue().size(), 8u);
    EXPECT_TRUE(p->setValue("max_tokens", YLVariant(2048)));
  });
  PropertiesPtr plain(anthropic->obtainProperties());
  EXPECT_TRUE(plain->obtainValue("max_tokens").isNull());
  EXPECT_FALSE(plain->setValue("max_tokens", YLVariant(5)));
  EXPECT_EQ(plain->obtainPropertyCatalogue().size(), 7u);
  EXPECT_TRUE(static_cast<QORAssistantProperties&>(*plain).hasChanged("max_tokens"));
  EXPECT_EQ(plain->obtainValue("api_host"), YLVariant("https://h"));

  // Memories: detached ones outlive the assistant, attached ones are never owned.
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
  EXPECT_EQ(own->obtainDatabaseStructure(), R"~([{"catalog_name": "old", "schemas": []}])~");
  QORFreeObject(own);
}

TEST(Memory, DefaultMemoryKeepsEverything) {
  QORDefaultAssistantMemory memory;
  memory.addHistoryEntry(0, "a");
  memory.addHistoryEntry(7, "c");
  auto history = memory.obtainHistory(1);  // the limit is the host's to honour; this one doesn't
  ASSERT_EQ(history.size(), 2u);
  EXPECT_EQ(history[1].role, 7);
  history[0].text = "changed";
  EXPECT_EQ(memory.obtainHistory(0)[0].text, "a");
  memory.setDatabaseStructure("[1]");
  memory.setDatabaseStructure("");
  EXPECT_EQ(memory.obtainDatabaseStructure(), "");
}

}  // namespace

// The property record: keys, the record of what was set, hosts, clamping, copies and memories.

#include <gtest/gtest.h>

#include <memory>

#include "qor.h"
#include "qor_assistant.h"
#include "qor_assistant_properties.h"
#include "qor_assistant_properties_anthropic.h"
#include "qor_default_assistant_memory.h"
#include "qor_test_util.h"

namespace {

using qortest::AssertionRecorder;
using Report = AssertionRecorder::Report;

struct AssistantDeleter {
  void operator()(IQORObject* object) const { QORFreeObject(object); }
};
using AssistantPtr = std::unique_ptr<IQORAssistant, AssistantDeleter>;
using PropertiesPtr = std::unique_ptr<IQORProperties, AssistantDeleter>;

AssistantPtr makeAssistant(QORAssistantType type, const std::string& host = "",
                           IQORAssistantMemory* memory = nullptr) {
  return AssistantPtr(QORCreateAssistant(type, new YLHTTPPoolCenter, "key", host, memory));
}

QORAssistantProperties& liveRecord(IQORAssistant& assistant) {
  return *static_cast<QORAssistant&>(assistant).properties;
}

TEST(Properties, KeysTakeOnlyTheirTypeAndRecordWhatWasSet) {
  QORDefaultAssistantMemory memory;
  QORAssistantProperties record(&memory, "svc.example");
  AssertionRecorder assertions;

  // A fresh record: defaults, nothing recorded.
  EXPECT_EQ(record.obtainValue("temperature"), YLVariant(1.0));
  EXPECT_EQ(record.obtainValue("system_instructions"), YLVariant(YLVariantMap{}));
  EXPECT_TRUE(record.changedKeys.empty());
  EXPECT_TRUE(record.obtainValue("Model").isNull());
  EXPECT_FALSE(record.setValue("Model", YLVariant("m")));

  struct WrongType {
    const char* key;
    YLVariant value;
    const char* condition;
  };
  const WrongType wrong[] = {
      {"api_host", YLVariant(1), "value.getValueType() == YLVariant::ValueType::String"},
      {"model", YLVariant(2.0), "value.getValueType() == YLVariant::ValueType::String"},
      {"user_instructions", YLVariant(), "value.getValueType() == YLVariant::ValueType::String"},
      {"temperature", YLVariant(1), "value.getValueType() == YLVariant::ValueType::Double"},
      {"system_instructions", YLVariant("a"), "value.getValueType() == YLVariant::ValueType::Map"},
      {"db_structure", YLVariant("{not json"), "json.getIsValidJson()"},
      {"combined_instructions", YLVariant("x"), "false"},
  };
  for (const WrongType& w : wrong) {
    EXPECT_FALSE(record.setValue(w.key, w.value)) << w.key;
    const auto reports = assertions.take();
    if (qortest::kAssertionsReported) {
      EXPECT_EQ(reports, std::vector<Report>({{w.condition, "qor_assistant_properties"}})) << w.key;
    }
  }
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
}

TEST(Properties, SystemInstructionsMergeEntryByEntry) {
  QORDefaultAssistantMemory memory;
  QORAssistantProperties record(&memory);
  AssertionRecorder assertions;

  EXPECT_TRUE(record.setValue("system_instructions", YLVariantMap{{"a", "A"}, {"b", "B"}}));
  EXPECT_TRUE(record.setValue("system_instructions",
                              YLVariantMap{{"b", ""}, {"c", YLVariant(3)}, {"d", "D"}}));
  EXPECT_EQ(record.systemInstructions, (YLVariantMap{{"a", "A"}, {"d", "D"}}));
  if (qortest::kAssertionsReported) {
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

TEST(Properties, HostsAreNormalised) {
  QORDefaultAssistantMemory memory;
  QORAssistantProperties record(&memory, "api.example.com");
  const std::pair<const char*, const char*> cases[] = {
      {"  my.host  ", "https://my.host"},
      {"http://127.0.0.1:8080/base/", "http://127.0.0.1:8080/base/"},
      {"https://h", "https://h"},
      {"HTTP://h", "https://HTTP://h"},
      {"ftp://h", "https://ftp://h"},
      {" \t\n", "https://api.example.com"},  // an emptied host goes back to the default
      {"", "https://api.example.com"},
  };
  for (const auto& [given, stored] : cases) {
    QORAssistantProperties copy(record);
    EXPECT_TRUE(copy.setValue("api_host", YLVariant(given)));
    EXPECT_EQ(copy.obtainValue("api_host"), YLVariant(stored)) << given;
  }
  EXPECT_FALSE(record.hasChanged("api_host"));

  record.normaliseHost("  x  ", "fallback");
  EXPECT_EQ(record.apiHost, "https://x");
  record.normaliseHost("", " fallback");  // the fallback is not trimmed
  EXPECT_EQ(record.apiHost, "https:// fallback");
}

TEST(Properties, CatalogueDescribesTheKeys) {
  QORDefaultAssistantMemory memory;
  QORAssistantProperties record(&memory);
  const auto catalogue = record.obtainPropertyCatalogue();
  ASSERT_EQ(catalogue.size(), 7u);
  const char* keys[] = {"api_host",
                        "model",
                        "temperature",
                        "user_instructions",
                        "system_instructions",
                        "db_structure",
                        "combined_instructions"};
  for (std::size_t i = 0; i < 7; ++i)
    EXPECT_EQ(catalogue[i].first, keys[i]);
  EXPECT_EQ(catalogue[0].second, "string");
  EXPECT_EQ(catalogue[1].second, "string");
  EXPECT_EQ(catalogue[2].second, "double");
  EXPECT_EQ(catalogue[3].second, "string");
  EXPECT_EQ(catalogue[4].second, "YLVariantMap(string, string)");
  EXPECT_EQ(catalogue[5].second,
            R"~(YLVariant - [{"catalog_id":"optional","catalog_name":"optional","schemas":[{)~"
            R"~("schema_id":"optional","schema_name":"optional","tables":[{"name":"","fields":[)~"
            R"~({"name":"","type":""}],"pkeys":["optional"],"fkeys":[{"fields":[""],)~"
            R"~("ref_schema":"optional","ref_table":"","ref_fields":[""]}]}],"views":[null],)~"
            R"~("mviews":[null]}]}])~");
  EXPECT_EQ(catalogue[6].second, "string - read only");

  // The catalogue holds no value of the record.
  record.setValue("model", YLVariant("m"));
  memory.setDatabaseStructure("[]");
  EXPECT_EQ(record.obtainPropertyCatalogue(), catalogue);

  QORAssistantProperties_ANTHROPIC anthropic(&memory);
  auto extended = anthropic.obtainPropertyCatalogue();
  ASSERT_EQ(extended.size(), 8u);
  EXPECT_EQ(extended.back(), (std::pair<std::string, std::string>("max_tokens", "integer")));
}

TEST(Properties, UpdatesClampTemperaturesPerService) {
  struct Row {
    QORAssistantType type;
    double set;
    double kept;
  };
  const Row rows[] = {
      {QORAssistantType::OPENAI_v1, 3.5, 2.0},  {QORAssistantType::GOOGLE, 3.5, 2.0},
      {QORAssistantType::DEEPSEEK, 3.5, 2.0},   {QORAssistantType::OLLAMA, 3.5, 2.0},
      {QORAssistantType::ANTHROPIC, 3.5, 1.0},  {QORAssistantType::X, 3.5, 1.0},
      {QORAssistantType::X, 0.7, 0.7},          {QORAssistantType::ALIBABA, 3.5, 1.99},
      {QORAssistantType::ALIBABA, 2.0, 1.99},   {QORAssistantType::ALIBABA, 1.995, 1.995},
      {QORAssistantType::OPENAI_v1, -0.5, 0.0}, {QORAssistantType::ANTHROPIC, -0.5, 0.0},
      {QORAssistantType::ALIBABA, -1.0, 0.0},
  };
  for (const Row& row : rows) {
    AssistantPtr assistant = makeAssistant(row.type);
    ASSERT_TRUE(assistant);
    EXPECT_EQ(assistant->updateProperties(
                  [&](IQORProperties* p) { p->setValue("temperature", YLVariant(row.set)); }),
              "");
    EXPECT_DOUBLE_EQ(liveRecord(*assistant).temperature, row.kept)
        << static_cast<int>(row.type) << " " << row.set;
    // Once set, every later update clamps again, also one that sets nothing.
    liveRecord(*assistant).temperature = 9.0;
    assistant->updateProperties([](IQORProperties*) {});
    EXPECT_LE(liveRecord(*assistant).temperature, 2.0);
  }

  // Never set: neither clamped nor recorded. A copy keeps what was set, unclamped.
  AssistantPtr assistant = makeAssistant(QORAssistantType::OPENAI_v1);
  liveRecord(*assistant).temperature = 9.0;
  assistant->updateProperties([](IQORProperties*) {});
  EXPECT_EQ(liveRecord(*assistant).temperature, 9.0);
  PropertiesPtr copy(assistant->obtainProperties());
  copy->setValue("temperature", YLVariant(5.0));
  EXPECT_EQ(copy->obtainValue("temperature"), YLVariant(5.0));

  EXPECT_THROW(assistant->updateProperties(nullptr), std::bad_function_call);
}

TEST(Properties, AssistantsOwnHostsCopiesAndMemories) {
  AssistantPtr openai = makeAssistant(QORAssistantType::OPENAI_v1);
  EXPECT_EQ(liveRecord(*openai).apiHost, "https://api.openai.com");
  AssistantPtr ollama = makeAssistant(QORAssistantType::OLLAMA);
  EXPECT_EQ(liveRecord(*ollama).apiHost, "https://localhost:11434");
  AssistantPtr local = makeAssistant(QORAssistantType::OLLAMA, " http://127.0.0.1:1/x ");
  EXPECT_EQ(liveRecord(*local).apiHost, "http://127.0.0.1:1/x");

  // An emptied host returns to the service's own, on the live record and on copies.
  openai->updateProperties([](IQORProperties* p) { p->setValue("api_host", YLVariant("   ")); });
  EXPECT_EQ(liveRecord(*openai).apiHost, "https://api.openai.com");
  PropertiesPtr copy(openai->obtainProperties());
  copy->setValue("api_host", YLVariant("elsewhere"));
  copy->setValue("api_host", YLVariant(""));
  EXPECT_EQ(copy->obtainValue("api_host"), YLVariant("https://api.openai.com"));

  // Anthropic's live record has max_tokens; the copy is a plain record.
  AssistantPtr anthropic = makeAssistant(QORAssistantType::ANTHROPIC, "h");
  AssertionRecorder assertions;
  anthropic->updateProperties([](IQORProperties* p) {
    EXPECT_EQ(p->obtainValue("max_tokens"), YLVariant(1024));
    EXPECT_TRUE(p->setValue("max_tokens", YLVariant(2048.9)));  // reported, stored all the same
    EXPECT_EQ(p->obtainValue("max_tokens"), YLVariant(2048));
    EXPECT_EQ(p->obtainPropertyCatalogue().size(), 8u);
  });
  if (qortest::kAssertionsReported) {
    EXPECT_EQ(assertions.take(),
              std::vector<Report>({{"value.getValueType() == YLVariant::ValueType::Int",
                                    "qor_assistant_anthropic"}}));
  }
  PropertiesPtr plain(anthropic->obtainProperties());
  EXPECT_TRUE(plain->obtainValue("max_tokens").isNull());
  EXPECT_FALSE(plain->setValue("max_tokens", YLVariant(5)));
  EXPECT_EQ(plain->obtainPropertyCatalogue().size(), 7u);
  EXPECT_TRUE(static_cast<QORAssistantProperties&>(*plain).hasChanged("max_tokens"));
  EXPECT_EQ(plain->obtainValue("api_host"), YLVariant("https://h"));

  // Memories: detached ones outlive the assistant, attached ones are never owned.
  AssistantPtr assistant = makeAssistant(QORAssistantType::DEEPSEEK);
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
  EXPECT_EQ(memory.obtainDatabaseStructure(), "");
  EXPECT_TRUE(memory.obtainHistory(20).empty());
  memory.addHistoryEntry(0, "a");
  memory.addHistoryEntry(1, "b");
  memory.addHistoryEntry(7, "c");
  auto history = memory.obtainHistory(1);
  ASSERT_EQ(history.size(), 3u);
  EXPECT_EQ(history[2].role, 7);
  EXPECT_EQ(history[1].text, "b");
  history[0].text = "changed";
  EXPECT_EQ(memory.obtainHistory(0)[0].text, "a");
  memory.setDatabaseStructure("[1]");
  memory.setDatabaseStructure("");
  EXPECT_EQ(memory.obtainDatabaseStructure(), "");
}

}  // namespace

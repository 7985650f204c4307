// Database structures for the benchmarks, built as text without any JSON library.

#include "bench_data.h"

namespace qorbench {

std::string makeStructure(int tables, Links links) {
  std::string text = R"~([{"catalog_id":"c1","catalog_name":"warehouse","schemas":[)~";
  std::string schema;
  for (int t = 0; t < tables; ++t) {
    const std::string n = std::to_string(t);
    if (t % 500 == 0) {
      if (t > 0) text += "]},";
      schema = "schema_" + n;
      text += R"~({"schema_id":"s)~" + n + R"~(","schema_name":")~" + schema + R"~(","tables":[)~";
    } else {
      text += ',';
    }
    text += R"~({"name":"table_number_)~" + n + R"~(","fields":[)~";
    text +=
        R"~({"name":"identifier","type":"bigint"},{"name":"customer_reference","type":"int"},)~";
    text += R"~({"name":"created_at","type":"timestamp with time zone"},)~";
    text += R"~({"name":"description_text","type":"varchar(255)"},)~";
    text +=
        R"~({"name":"total_amount","type":"decimal(12,2)"},{"name":"status","type":"smallint"},)~";
    text += R"~({"name":"updated_by_user","type":"varchar(64)"},)~";
    text += R"~({"name":"archived_at","type":"timestamp without time zone"},)~";
    text += R"~({"name":"is_archived","type":"boolean"}],"pkeys":["identifier"])~";
    if (links == Links::ToOneTable) {
      text += R"~(,"fkeys":[{"fields":["customer_reference"],)~";
      text += R"~("ref_schema":"schema_0","ref_table":"customers","ref_fields":["identifier"]}])~";
    } else if (t % 10 != 0) {
      text += R"~(,"fkeys":[{"fields":["customer_reference"],"ref_schema":")~" + schema +
              R"~(","ref_table":"table_number_)~" + std::to_string(t - 1) +
              R"~(","ref_fields":["identifier"]}])~";
    }
    text += '}';
  }
  text += "]}]}]";
  return text;
}

}  // namespace qorbench

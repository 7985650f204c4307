// The variant bridge: a document made from a YLVariant.

#include <memory>
#include <utility>
#include <vector>

#include "json_value.h"
#include "yl/yl_json.h"
#include "yl/yl_variant.h"

std::unique_ptr<YLJson> ylCreateYLJsonFromYLVariant(const YLVariant& value) {
  auto document = std::make_unique<YLJson>();
  // Children are created in order when their parent is visited, so the order in which the work
  // list is drained does not change the order of members or items.
  std::vector<std::pair<const YLVariant*, YLJsonValue*>> work{{&value, document.get()}};
  while (!work.empty()) {
    const auto [variant, target] = work.back();
    work.pop_back();
    switch (variant->getValueType()) {
      case YLVariant::ValueType::Null:
        break;
      case YLVariant::ValueType::String:
        target->setStringValue(*variant->stringPtr());
        break;
      case YLVariant::ValueType::Int:
        target->setIntValue(variant->intValue());
        break;
      case YLVariant::ValueType::Double:
        target->setDoubleValue(variant->doubleValue());
        break;
      case YLVariant::ValueType::List:
        target->setArrayType();
        for (const YLVariant& item : *variant->listPtr()) {
          work.emplace_back(&item, target->addArrayItem());
        }
        break;
      case YLVariant::ValueType::Map: {
        // An empty map is still an object: make it one before adding anything.
        yljson::Layout::makeEmptyObject(*target);
        for (const auto& [key, member] : *variant->mapPtr()) {
          work.emplace_back(&member, target->addKeyValue(key));
        }
        break;
      }
    }
  }
  return document;
}

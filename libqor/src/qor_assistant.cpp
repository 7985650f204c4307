#include "qor_assistant.h"

#include "qor_default_assistant_memory.h"

QORAssistant::QORAssistant(IYLHTTPPoolCenter* pool, const std::string& host,
                           IQORAssistantMemory* memory, const std::string& defaultHost,
                           TemperatureRule temperatureRule)
    : temperatureRule_(temperatureRule) {
  if (memory == nullptr) {
    ownedMemory = std::make_unique<QORDefaultAssistantMemory>();
    memory = ownedMemory.get();
  }
  this->memory = memory;
  session = std::make_unique<YLRestSession>();
  session->connectionPool = pool;
  properties = std::make_unique<QORAssistantProperties>(memory, defaultHost);
  properties->normaliseHost(host, defaultHost);
}

QORAssistant::~QORAssistant() {
  // The pool goes before the session, which never touches it.
  ownedMemory.reset();
  pool.reset();
  session.reset();
  properties.reset();
}

IQORAssistantMemory* QORAssistant::detachMemory() {
  // The caller takes the memory over; memory still points at it.
  (void)ownedMemory.release();
  return memory;
}

void QORAssistant::attachMemory(IQORAssistantMemory* memory) {
  // Every exchange uses the memory without a test, so a null one is refused.
  YL_ASSERT(memory != nullptr, "qor_assistant");
  if (memory == nullptr) return;
  // Attaching the memory in use changes nothing; deleting it first would leave it dangling.
  if (memory == this->memory) return;
  ownedMemory.reset();
  this->memory = memory;
  properties->memory = memory;
}

std::string QORAssistant::updateProperties(std::function<void(IQORProperties*)> update) {
  if (!update) throw std::bad_function_call();
  update(properties.get());

  QORAssistantProperties& record = *properties;
  if (record.hasChanged("temperature")) {
    if (record.temperature > 2.0) record.temperature = 2.0;
    if (record.temperature < 0.0) record.temperature = 0.0;
    switch (temperatureRule_) {
      case TemperatureRule::ZeroToTwo:
        break;
      case TemperatureRule::ZeroToOne:
        if (record.temperature > 1.0) record.temperature = 1.0;
        break;
      case TemperatureRule::ZeroToBelowTwo:
        if (record.temperature >= 2.0) record.temperature = 1.99;
        break;
    }
  }
  if (record.hasChanged("api_host")) {
    record.apiHost = ylTrimAsString(record.apiHost);
    // Nothing the host can set leaves the host empty, but an empty host must never be used.
    if (record.apiHost.empty()) record.normaliseHost({}, record.defaultHost);
  }
  return {};
}

IQORProperties* QORAssistant::obtainProperties() {
  // Always a plain record: fields of a subclass stay with the live one.
  return new QORAssistantProperties(static_cast<const QORAssistantProperties&>(*properties));
}

void QORAssistant::replaceProperties(std::unique_ptr<QORAssistantProperties> replacement) {
  replacement->apiHost = properties->apiHost;
  properties = std::move(replacement);
}

// The functions a host may call; everything else of the library is hidden.

#include <cstring>
#include <memory>

#include "qor.h"
#include "qor_assistant.h"
#include "qor_assistant_factory.h"
#include "qor_library.h"

QORCallbackLocalizationInfo& QORCallbackLocalizationInfo::operator=(
    const QORCallbackLocalizationInfo& other) {
  if (this == &other) return *this;
  source = other.source;
  std::memmove(translation, other.translation, sizeof translation);
  return *this;
}

// NOLINTNEXTLINE(performance-noexcept-move-constructor): qor.h declares it without noexcept.
QORCallbackLocalizationInfo& QORCallbackLocalizationInfo::operator=(
    QORCallbackLocalizationInfo&& other) {
  // The record owns nothing, so moving is copying and leaves the source as it was.
  return *this = static_cast<const QORCallbackLocalizationInfo&>(other);
}

IQORAssistant* QORCreateAssistant(QORAssistantType type, IYLHTTPPoolCenter* pool,
                                  const std::string& apiKey, const std::string& host,
                                  IQORAssistantMemory* memory) {
  std::unique_ptr<QORAssistant> assistant = constructAssistant(type, pool, apiKey, host, memory);
  // The pool passes to the assistant only with a successful call.
  if (assistant) assistant->adoptPool(pool);
  return assistant.release();
}

void QORFreeObject(IQORObject* object) {
  delete object;
}

void QORRegisterCallback(QORCallback callback) {
  qorSetRegisteredCallback(callback);
}

void QORSetHTTPSettings(const YLRestGlobalSettings& settings) {
  qorGlobalRestSettings() = settings;
}

#include "qor_library.h"

#include <cstring>

namespace {

// Plain data, set by the host while no other call runs (no lock, by design).
YLRestGlobalSettings globalRestSettings;
QORCallback registeredCallback = nullptr;

constexpr const char* kLocalizeKey = "QORLocalizeString";

}  // namespace

YLRestGlobalSettings& qorGlobalRestSettings() {
  return globalRestSettings;
}

QORCallback qorRegisteredCallback() {
  return registeredCallback;
}

void qorSetRegisteredCallback(QORCallback callback) {
  registeredCallback = callback;
}

std::string obtainLocalizedText(std::string_view text) {
  if (text.empty()) return {};
  QORCallback callback = registeredCallback;
  if (callback == nullptr) return std::string(text);

  // The callback reads a NUL-terminated sentence; a view need not be one.
  std::string source(text);
  QORCallbackLocalizationInfo info;
  std::memset(info.translation, 0, sizeof info.translation);
  info.source = source.c_str();
  callback(kLocalizeKey, &info);

  // A callback that filled all 1024 bytes without a NUL still gives at most 1024 bytes.
  const std::size_t length = strnlen(info.translation, sizeof info.translation);
  if (length == 0) return source;
  return std::string(info.translation, length);
}

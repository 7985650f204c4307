#pragma once
// The library's process-wide state and the translation of its own sentences.

#include <string>
#include <string_view>

#include "qor.h"

// The REST settings of every exchange. Built when the library is loaded, never absent.
YLRestGlobalSettings& qorGlobalRestSettings();

// The host's translation callback, or null.
QORCallback qorRegisteredCallback();
void qorSetRegisteredCallback(QORCallback callback);

// The host's translation of one English sentence, or the sentence itself when the host gives
// none. Asks the callback anew each time: a change of the host's language applies at once.
std::string obtainLocalizedText(std::string_view text);

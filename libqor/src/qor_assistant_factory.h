#pragma once

#include <string>

#include "qor.h"

// Builds the adapter of a service; null for a type outside the table, with nothing allocated.
IQORAssistant* qorCreateAssistant(QORAssistantType type, IYLHTTPPoolCenter* pool,
                                  const std::string& apiKey, const std::string& host,
                                  IQORAssistantMemory* memory);

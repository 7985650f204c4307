#pragma once

// Builds the adapter of each service.

#include <memory>
#include <string>

#include "qor.h"

class QORAssistant;

// The adapter of a service, which has not yet taken the pool; null for a type outside the table,
// with nothing allocated.
std::unique_ptr<QORAssistant> constructAssistant(QORAssistantType type, IYLHTTPPoolCenter* pool,
                                                 const std::string& apiKey, const std::string& host,
                                                 IQORAssistantMemory* memory);

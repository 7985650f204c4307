#pragma once
// The seven model services as qorchat names them on its command line: the assistant type, where
// the key comes from, and the host used when none is given.

#include <span>
#include <string>
#include <string_view>

#include "qor.h"

namespace qorchat {

struct Service {
  std::string_view name;  // as typed after --service
  QORAssistantType type;
  // The environment variable the service's own tools read the key from; empty: no key needed.
  std::string_view keyVariable;
  // The host qorchat gives the library when --host is absent; empty: the service's public host.
  std::string_view defaultHost;
};

std::span<const Service> allServices();
// The service of that name, or null.
const Service* findService(std::string_view name);
// "openai|google|..." for help and error texts.
std::string serviceNames();

}  // namespace qorchat

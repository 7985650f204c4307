#pragma once
// One blocking exchange each, under the library's REST settings.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "qor.h"

namespace HTTP {

// The response, always present, and an empty text after a 2xx status, else the client's
// sentence for what failed (a transport failure or an HTTP status).
using Result = std::pair<std::unique_ptr<YLRestResourceResponse>, std::string>;

// Marks every request of this library; the client does not read it.
inline constexpr std::uint64_t kRequestTag = 0x7AF634CA;

Result Get(YLRestSession* session, const std::string& url, const YLParamList& queryParams,
           const YLParamList& headerParams);
// A null json sends no body. With a piece function the body of a 2xx reply goes to it as it
// arrives and the response keeps none.
Result Post(YLRestSession* session, const std::string& url, const IYLJsonValue* json,
            const YLParamList& queryParams, const YLParamList& headerParams,
            std::function<void(std::string_view piece)> onBodyPiece = {});

}  // namespace HTTP

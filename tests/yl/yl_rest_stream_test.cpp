// A reply read as it arrives: a 2xx body goes to the request's piece function under the usual
// limits, an error status keeps its whole body, and a stream is never sent again once begun.

#include "support/raw_server.h"
#include "yl_rest_exchange.h"

namespace {

using namespace qortest;

RawBehaviour piecewise(int status, Strings pieces, long declaredLength = -1) {
  return piecewiseReply(status, std::move(pieces), declaredLength);
}

struct StreamCase {
  const char* what;
  RawBehaviour behaviour;
  std::size_t maxBytes;
  bool cancelAtFirstPiece;
  std::int32_t code;
  Strings pieces;    // as the function received them
  std::string kept;  // the response's body
};

TEST(RestStream, PiecesArriveAsSentWithinTheLimitsAndErrorsKeepTheirWholeBody) {
  constexpr std::int32_t kPartial = YLErrorCode::kCurlCodeBase + 18;
  const StreamCase cases[] = {
      {"pieces",
       piecewise(200, {"data: 1\n", "\ndata: 2", "\n\n"}),
       1024,
       false,
       0,
       {"data: 1\n", "\ndata: 2", "\n\n"},
       ""},
      {"error status",
       piecewise(400, {"{\"error\":", "\"busy\"}"}),
       1024,
       false,
       400,
       {},
       "{\"error\":\"busy\"}"},
      {"too large",
       piecewise(200, {"12345", "67890", "abc"}, 0),
       12,
       false,
       YLErrorCode::kResponseTooLarge,
       {"12345", "67890"},
       ""},
      {"cut off", piecewise(200, {"part"}, 100), 1024, false, kPartial, {"part"}, ""},
      {"cancelled",
       piecewise(200, {"one", "two"}),
       1024,
       true,
       YLErrorCode::kCancelled,
       {"one"},
       ""},
  };
  for (const StreamCase& c : cases) {
    SCOPED_TRACE(c.what);
    RawServer server;
    server.enqueue(c.behaviour);
    YLHTTPPoolCenter pool;
    YLRestSession session;
    session.connectionPool = &pool;
    YLRestGlobalSettings settings = quickSettings();
    settings.maxResponseBytes = c.maxBytes;
    settings.maxRetries = 2;  // a failed stream must still not be sent again
    settings.retryBaseDelayMs = 10;
    Strings pieces;
    YLRestGetRequest request;
    request.setURL(server.baseUrl() + "/stream");
    request.setBodyPieceHandler([&](std::string_view piece) {
      pieces.emplace_back(piece);
      if (c.cancelAtFirstPiece) pool.cancel();
    });
    const Exchanged got = exchange(request, settings, &session);
    EXPECT_EQ(got.code, c.code);
    EXPECT_EQ(pieces, c.pieces);
    EXPECT_EQ(got.response->getBufferString(), c.kept);
    EXPECT_EQ(server.requestCount(), 1u);
  }
}

TEST(RestStream, AStandInReplyIsOnePieceAndAnErrorStandInKeepsItsBody) {
  for (const long status : {200L, 400L}) {
    YLRestGlobalSettings settings = quickSettings();
    settings.requestHook = [status](const YLPreparedRequest&) {
      return std::optional<YLStandInReply>(YLStandInReply{status, {}, "data: x\n\n"});
    };
    Strings pieces;
    YLRestGetRequest request;
    request.setURL("http://127.0.0.1:1/never");
    request.setBodyPieceHandler([&](std::string_view piece) { pieces.emplace_back(piece); });
    const Exchanged got = exchange(request, settings);
    EXPECT_EQ(got.code, status == 200 ? 0 : 400);
    EXPECT_EQ(pieces, status == 200 ? Strings{"data: x\n\n"} : Strings{});
    EXPECT_EQ(got.response->getBufferString(), status == 200 ? "" : "data: x\n\n");
  }
}

}  // namespace

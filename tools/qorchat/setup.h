#pragma once
// What a run needs before it can talk to anyone: the service's key, the state folder, the sample
// database, the HTTP settings every exchange uses.

#include <functional>
#include <string>

#include "command_line.h"
#include "services.h"
#include "status.h"
#include "yl/yl_rest.h"

namespace qorchat {

// The key from --api-key-file or the service's variable; empty for a service that needs none. A
// dry run without a key gets a stand-in, since it sends nothing.
Result<std::string> readKey(const Options& options, const Service& service);

// $XDG_STATE_HOME/qorchat or ~/.local/state/qorchat, made if missing and kept private (0700);
// the failure says why there is none.
Result<std::string> stateFolder();

// The sample shop: beside the program in the build tree, under share/ once installed; empty when
// there is none.
std::string samplePath();

// The largest reply of a service qorchat accepts: a model's answer is a few kilobytes, a listing
// of models a few hundred.
inline constexpr std::size_t kMaxReplyBytes = std::size_t{8} * 1024 * 1024;

// How many times a failed request is sent again.
inline constexpr int kHttpRetries = 2;

// The settings of every exchange of this run. onRequest runs before every request, retries
// included, on the exchange's thread.
YLRestGlobalSettings httpSettings(const Options& options, std::function<void()> onRequest = {});

}  // namespace qorchat

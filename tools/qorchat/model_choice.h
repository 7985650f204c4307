#pragma once
// Which model qorchat talks to when the user names none: a chat model from the service's
// listing, never an embedding, speech, image or moderation one; and the choice remembered per
// service in the state folder, so the next run starts with it.

#include <string>
#include <string_view>
#include <vector>

#include "qor.h"
#include "status.h"

namespace qorchat {

// True when the listing's capabilities say the model chats, or, where the listing says nothing,
// when its name is not one of the kinds that cannot (embeddings, speech, images, moderation).
bool isChatModel(const QORModelEntry& entry);

// The chat models of a listing in the order qorchat prefers them: the newest dated first, then the
// undated in the listing's order.
std::vector<std::string> chatModels(std::vector<QORModelEntry> entries);

// Up to three names of the list close to a mistyped one: the same but for case, containing it, or
// a few edits away; the closest first.
std::vector<std::string> nearNames(std::string_view typed, const std::vector<std::string>& names);

// The model last chosen for a service, kept in a file of the state folder; empty when none.
std::string rememberedModel(const std::string& folder, std::string_view service);
// Keeps the model for the service; the other services' choices stay.
Status rememberModel(const std::string& folder, std::string_view service, const std::string& model);

}  // namespace qorchat

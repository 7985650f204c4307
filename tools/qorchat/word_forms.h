#pragma once
// The words of names and questions in one form, so that "pages" finds page, "HostGroup" and
// "host_groups" read alike, and "order items" finds order_items: names split at _, -, $ and
// CamelCase; words lower-cased and reduced by a light English stemmer; common question words
// dropped.

#include <string>
#include <string_view>
#include <vector>

namespace qorchat::words {

// The lower-case words of an identifier: "HostGroup_members" -> host, group, members.
std::vector<std::string> splitName(std::string_view name);

// A word reduced to its stem: pages, page -> pag; categories -> category; boxes -> box;
// statuses -> status; acknowledged, acknowledges -> acknowledg. Lower-case ASCII in.
std::string stem(std::string_view word);

// True for the words of a question that name nothing: how, many, the, show, list...
bool isStopWord(std::string_view lowerWord);

// The stems of a name's words run together: "hosts_groups" -> "hostgroup".
std::string nameKey(const std::vector<std::string>& nameWords, std::size_t from = 0);

}  // namespace qorchat::words

// Splits, stems and filters the words of names and questions.
#include "word_forms.h"

#include <algorithm>
#include <array>

namespace qorchat::words {
namespace {

bool isLower(char c) {
  return c >= 'a' && c <= 'z';
}
bool isUpper(char c) {
  return c >= 'A' && c <= 'Z';
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
char lower(char c) {
  return isUpper(c) ? static_cast<char>(c - 'A' + 'a') : c;
}

bool endsWith(std::string_view word, std::string_view end) {
  return word.size() >= end.size() && word.substr(word.size() - end.size()) == end;
}

// Sorted, for a binary search: function words and the verbs people ask with.
constexpr std::array<std::string_view, 105> kStopWords = {
    "a",    "about", "all",   "also",  "an",     "and",   "any",   "are",    "as",    "at",
    "be",   "been",  "being", "both",  "but",    "by",    "can",   "could",  "count", "did",
    "do",   "does",  "each",  "every", "find",   "for",   "from",  "get",    "give",  "had",
    "has",  "have",  "how",   "i",     "if",     "in",    "into",  "is",     "it",    "its",
    "just", "let",   "list",  "many",  "may",    "me",    "might", "more",   "most",  "much",
    "must", "my",    "no",    "not",   "now",    "of",    "on",    "only",   "or",    "other",
    "our",  "out",   "over",  "per",   "please", "right", "s",     "select", "shall", "should",
    "show", "so",    "some",  "such",  "tell",   "than",  "that",  "the",    "their", "them",
    "then", "there", "these", "they",  "this",   "those", "to",    "up",     "us",    "was",
    "we",   "were",  "what",  "when",  "where",  "which", "who",   "whom",   "whose", "why",
    "will", "with",  "would", "you",   "your"};

}  // namespace

std::vector<std::string> splitName(std::string_view name) {
  std::vector<std::string> words;
  std::string word;
  const auto close = [&] {
    if (!word.empty()) words.push_back(std::move(word));
    word.clear();
  };
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    if (!isLower(c) && !isUpper(c) && !isDigit(c) && static_cast<unsigned char>(c) < 0x80) {
      close();
      continue;
    }
    // A capital starts a word after a lower-case letter, and ends a run of capitals when a
    // lower-case letter follows it: "HTTPStep" -> http, step.
    if (isUpper(c) && i > 0 &&
        (isLower(name[i - 1]) ||
         (isUpper(name[i - 1]) && i + 1 < name.size() && isLower(name[i + 1]))))
      close();
    word += lower(c);
  }
  close();
  return words;
}

std::string stem(std::string_view word) {
  std::string stem(word);
  const auto cut = [&](std::size_t count, std::string_view add = {}) {
    stem.resize(stem.size() - count);
    stem += add;
  };
  // Plurals.
  if (stem.size() > 4 && endsWith(stem, "ies")) {
    cut(3, "y");
  } else if (endsWith(stem, "sses") || endsWith(stem, "uses") || endsWith(stem, "xes") ||
             endsWith(stem, "ches") || endsWith(stem, "shes") || endsWith(stem, "zes")) {
    cut(2);
  } else if (stem.size() > 3 && endsWith(stem, "s") && !endsWith(stem, "ss") &&
             !endsWith(stem, "us") && !endsWith(stem, "is")) {
    cut(1);
  }
  // Past tenses and gerunds, then a silent e, so that a verb meets its noun.
  if (stem.size() > 5 && endsWith(stem, "ing")) {
    cut(3);
  } else if (stem.size() > 4 && endsWith(stem, "ed") && !endsWith(stem, "eed")) {
    cut(2);
  }
  if (stem.size() > 3 && endsWith(stem, "e")) cut(1);
  return stem;
}

bool isStopWord(std::string_view lowerWord) {
  return std::binary_search(kStopWords.begin(), kStopWords.end(), lowerWord);
}

std::string nameKey(const std::vector<std::string>& nameWords, std::size_t from) {
  std::string key;
  for (std::size_t i = from; i < nameWords.size(); ++i)
    key += stem(nameWords[i]);
  return key;
}

}  // namespace qorchat::words
